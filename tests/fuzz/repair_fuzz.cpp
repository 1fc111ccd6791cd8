// A whole repair. The input is an index, a line of percent signs, and the movie.
#include <cstdint>
#include <cstring>

#include "MVRepair/restore/mv_repair.h"
#include "fuzz/fuzzing.h"

namespace {

constexpr char kBetween[] = "\n%%%%\n";

/// The container depends on the input, mostly MP4.
std::string output_for(size_t size) {
  static constexpr const char* kNames[] = {"a.mp4", "a.mov", "a.mp4", "a.mkv", "a.mp4", "a.flv", "a.mp4", "a.ts"};
  return meru_fuzz::folder().file(kNames[size % 8]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  meru_fuzz::be_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t between = input.find(kBetween);
  const size_t index_size = between == std::string::npos ? size : between;
  const size_t movie_at = between == std::string::npos ? size : between + strlen(kBetween);
  const std::string broken = meru_fuzz::folder().file("broken.mp4");
  const std::string index = meru_fuzz::folder().file("broken.idx");
  meru_fuzz::write_file(index, input.c_str(), index_size);
  meru_fuzz::write_file(broken, input.c_str() + movie_at, size - movie_at);

  int reports = 0;
  int failures = 0;
  MVRepair repair;
  const bool done = repair.start_sync(broken.c_str(), index.c_str(), output_for(size).c_str(),
                                      [&](double progress, int code, const char* text) {
                                        ++reports;
                                        failures += code != 0 ? 1 : 0;
                                        meru_fuzz::require(progress >= 0.0 && progress <= 1.0, "progress is a part");
                                        meru_fuzz::require((code != 0) == (text[0] != '\0'), "failures have a text");
                                      });
  meru_fuzz::require(reports > 0, "something is reported");
  meru_fuzz::require(failures == (done ? 0 : 1), "a failure is told once");
  return 0;
}

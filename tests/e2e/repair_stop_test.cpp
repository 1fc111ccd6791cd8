// Stopping the repair of a movie of several hundred megabytes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "support/eventually.h"
#include "support/meru_tool.h"
#include "support/mp4_movie.h"
#include "support/repair_api.h"
#include "support/repair_host.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kPacketSize = 20000;
constexpr int kPacketsPerLine = 50;  // a megabyte
constexpr int kLines = 800;

class RepairStopTest : public testing::Test {
 protected:
  void SetUp() override {
    write_file(broken, "");
    ASSERT_EQ(truncate(broken.c_str(), off_t{kPacketSize} * kPacketsPerLine * kLines + 48), 0);
    std::ofstream(broken, std::ios::app) << 'x';  // zeros alone would be no movie
    std::string text =
        "## version=2, x\n"
        R"({"type":"video","index":0,"codec":"h264","format":"yuv420p","h":48,"w":64,"tb.num":1,"tb.den":12800,"qv":""})"
        "\n";
    const std::string record = "," + std::to_string(kPacketSize) + ",512,,512,1;";
    for (int line = 0; line < kLines; ++line) {
      for (int i = 0; i < kPacketsPerLine; ++i) text += (line + i == 0 ? ",48" : ",") + record;
      text += "\n";
    }
    write_file(index, text);
  }
  void* start(RepairLog* log) const {
    return api.start_async(broken.c_str(), index.c_str(), output.c_str(), RepairLog::callback, log);
  }

  /// Stops a repair in the middle. @return how long that took
  milliseconds stop_in_the_middle() const {
    RepairLog log;
    void* handle = start(&log);
    EXPECT_TRUE(log.wait_for_reports(2));
    EXPECT_TRUE(api.is_running(handle));
    const auto before = steady_clock::now();
    api.stop(&handle);
    const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - before);
    EXPECT_EQ(handle, nullptr);
    EXPECT_LT(log.last().progress, 0.9);
    const size_t told = log.entries().size();
    // The movie made so far is complete and no further line was begun.
    const std::string bytes = file_text(output);
    const Mp4Movie movie(bytes);
    EXPECT_EQ(movie.tracks.at(0).samples.size() % kPacketsPerLine, 0U);
    EXPECT_LE(movie.tracks.at(0).samples.size(), (told + 1) * 10 * kPacketsPerLine);
    EXPECT_EQ(log.entries().size(), told);
    return took;
  }

  const RepairApi api = RepairApi::linked();
  TempDir dir;
  std::string broken = dir.file("broken.mp4");
  std::string index = dir.file("broken.idx");
  std::string output = dir.file("repaired.mp4");
};

TEST_F(RepairStopTest, ReturnsAtOnce) {
  // Every attempt is bounded; the best of them is what the library needs, the others what the machine makes of it.
  std::vector<milliseconds> took;
  for (int i = 0; i < 5; ++i) took.push_back(stop_in_the_middle());
  std::sort(took.begin(), took.end());
  EXPECT_LT(took.front(), milliseconds(kSanitized ? 500 : 100));
  EXPECT_LT(took.back(), milliseconds(5000));
}

TEST_F(RepairStopTest, StopRightAfterTheStart) {
  for (int i = 0; i < 20; ++i) {
    RepairLog log;
    void* handle = start(&log);
    api.stop(&handle);
    EXPECT_LT(log.last().progress, 0.9);
    EXPECT_EQ(log.last().code, MERU_REPAIR_PROGRESS);
    const std::string bytes = file_text(output);
    EXPECT_NE(Mp4Movie::find_box(bytes, "moov"), std::string::npos);
  }
}

}  // namespace
}  // namespace meru_test

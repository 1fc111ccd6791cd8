// Records with two fields that no encoder can take, or with audio of unusual shapes: never a crash, never a hang.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/host.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr unsigned kHangSec = 60;

struct Change {
  std::string name;
  std::function<void(MovieInfo*)> apply;
  bool may_exit = false;  ///< the process may end with status 1, as documented
};
using Record = std::vector<const Change*>;

std::string name_of(const Record& record) {
  std::string name;
  for (const Change* change : record) name += (name.empty() ? "" : " + ") + change->name;
  return name;
}

bool may_exit(const Record& record) {
  for (const Change* change : record) {
    if (change->may_exit) return true;
  }
  return false;
}

/// As many bytes as this record's own description asks for, and no more, so that reading beyond them is noticed.
size_t image_bytes(const MovieInfo& info) {
  const bool sane = info.width_src > 0 && info.width_src <= 256 && info.height_src > 0 && info.height_src <= 256;
  return sane ? static_cast<size_t>(info.width_src) * static_cast<size_t>(info.height_src) * 4 : 256;
}

int known_sample_bytes(int format) {
  constexpr int kBytes[] = {1, 2, 4, 4, 8, 1, 2, 4, 4, 8, 8, 8};
  return format >= 0 && format < 12 ? kBytes[format] : 4;
}

/// A whole recording with everything that pushes audio: samples, silence, samples after a pause.
void record(const MovieInfo& info) {
  void* session = MERU_start(info, nullptr, nullptr, nullptr, false);
  std::vector<uint8_t> image(image_bytes(info));
  const int channels = info.channels > 0 && info.channels <= 256 ? info.channels : 2;
  std::vector<uint8_t> pcm(static_cast<size_t>(1500 * channels * known_sample_bytes(info.sample_fmt)));
  const bool small = info.width_src <= 256 && info.height_src <= 256;
  const long long at = MERU_current_sys_usec();
  if (small) MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), at, info.width_src * 4);
  MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size()), at);
  MERU_write_audio_pcm(session, nullptr, 0, at + 1000);
  MERU_pause(session);
  MERU_resume(session);
  MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size()), at + 1500 * 1000000LL / 48000 + 2000);
  MERU_stop(&session);
}

/// Runs the records one after the other in children of this process. A child lives until one of them ends it.
class Children {
 public:
  Children()
      : m_at(static_cast<volatile size_t*>(
            mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~Children() { munmap(const_cast<size_t*>(m_at), sizeof(size_t)); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  void run(const std::vector<Record>& records) {
    ASSERT_NE(static_cast<void*>(const_cast<size_t*>(m_at)), MAP_FAILED);
    for (size_t next = 0; next < records.size(); next = *m_at + 1) {
      *m_at = next;
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) run_from(records, next);
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
      const Record& last = records[*m_at];
      const bool documented = WIFEXITED(status) && WEXITSTATUS(status) == 1 && may_exit(last);
      EXPECT_TRUE(documented) << name_of(last) << (WIFSIGNALED(status) ? ": signal " : ": exit status ")
                              << (WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
  }

 private:
  [[noreturn]] void run_from(const std::vector<Record>& records, size_t next) {
    const TempDir dir;
    if (freopen("/dev/null", "w", stderr) == nullptr || freopen("/dev/null", "w", stdout) == nullptr) _exit(99);
    for (; next < records.size(); ++next) {
      *m_at = next;
      MovieInfo info = small_movie(dir.file("movie.mp4"));
      for (const Change* change : records[next]) change->apply(&info);
      alarm(kHangSec);
      record(info);
    }
    _exit(0);
  }

  volatile size_t* m_at;  // the record that the child is at
};

template <class Field>
Change set(const std::string& name, Field MovieInfo::*field, Field value, bool may_exit = false) {
  const std::string text = name + "=" + std::to_string(value);
  return {text, [field, value](MovieInfo* info) { info->*field = value; }, may_exit};
}

std::vector<Change> pictures() {
  std::vector<Change> all;
  for (const int v : {0, -64, 47, 100000, INT_MAX}) all.push_back(set("width", &MovieInfo::width, v));
  for (const int v : {0, -48, 47, INT_MAX}) all.push_back(set("height", &MovieInfo::height, v));
  for (const int v : {0, -5, 63, 100000}) all.push_back(set("width_src", &MovieInfo::width_src, v));
  for (const int v : {0, -5, 47, 20000}) all.push_back(set("height_src", &MovieInfo::height_src, v));
  for (const int v : {99999, -7}) all.push_back(set("pix_fmt_src", &MovieInfo::pix_fmt_src, v));
  for (const int v : {99999, INT_MIN}) all.push_back(set("pix_fmt", &MovieInfo::pix_fmt, v));
  for (const int v : {0, -25, INT_MAX}) all.push_back(set("fps", &MovieInfo::fps, v));
  for (const int v : {-1, INT_MAX}) all.push_back(set("gop_size", &MovieInfo::gop_size, v));
  for (const int v : {-1, INT_MAX}) all.push_back(set("v_bitrate", &MovieInfo::v_bitrate, v));
  for (const int v : {1, 3, 77}) all.push_back(set("rate_control", &MovieInfo::rate_control, v));
  for (const int v : {11, INT_MIN}) all.push_back(set("preset", &MovieInfo::preset, v));
  all.push_back(set("colorspace", &MovieInfo::colorspace, 250));
  all.push_back(set("no_video", &MovieInfo::no_video, true));
  return all;
}

std::vector<Change> sounds() {
  std::vector<Change> all;
  for (const int v : {0, -1, 20000000}) all.push_back(set("sample_rate_src", &MovieInfo::sample_rate_src, v));
  for (const int v : {0, INT_MAX}) all.push_back(set("sample_rate_dst", &MovieInfo::sample_rate_dst, v));
  for (const int v : {0, -2, 64, 65, INT_MAX}) all.push_back(set("channels", &MovieInfo::channels, v));
  for (const int v : {99, -1, 6}) all.push_back(set("sample_fmt", &MovieInfo::sample_fmt, v));
  for (const int v : {0, INT_MAX}) all.push_back(set("a_bitrate", &MovieInfo::a_bitrate, v));
  all.push_back(set("a_bitrate", &MovieInfo::a_bitrate, -1, true));
  all.push_back(set("no_audio", &MovieInfo::no_audio, true));
  return all;
}

std::vector<Record> pairs_of(const std::vector<Change>& first, const std::vector<Change>& second) {
  std::vector<Record> pairs;
  for (const Change& a : first) {
    for (const Change& b : second) pairs.push_back({&a, &b});
  }
  return pairs;
}

std::vector<Record> pairs_within(const std::vector<Change>& all) {
  std::vector<Record> pairs;
  for (size_t i = 0; i < all.size(); ++i) {
    for (size_t j = i + 1; j < all.size(); ++j) pairs.push_back({&all[i], &all[j]});
  }
  return pairs;
}

std::vector<Change> channel_counts() {
  std::vector<Change> all;
  for (int channels = 1; channels <= 66; ++channels) all.push_back(set("channels", &MovieInfo::channels, channels));
  return all;
}

std::vector<Change> sample_formats() {
  std::vector<Change> all;
  for (int format = -1; format <= 12; ++format) all.push_back(set("sample_fmt", &MovieInfo::sample_fmt, format));
  return all;
}

TEST(BadRecordPairsTest, PictureAndSound) {
  const auto first = pictures();
  const auto second = sounds();
  Children().run(pairs_of(first, second));
}

TEST(BadRecordPairsTest, PictureAndPicture) {
  const auto all = pictures();
  Children().run(pairs_within(all));
}

TEST(BadRecordPairsTest, SoundAndSound) {
  const auto all = sounds();
  Children().run(pairs_within(all));
}

TEST(BadRecordPairsTest, ChannelsAndSampleFormat) {
  const auto first = channel_counts();
  const auto second = sample_formats();
  Children().run(pairs_of(first, second));
}

TEST(BadRecordPairsTest, ChannelsAndRate) {
  const auto first = channel_counts();
  std::vector<Change> second;
  for (const int v : {8000, 11025, 96000, 192000}) {
    second.push_back(set("sample_rate_src", &MovieInfo::sample_rate_src, v));
  }
  Children().run(pairs_of(first, second));
}

}  // namespace
}  // namespace meru_test

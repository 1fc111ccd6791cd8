// A day of recording with a pause in every minute, pushed as fast as it goes; see soak.sh. MERU_SOAK_HOURS makes it
// another length, TMPDIR says where the movies are made.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <ostream>
#include <string>

#include "support/case_name.h"
#include "support/host.h"
#include "support/index_reader.h"
#include "support/marked_scene.h"
#include "support/probe.h"
#include "support/resident_memory.h"
#include "support/temp_dir.h"

namespace {

/// The time that the library's own clock shows, in nanoseconds.
std::atomic<long long> g_clock{1000000000000};

}  // namespace

/// Stands in for the system's function. The clock that the library counts pauses by is this program's, so that a pause
/// of seconds takes no time and ends at exactly the moment that the host means; every other clock is the system's.
extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept {
  if (id != CLOCK_MONOTONIC_RAW) return static_cast<int>(syscall(SYS_clock_gettime, id, now));
  const long long nanoseconds = g_clock;
  now->tv_sec = nanoseconds / 1000000000;
  now->tv_nsec = nanoseconds % 1000000000;
  return 0;
}

namespace meru_test {
namespace {

constexpr int kFps = 5;
constexpr int kMinute = 60 * kFps;  // images
constexpr int kTail = 10;           // images that are white, with the loud sound to them
constexpr long long kPauseUsec = 7 * kUsecPerSec;
constexpr int kFirstLook = 60;  // minutes after which the memory is measured the first time

int minutes() {
  const char* const wanted = std::getenv("MERU_SOAK_HOURS");
  return static_cast<int>((wanted != nullptr ? std::atof(wanted) : 24) * 60);
}

/// A host whose stamps are read off the library's clock, and that sets that clock.
class DayHost {
 public:
  explicit DayHost(const MovieInfo& info) : m_scene(info), m_host(info) {}

  Host& host() { return m_host; }
  int pauses() const { return m_pauses; }
  long refused() const { return m_refused; }

  void push_minute(bool last) {
    for (int i = 0; i < kMinute; ++i) {
      if (i == kMinute / 2) pause();
      if (!push_at_clock(last && i >= kMinute - kTail)) ++m_refused;
    }
  }

 private:
  bool push_at_clock(bool marked) {
    const bool taken = m_scene.push(m_host.session(), MERU_current_sys_usec(), marked);
    advance(kUsecPerSec / kFps);
    return taken;
  }
  static void advance(long long usec) { g_clock += usec * 1000; }

  /// What is pushed meanwhile would be seen and heard.
  void pause() {
    EXPECT_TRUE(MERU_pause(m_host.session()));
    ++m_pauses;
    for (long long passed = 0; passed < kPauseUsec; passed += kUsecPerSec / kFps) EXPECT_FALSE(push_at_clock(true));
    EXPECT_TRUE(MERU_resume(m_host.session()));
  }

  MarkedScene m_scene;
  Host m_host;
  int m_pauses = 0;
  long m_refused = 0;
};

/// The stamps of a stream, in seconds.
struct Stamps {
  long count = 0;
  double first = 0, last = 0;
  double worst = 0;  ///< how far one is from its place behind the first, when all lie a frame apart

  void add(double stamp) {
    if (count == 0) first = stamp;
    last = stamp;
    worst = std::max(worst, std::abs(last - first - static_cast<double>(count) / kFps));
    ++count;
  }
};

Stamps read_stamps(const std::string& path, const std::string& stream) {
  const std::string list = path + ".stamps";
  const CommandResult result =
      run_command("ffprobe -v error -select_streams " + stream + " -show_entries packet=pts_time -of csv=p=0 " +
                  quoted(path) + " > " + quoted(list));
  EXPECT_EQ(result.output, "");
  Stamps stamps;
  std::ifstream in(list);
  for (std::string line; std::getline(in, line);) {
    // A packet with further data has an empty line behind its own.
    if (!line.empty()) stamps.add(std::strtod(line.c_str(), nullptr));
  }
  return stamps;
}

struct DayCase {
  const char* name;
  const char* extension;
  double tick;            ///< of the container's stamps, in seconds
  double bytes_a_packet;  ///< what the muxer keeps of each packet to its end
  bool repairable;
};
void PrintTo(const DayCase& c, std::ostream* out) { *out << c.name; }

class DayTest : public testing::TestWithParam<DayCase> {
 protected:
  DayTest() {
    set_text(m_info.snapshot_path, m_index);
    m_info.fps = kFps;
    m_info.gop_size = 10 * kFps;
    m_info.channels = 1;
    m_info.sample_rate_src = m_info.sample_rate_dst = 8000;
    m_info.a_bitrate = 16;
  }

  void record() {
    DayHost day(m_info);
    ASSERT_TRUE(day.host().started());
    for (int minute = 0; minute < m_minutes; ++minute) {
      if (minute == m_first_look) m_early_kib = resident_kib();
      day.push_minute(minute == m_minutes - 1);
    }
    m_grown_kib = resident_kib() - m_early_kib;
    EXPECT_EQ(day.refused(), 0);
    EXPECT_EQ(MERU_movie_time(day.host().session()), (m_images - 1) * kUsecPerSec / kFps);
    EXPECT_NEAR(static_cast<double>(MERU_last_usec_pts(day.host().session())) / kUsecPerSec, m_length, kFrame);
    day.host().stop();
    EXPECT_EQ(day.host().status().entries().size(), 1U);
    std::printf("day %s minutes %d pauses %d memory_early_kib %ld grown_kib %ld\n", GetParam().name, m_minutes,
                day.pauses(), m_early_kib, m_grown_kib);
  }
  void expect_right_stamps(const Stamps& video, const Stamps& audio) const {
    EXPECT_EQ(video.count, m_images);
    EXPECT_LE(video.worst, GetParam().tick + 1e-6);
    EXPECT_NEAR(video.first, 0, kFrame);
    EXPECT_NEAR(audio.last, m_length, kFrame + 1024.0 / 8000);  // where its last packet begins
    std::printf("day %s images %ld sounds %ld worst_stamp_ms %.3f\n", GetParam().name, video.count, audio.count,
                video.worst * 1e3);
  }
  void expect_in_step_at_the_end(const std::string& path) const {
    constexpr int kBefore = 20;  // images before the marks
    const Marks marks = Marks::found(path, m_info, m_length - (kTail + kBefore) * kFrame);
    EXPECT_NEAR(marks.picture, kBefore * kFrame, kFrame / 2);
    EXPECT_NEAR(marks.sound, marks.picture, kFrame);
    std::printf("day %s marks_apart_ms %.1f\n", GetParam().name, (marks.sound - marks.picture) * 1e3);
  }
  /// The index tells of all packets but the very last one, and a repair makes the movie of them again.
  void expect_index_of(long packets) const {
    EXPECT_EQ(IndexReader::of_file(m_index).records.size(), static_cast<size_t>(packets - 1));
    std::printf("day %s index_records %ld\n", GetParam().name, packets - 1);
    if (!GetParam().repairable) return;
    const CommandResult result = run_command(MERU_TOOL " repair " + quoted(m_path) + " " + quoted(m_index) + " " +
                                             quoted(m_repaired) + " > " + quoted(m_dir.file("repair.log")));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(read_stamps(m_repaired, "v:0").count + read_stamps(m_repaired, "a:0").count, packets - 1);
    expect_in_step_at_the_end(m_repaired);
  }
  void expect_flat(long packets) const {
    const double later = 1.0 - static_cast<double>(m_first_look) / m_minutes;
    const double kept = static_cast<double>(packets) * later * GetParam().bytes_a_packet;
    EXPECT_LT(static_cast<double>(m_grown_kib), kept / 1024 + 8 * 1024);
  }

  static constexpr double kFrame = 1.0 / kFps;

  const TempDir m_dir;
  const std::string m_path = m_dir.file(std::string("day.") + GetParam().extension);
  const std::string m_index = m_dir.file("day.index");
  const std::string m_repaired = m_dir.file("repaired.mp4");
  MovieInfo m_info = small_movie(m_path);
  const int m_minutes = minutes();
  const int m_first_look = std::min(kFirstLook, m_minutes / 2);
  const long long m_images = static_cast<long long>(m_minutes) * kMinute;
  const double m_length = static_cast<double>(m_images) * kFrame;
  long m_early_kib = 0;
  long m_grown_kib = 0;
};

TEST_P(DayTest, StaysFlatAndInStepThroughEveryPause) {
  record();
  ASSERT_FALSE(HasFatalFailure());
  const Stamps video = read_stamps(m_path, "v:0");
  const Stamps audio = read_stamps(m_path, "a:0");
  expect_right_stamps(video, audio);
  expect_in_step_at_the_end(m_path);
  expect_index_of(video.count + audio.count);
  expect_flat(video.count + audio.count);
}

// An MP4's table of packets is written at its end, and FFmpeg keeps it in an array that grows by half at a time.
INSTANTIATE_TEST_SUITE_P(All, DayTest,
                         testing::Values(DayCase{"Mkv", "mkv", 0.001, 0, false}, DayCase{"Mp4", "mp4", 0, 160, true}),
                         CaseName());

}  // namespace
}  // namespace meru_test

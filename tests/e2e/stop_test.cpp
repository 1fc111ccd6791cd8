// Stopping at any moment: during the start, from inside a callback, from another thread.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>

#include "support/eventually.h"
#include "support/host.h"
#include "support/late_callbacks.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Starts, lets `delay` pass, stops, and checks how long the stop took.
/// @return how long the start took
Clock::duration start_and_stop(const MovieInfo& info, std::chrono::microseconds delay, LateCallbacks* callbacks) {
  const auto before_start = Clock::now();
  void* session = MERU_start(info, &LateCallbacks::callback, callbacks, nullptr, true);
  const auto start_took = Clock::now() - before_start;
  // The moment of the stop is what is tested; nothing is waited for.
  std::this_thread::sleep_for(delay);
  const auto before_stop = Clock::now();
  MERU_stop(&session);
  callbacks->stopped = true;
  EXPECT_LT(Clock::now() - before_stop, milliseconds(1000));
  EXPECT_EQ(session, nullptr);
  return start_took;
}

/// A start that waits for its output does so every time; a busy machine delays some.
void expect_prompt(std::vector<Clock::duration> took) {
  std::nth_element(took.begin(), took.begin() + static_cast<ptrdiff_t>(took.size() / 2), took.end());
  EXPECT_LT(took[took.size() / 2], milliseconds(50));
}

TEST(StopDuringStartTest, FileOutputs) {
  const TempDir dir;
  LogCapture log;
  constexpr int kRounds = 240;
  std::vector<std::unique_ptr<LateCallbacks>> rounds;
  std::vector<Clock::duration> starts;
  for (int i = 0; i < kRounds; ++i) {
    const char* const extensions[] = {"mp4", "flv", "mkv"};
    MovieInfo info = small_movie(dir.file(std::to_string(i) + "." + extensions[i % 3]));
    if (i % 2 == 0) set_text(info.snapshot_path, dir.file(std::to_string(i) + ".index"));
    rounds.push_back(std::make_unique<LateCallbacks>());
    starts.push_back(start_and_stop(info, std::chrono::microseconds(i * 5000 / kRounds), rounds.back().get()));
  }
  expect_prompt(starts);
  // Starts that were left behind end by themselves.
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == kRounds; }));
  for (const auto& round : rounds) EXPECT_EQ(round->late, 0);
}

TEST(StopDuringStartTest, OpeningThatCannotBeBrokenOff) {
  const TempDir dir;
  LogCapture log;
  const std::string pipe = dir.file("movie.mkv");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  LateCallbacks callbacks;
  EXPECT_LT(start_and_stop(small_movie(pipe), milliseconds(50), &callbacks), milliseconds(1000));
  EXPECT_EQ(log.count(4, "--- stop OK"), 0);
  // A reader lets the opening return; what was left behind then frees itself.
  run_command("timeout 20 cat " + quoted(pipe) + " > /dev/null");
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(callbacks.late + callbacks.in_time, 0);
}

TEST(StopFromCallbackTest, OfTheStart) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  LogCapture log;
  std::atomic<void*> session{nullptr};
  std::atomic<bool> stopped{false};
  Host* host = nullptr;
  Host recording(small_movie(path), true, [&](int) {
    // The start may be quicker than MERU_start's return with the handle.
    if (!eventually([&] { return session != nullptr; })) return;
    MERU_stop(host->session_address());
    stopped = true;
  });
  host = &recording;
  session = recording.session();
  ASSERT_TRUE(recording.status().wait_for_code(0));
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(recording.session(), nullptr);
  EXPECT_EQ(recording.status().entries().size(), 1U);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(StopFromCallbackTest, OfAFailedStart) {
  const TempDir dir;
  LogCapture log;
  std::atomic<bool> known{false};
  Host* host = nullptr;
  Host recording(small_movie(dir.file("no/movie.mp4")), true, [&](int) {
    if (eventually([&] { return known.load(); })) MERU_stop(host->session_address());
  });
  host = &recording;
  known = true;
  ASSERT_TRUE(recording.status().wait_for_code(MERU_STATUS_OPEN_FAILED));
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(recording.session(), nullptr);
}

TEST(StopFromCallbackTest, OfTheWritingThread) {
  const TempDir dir;
  LogCapture log;
  Host* host = nullptr;
  std::atomic<bool> failed{false};
  std::atomic<bool> pushing{true};
  Host recording(small_movie(dir.file("movie.mkv")), false, [&](int code) {
    if (code == 0) return;
    // Nothing may be pushed while MERU_stop runs.
    failed = true;
    if (eventually([&] { return !pushing; })) MERU_stop(host->session_address());
  });
  host = &recording;
  ASSERT_TRUE(recording.started());
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limited{16 * 1024, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limited);
  for (int i = 0; i < 10000 && !failed; ++i) recording.push_scene(1, kUsecPerSec + i * 40000);
  pushing = false;
  EXPECT_TRUE(recording.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(recording.session(), nullptr);
  EXPECT_EQ(recording.status().entries().size(), 2U);
}

TEST(StopFromOtherThreadTest, WaitsForARunningCallback) {
  const TempDir dir;
  LogCapture log;
  std::atomic<bool> inside{false};
  std::atomic<bool> release{false};
  std::atomic<bool> left{false};
  Host host(small_movie(dir.file("movie.mp4")), true, [&](int) {
    inside = true;
    eventually([&] { return release.load(); });
    left = true;
  });
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  std::atomic<bool> left_before_return{false};
  std::thread stopper([&] {
    host.stop();
    left_before_return = left.load();
  });
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- before stop") == 1; }));
  release = true;
  stopper.join();
  EXPECT_TRUE(left_before_return);
}

}  // namespace
}  // namespace meru_test

// Ending a session at any moment: with nothing pushed, inside a callback, against outputs that never answer.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/late_callbacks.h"
#include "support/local_listener.h"
#include "support/log_capture.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace {

std::atomic<bool> g_no_threads{false};

}  // namespace

/// In front of the system's: fails when a test says so.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                              void* arg) noexcept {
  if (g_no_threads) return EAGAIN;
  static const auto system_create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  return system_create(thread, attr, routine, arg);
}

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// What a live output is given to take what is pending, with some more for a busy machine.
constexpr seconds kDrained{12};
constexpr milliseconds kAtOnce{2000};

Clock::duration stop_takes(PacketHost* host) {
  const auto before = Clock::now();
  host->stop();
  EXPECT_EQ(host->session(), nullptr);
  return Clock::now() - before;
}

TEST(RawPacketsStopTest, AtAnyMomentAfterTheStart) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {30});
  constexpr int kRounds = 200;
  std::vector<std::unique_ptr<LateCallbacks>> rounds;
  for (int i = 0; i < kRounds; ++i) {
    const char* const extensions[] = {"mp4", "flv", "mkv"};
    MovieInfo2 info = raw_movie(dir.file(std::to_string(i) + "." + extensions[i % 3]), true, i % 4 == 0);
    if (i % 2 == 0) set_text(info.snapshot_path, dir.file(std::to_string(i) + ".index"));
    rounds.push_back(std::make_unique<LateCallbacks>());
    void* session = MERU2_start(info, &LateCallbacks::callback, rounds.back().get());
    // The moment of the stop is what is tested; nothing is waited for.
    std::this_thread::sleep_for(std::chrono::microseconds(i % 20 * 200));
    for (int p = 0; p < i % 30; ++p) {
      RawPacket packet = video.packets[static_cast<size_t>(p)];
      MERU2_write_video_packet(session, packet.data.data(), static_cast<int>(packet.data.size()), packet.pts);
    }
    MERU2_stop(&session);
    rounds.back()->stopped = true;
    EXPECT_EQ(session, nullptr);
    MERU2_stop(&session);
  }
  for (const auto& round : rounds) {
    EXPECT_EQ(round->late, 0);
    EXPECT_GE(round->in_time, 1);
  }
}

TEST(RawPacketsStopTest, SecondStopDoesNothing) {
  const TempDir dir;
  PacketHost host(raw_movie(dir.file("movie.mp4")));
  host.stop();
  EXPECT_EQ(host.session(), nullptr);
  const size_t told = host.status().entries().size();
  host.stop();
  EXPECT_EQ(host.status().entries().size(), told);
}

TEST(RawPacketsStopTest, StartReturnsBeforeTheOutputIsOpen) {
  SilentServer server;
  const auto before = Clock::now();
  PacketHost host(raw_movie(server.url("rtmp")));
  EXPECT_LT(Clock::now() - before, kAtOnce);
  EXPECT_TRUE(host.status().entries().empty());
  server.close();
}

struct CallbackCase {
  const char* name;
  const char* file;
  bool no_room;  ///< the writing thread reports
};
void PrintTo(const CallbackCase& c, std::ostream* out) { *out << c.name; }

class RawStopFromCallbackTest : public testing::TestWithParam<CallbackCase> {};

TEST_P(RawStopFromCallbackTest, EndsTheSession) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {60, 30, "640x480"});
  const std::string path = dir.file(GetParam().file);
  const bool no_room = GetParam().no_room;
  if (no_room) signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limited{16 * 1024, before.rlim_max};
  if (no_room) setrlimit(RLIMIT_FSIZE, &limited);

  std::atomic<PacketHost*> known{nullptr};
  std::atomic<bool> pushed{false};
  Clock::duration took{};
  PacketHost host(raw_movie(path, true, false), [&](int code) {
    if (no_room && code == 0) return;
    // Nothing may be pushed while MERU2_stop runs, and the worker may be quicker than MERU2_start's return.
    if (eventually([&] { return known != nullptr && pushed; })) took = stop_takes(known);
  });
  known = &host;
  host.push(video.packets, {});
  pushed = true;
  const size_t expected = no_room ? 2 : 1;
  EXPECT_TRUE(eventually([&] { return host.status().entries().size() == expected; }));
  EXPECT_LT(took, kAtOnce);
  EXPECT_EQ(host.session(), nullptr);
  if (std::string(GetParam().name) == "OfTheStart") {
    // What was pushed is recorded on another thread.
    EXPECT_TRUE(eventually([&] { return run_command("ffprobe -v error " + meru_test::quoted(path)).status == 0; }));
    expect_video(path, video.packets, kMp4.tick);
  }
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(host.status().entries().size(), expected);
}

INSTANTIATE_TEST_SUITE_P(All, RawStopFromCallbackTest,
                         testing::Values(CallbackCase{"OfTheStart", "movie.mp4", false},
                                         CallbackCase{"OfAFailure", "no/movie.mp4", false},
                                         CallbackCase{"OfTheWritingThread", "movie.mkv", true}),
                         CaseName());

TEST(RawStopFromOtherThreadTest, WaitsForARunningCallback) {
  const TempDir dir;
  std::atomic<bool> inside{false};
  std::atomic<bool> release{false};
  std::atomic<bool> left{false};
  PacketHost host(raw_movie(dir.file("movie.mp4")), [&](int) {
    inside = true;
    eventually([&] { return release.load(); });
    left = true;
  });
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  std::atomic<bool> left_before_return{false};
  const Background stopping([&] {
    host.stop();
    left_before_return = left.load();
  });
  EXPECT_FALSE(stopping.ends_within(milliseconds(50)));
  release = true;
  EXPECT_TRUE(stopping.ends());
  EXPECT_TRUE(left_before_return);
}

struct SilentCase {
  const char* name;
  const char* scheme;
  bool as_further_output;
};
void PrintTo(const SilentCase& c, std::ostream* out) { *out << c.name; }

class RawSilentServerTest : public testing::TestWithParam<SilentCase> {};

/// A server that lets connections in and never answers.
TEST_P(RawSilentServerTest, GetsFiveSecondsAndTheFileIsComplete) {
  const TempDir dir;
  const SilentServer server;
  const RawVideo video = make_video(dir, {60});
  const std::string url = server.url(GetParam().scheme);
  const std::string path = dir.file("movie.mp4");
  MovieInfo2 info = raw_movie(GetParam().as_further_output ? path : url, true, false);
  if (GetParam().as_further_output) info.other_urls[0] = url.c_str();
  LateCallbacks callbacks;
  void* session = MERU2_start(info, &LateCallbacks::callback, &callbacks);
  for (const RawPacket& packet : video.packets) {
    std::string data = packet.data;
    MERU2_write_video_packet(session, data.data(), static_cast<int>(data.size()), packet.pts);
  }
  const auto before = Clock::now();
  MERU2_stop(&session);
  EXPECT_LT(Clock::now() - before, kDrained);
  callbacks.stopped = true;
  EXPECT_GE(callbacks.in_time, 1);
  EXPECT_EQ(callbacks.late, 0);
  if (GetParam().as_further_output) expect_video(path, video.packets, kMp4.tick);
}

INSTANTIATE_TEST_SUITE_P(All, RawSilentServerTest,
                         testing::Values(SilentCase{"Rtmp", "rtmp", false}, SilentCase{"Rtsp", "rtsp", false},
                                         SilentCase{"FurtherRtmp", "rtmp", true}),
                         CaseName());

/// A host that is blocked because a server never answers is released, and told, without a stop.
TEST(RawSilentServerTest, EndsByItselfAndReleasesTheHost) {
  const TempDir dir;
  const SilentServer server;
  const RawVideo video = make_video(dir, {600});
  PacketHost host(raw_movie(server.url("rtmp"), true, false));
  const Background pushing([&] { host.push(video.packets, {}); });
  EXPECT_TRUE(pushing.ends());
  EXPECT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  EXPECT_LT(stop_takes(&host), kAtOnce);
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].text.rfind("could not open output url '" + server.url("rtmp") + "': ", 0), 0U)
      << entries[0].text;
}

/// Opening a pipe that nobody reads cannot be broken off: the session is completed when somebody does.
TEST(RawPacketsStopTest, OpeningThatCannotBeBrokenOff) {
  const TempDir dir;
  const std::string pipe = dir.file("movie.flv");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const RawVideo video = make_video(dir, {60});
  LateCallbacks callbacks;
  auto name = std::make_unique<std::string>("h264");
  MovieInfo2 info = raw_movie(pipe, true, false);
  info.video_format = name->c_str();
  void* session = MERU2_start(info, &LateCallbacks::callback, &callbacks);
  for (const RawPacket& packet : video.packets) {
    std::string data = packet.data;
    MERU2_write_video_packet(session, data.data(), static_cast<int>(data.size()), packet.pts);
  }
  const auto before = Clock::now();
  MERU2_stop(&session);
  EXPECT_LT(Clock::now() - before, kDrained);
  callbacks.stopped = true;
  name->assign("gone");
  name.reset();

  const std::string copy = dir.file("copy.flv");
  run_command("timeout 20 cat " + meru_test::quoted(pipe) + " > " + meru_test::quoted(copy));
  expect_video(copy, video.packets, kMillisecond);
  EXPECT_EQ(callbacks.late + callbacks.in_time, 0);
}

TEST(RawPacketsStartTest, ReportsThatThereIsNoThread) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {600});
  StatusLog status;
  g_no_threads = true;
  void* session = MERU2_start(raw_movie(dir.file("movie.mp4"), true, false), &StatusLog::callback, &status);
  g_no_threads = false;
  ASSERT_NE(session, nullptr);
  const auto entries = status.entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].code, -EAGAIN);
  EXPECT_NE(entries[0].text, "");
  for (RawPacket packet : video.packets) {
    EXPECT_TRUE(
        MERU2_write_video_packet(session, packet.data.data(), static_cast<int>(packet.data.size()), packet.pts));
  }
  MERU2_stop(&session);
  EXPECT_EQ(session, nullptr);
}

}  // namespace
}  // namespace meru_test

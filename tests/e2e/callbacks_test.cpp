// Every thread that calls the host, and every exported function from there. What a callback must not do is left out of
// it; the headers say what that is.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "support/callback_bench.h"
#include "support/eventually.h"
#include "support/file_size_limit.h"
#include "support/probe.h"
#include "support/within.h"

namespace meru_test {
namespace {

constexpr int kImages = 10;

class CallbackTest : public testing::Test {
 protected:
  /// Everything was called, and did what it is for.
  void expect_called() {
    EXPECT_GE(bench.complete(), 1);
    bench.expect_others_whole();
  }
  /// A recording on which the callbacks themselves may have pushed goes on as if nothing had been.
  void expect_goes_on(Host* host) {
    EXPECT_EQ(host->push_scene(kImages, 100 * kUsecPerSec), kImages);
    host->stop();
    EXPECT_EQ(decode_errors(path), "");
    EXPECT_GE(count_frames(path), kImages);
  }

  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  CallbackBench bench;
};

/// A recording whose handle its callbacks know. They may come before MERU_start has returned it.
class KnownHost {
 public:
  KnownHost(const MovieInfo& info, bool async, std::function<void(int, void*)> in_callback)
      : host(info, async, [this, in_callback](int code) {
          EXPECT_TRUE(eventually([&] { return m_known.load(); }));
          in_callback(code, m_session);
        }) {
    m_session = host.session();
    m_known = true;
  }

 private:
  std::atomic<bool> m_known{false};
  void* m_session = nullptr;

 public:
  Host host;
};

TEST_F(CallbackTest, OfASynchronousStart) {
  // The session has no handle yet.
  Host host(small_movie(path), false, [&](int) { bench.call_every_function({}); });
  ASSERT_TRUE(host.started());
  expect_called();
  expect_goes_on(&host);
}

TEST_F(CallbackTest, OfAnAsynchronousStart) {
  KnownHost known(small_movie(path), true, [&](int code, void* session) {
    EXPECT_EQ(code, 0);
    Caller caller;
    caller.recording = session;
    caller.takes = true;
    bench.call_every_function(caller);
  });
  ASSERT_TRUE(known.host.status().wait_for_code(0));
  expect_called();
  expect_goes_on(&known.host);
}

TEST_F(CallbackTest, OfAStartThatFails) {
  KnownHost known(small_movie(dir.file("no/movie.mp4")), true, [&](int, void* session) {
    Caller caller;
    caller.recording = session;
    bench.call_every_function(caller);
  });
  ASSERT_TRUE(known.host.status().wait_for_code(MERU_STATUS_OPEN_FAILED));
  Host synchronous(small_movie(dir.file("no/movie.mp4")), false, [&](int) { bench.call_every_function({}); });
  EXPECT_EQ(bench.complete(), 2);
  expect_called();
}

TEST_F(CallbackTest, OfAWritingThread) {
  std::optional<FileSizeLimit> limit;
  std::atomic<bool> failed{false};
  std::atomic<bool> pushing{true};
  KnownHost known(small_movie(path), true, [&](int code, void* session) {
    if (code == 0) return;
    failed = true;
    // A session has one pushing thread.
    EXPECT_TRUE(eventually([&] { return !pushing; }));
    limit.reset();
    Caller caller;
    caller.recording = session;
    bench.call_every_function(caller);
  });
  ASSERT_TRUE(known.host.status().wait_for_code(0));
  limit.emplace(16 * 1024);
  for (int i = 0; i < 10000 && !failed; ++i) known.host.push_scene(1, kUsecPerSec + i * 40000);
  pushing = false;
  ASSERT_TRUE(known.host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  known.host.stop();
  expect_called();
}

TEST_F(CallbackTest, OfASessionOfPackets) {
  std::atomic<void*> session{nullptr};
  const RawVideo video = make_video(dir);
  PacketHost host(raw_movie(path, true, false), [&](int code) {
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(eventually([&] { return session != nullptr; }));
    Caller caller;
    caller.packets = session;
    bench.call_every_function(caller);
  });
  session = host.session();
  ASSERT_TRUE(host.status().wait_for_code(0));
  host.push(video.packets, {});
  host.stop();
  expect_called();
}

TEST_F(CallbackTest, OfAWritingThreadOfPackets) {
  std::optional<FileSizeLimit> limit;
  std::atomic<void*> session{nullptr};
  std::atomic<bool> failed{false};
  std::atomic<bool> pushing{true};
  const RawVideo video = make_video(dir);
  PacketHost host(raw_movie(path, true, false), [&](int code) {
    if (code == 0) return;
    failed = true;
    EXPECT_TRUE(eventually([&] { return !pushing; }));
    limit.reset();
    Caller caller;
    caller.packets = session;
    bench.call_every_function(caller);
  });
  session = host.session();
  ASSERT_TRUE(host.status().wait_for_code(0));
  limit.emplace(16 * 1024);
  for (size_t i = 0; i < 10000 && !failed; ++i) {
    host.push_video({video.packets[i % video.packets.size()].data, static_cast<long long>(i) * 40000});
  }
  pushing = false;
  ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  host.stop();
  expect_called();
}

TEST_F(CallbackTest, OfASessionOfPacketsThatFails) {
  std::atomic<void*> session{nullptr};
  PacketHost host(raw_movie(dir.file("no/movie.mp4"), true, false), [&](int code) {
    EXPECT_LT(code, 0);
    EXPECT_TRUE(eventually([&] { return session != nullptr; }));
    // More than can wait to be written: nobody reads them.
    char data[] = "packet";
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(MERU2_write_video_packet(session, data, sizeof(data), i * 40000LL));
    Caller caller;
    caller.packets = session;
    bench.call_every_function(caller);
  });
  session = host.session();
  ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  expect_called();
}

TEST_F(CallbackTest, OfARepair) {
  for (const bool async : {false, true}) {
    RepairLog log;
    std::atomic<void*> repair{nullptr};
    std::atomic<bool> called{false};
    log.set_hook([&] {
      if (called.exchange(true)) return;
      if (async) {
        EXPECT_TRUE(eventually([&] { return repair != nullptr; }));
      }
      Caller caller;
      caller.repair = repair;
      bench.call_every_function(caller);
    });
    const std::string output = dir.file(async ? "async.mp4" : "sync.mp4");
    const auto& cut = bench.m_cut;
    if (async) {
      void* handle =
          MERU_StartRepair_Async(cut.broken.c_str(), cut.index.c_str(), output.c_str(), &RepairLog::callback, &log);
      repair = handle;
      EXPECT_TRUE(eventually([&] { return !MERU_Repair_IsRunning(handle); }));
      MERU_StopRepair(&handle);
    } else {
      EXPECT_TRUE(
          MERU_StartRepair_sync(cut.broken.c_str(), cut.index.c_str(), output.c_str(), &RepairLog::callback, &log));
    }
    EXPECT_EQ(decode_errors(output), "");
  }
  EXPECT_EQ(bench.complete(), 2);
  expect_called();
}

/// Does something in each of the calls that a filter gets, the first time that it gets it.
class ActingFilter : public FilterBase {
 public:
  using Act = std::function<void()>;
  ActingFilter(Act on_audio, Act on_video, Act at_end = nullptr)
      : m_on_audio(std::move(on_audio)), m_on_video(std::move(on_video)), m_at_end(std::move(at_end)) {}
  ~ActingFilter() override {
    if (m_at_end) m_at_end();
  }
  int on_audio_packet(AVPacket*) override {
    if (Act act = std::exchange(m_on_audio, nullptr)) act();
    return 0;
  }
  AVFrame* on_video_frame(AVFrame* frame) override {
    if (Act act = std::exchange(m_on_video, nullptr)) act();
    return frame;
  }

 private:
  Act m_on_audio, m_on_video, m_at_end;
};

TEST_F(CallbackTest, OfAVideoFilterAndItsEnd) {
  Host host(small_movie(path));
  ASSERT_TRUE(host.started());
  Caller caller;
  caller.recording = host.session();
  caller.takes = true;
  caller.may_push_video = caller.may_replace_filter = false;
  // At its end the handle is gone already.
  MERU_add_video_filter(
      host.session(), new ActingFilter(
                          nullptr, [&] { bench.call_every_function(caller); }, [&] { bench.call_every_function({}); }));
  expect_goes_on(&host);
  EXPECT_EQ(bench.complete(), 2);
  expect_called();
}

TEST_F(CallbackTest, OfAnAudioFilter) {
  Host host(small_movie(path));
  ASSERT_TRUE(host.started());
  Caller caller;
  caller.recording = host.session();
  caller.takes = true;
  caller.may_push_audio = false;
  ActingFilter filter([&] { bench.call_every_function(caller); }, nullptr);
  MERU_add_audio_filter(host.session(), &filter);
  expect_goes_on(&host);
  expect_called();
}

TEST_F(CallbackTest, OfAnAudioFilterInsideTheStop) {
  Host host(small_movie(path));
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);
  ActingFilter filter([&] { bench.call_every_function({}); }, nullptr);
  MERU_add_audio_filter(host.session(), &filter);
  EXPECT_EQ(bench.complete(), 0);
  host.stop();
  EXPECT_EQ(decode_errors(path), "");
  expect_called();
}

/// Answers every message of the log with calls, but for those that they lead to themselves.
class AnsweringLog {
 public:
  explicit AnsweringLog(std::function<void()> answer) {
    nuv::Logger::instance()->m_callback = [answer = std::move(answer)](const char*, int, const char*, int,
                                                                       const char*) {
      thread_local bool inside = false;
      if (inside) return;
      inside = true;
      answer();
      inside = false;
    };
  }
  ~AnsweringLog() { nuv::Logger::instance()->m_callback = nullptr; }
  AnsweringLog(const AnsweringLog&) = delete;
  AnsweringLog& operator=(const AnsweringLog&) = delete;
};

TEST_F(CallbackTest, OfTheLog) {
  std::atomic<void*> session{nullptr};
  const AnsweringLog answering([&] {
    Caller caller;
    caller.recording = session;
    caller.may_pause = false;
    bench.call_what_may_be_called_anywhere(caller);
  });
  int last = 0;
  const auto answered_since = [&] {
    const int before = std::exchange(last, bench.called_anywhere());
    return last > before;
  };
  {
    Host host(small_movie(path), true);
    ASSERT_TRUE(host.status().wait_for_code(0));
    EXPECT_TRUE(answered_since()) << "the start";
    session = host.session();
    EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);
    EXPECT_TRUE(answered_since()) << "the pushes";
    session = nullptr;
    host.stop();
    EXPECT_TRUE(answered_since()) << "the stop, and the writing thread";
  }
  const std::string output = dir.file("repaired.mp4");
  EXPECT_TRUE(
      MERU_StartRepair_sync(bench.m_cut.broken.c_str(), bench.m_cut.index.c_str(), output.c_str(), nullptr, nullptr));
  EXPECT_TRUE(answered_since()) << "the repair";
  bench.expect_others_whole();
  EXPECT_EQ(decode_errors(path), "");
}

TEST(LongCallbackTest, HoldsUpNeitherPushesNorOtherSessions) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  std::atomic<bool> inside{false}, release{false};
  Host host(small_movie(path), true, [&](int) {
    inside = true;
    EXPECT_TRUE(eventually([&] { return release.load(); }, std::chrono::seconds(60)));
  });
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  const Background recording([&] {
    EXPECT_EQ(host.push_scene(100, kUsecPerSec), 100);
    EXPECT_TRUE(MERU_pause(host.session()));
    EXPECT_TRUE(MERU_resume(host.session()));
    Host other(small_movie(dir.file("other.mp4")));
    EXPECT_EQ(other.push_scene(kImages, kUsecPerSec), kImages);
  });
  EXPECT_TRUE(recording.ends());
  EXPECT_FALSE(release);
  release = true;
  host.stop();
  EXPECT_EQ(count_frames(path), 100);
}

TEST(LongCallbackTest, OfAFailureHoldsUpNeitherPushesNorOtherSessions) {
  const TempDir dir;
  std::optional<FileSizeLimit> limit;
  std::atomic<bool> inside{false}, release{false};
  Host host(small_movie(dir.file("movie.mkv")), false, [&](int code) {
    if (code == 0) return;
    limit.reset();
    inside = true;
    EXPECT_TRUE(eventually([&] { return release.load(); }, std::chrono::seconds(60)));
  });
  ASSERT_TRUE(host.started());
  limit.emplace(16 * 1024);
  int pushed = 0;
  const auto push = [&] { host.push_scene(1, kUsecPerSec + pushed++ * 40000LL); };
  EXPECT_TRUE(eventually([&] {
    push();
    return inside.load();
  }));
  const Background pushing([&] {
    for (int i = 0; i < 200; ++i) push();
    Host other(small_movie(dir.file("other.mp4")));
    EXPECT_EQ(other.push_scene(kImages, kUsecPerSec), kImages);
  });
  EXPECT_TRUE(pushing.ends());
  EXPECT_FALSE(release);
  release = true;
  host.stop();
  EXPECT_EQ(host.status().entries().size(), 2U);
}

}  // namespace
}  // namespace meru_test

// Stopping a live recording from inside the status callback.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <utility>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/failing_server.h"
#include "support/host.h"
#include "support/live_server.h"
#include "support/overheard.h"
#include "support/process_counts.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kAtOnce{1000};

/// Stops a session inside its first callback with a code that is asked for, as soon as the host allows it.
class Stopper {
 public:
  explicit Stopper(std::function<bool(int)> wanted) : m_wanted(std::move(wanted)) {}

  /// The callback, before it is noted.
  void operator()(int code) {
    if (!m_wanted(code)) return;
    m_reached = true;
    // The session may call before its handle is known, and nothing may be pushed while it is being stopped.
    if (!eventually([&] { return m_allowed.load(); })) return;
    const auto before = Clock::now();
    m_stop_session();
    m_took = Clock::now() - before;
    m_stopped = true;
  }
  void allow(std::function<void()> stop_session) {
    m_stop_session = std::move(stop_session);
    m_allowed = true;
  }
  bool reached() const { return m_reached; }
  bool stopped() const {
    return eventually([&] { return m_stopped.load(); });
  }
  Clock::duration took() const { return m_took; }

 private:
  std::function<bool(int)> m_wanted;
  std::function<void()> m_stop_session;  // set before m_allowed
  std::atomic<bool> m_reached{false}, m_allowed{false}, m_stopped{false};
  Clock::duration m_took{};  // set before m_stopped
};

bool is_started(int code) { return code == 0; }
bool has_failed(int code) { return code != 0; }

struct StopCase {
  const char* name;
  const char* scheme;
  Trouble trouble;
};
void PrintTo(const StopCase& c, std::ostream* out) { *out << c.name; }

class LiveStopFromCallbackTest : public testing::TestWithParam<const char*> {
 protected:
  const TempDir m_dir;
};

TEST_P(LiveStopFromCallbackTest, OfTheStart) {
  LiveServer server(m_dir, GetParam(), "key");
  Overheard heard;
  const ProcessCounts before = ProcessCounts::now();
  Stopper stopper(&is_started);
  Host host(small_movie(server.url()), true, std::ref(stopper));
  stopper.allow([&] { host.stop(); });
  ASSERT_TRUE(stopper.stopped());
  EXPECT_LT(stopper.took(), kAtOnce);
  EXPECT_TRUE(eventually([&] { return heard.log().count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(host.session(), nullptr);
  ASSERT_EQ(host.status().entries().size(), 1U);
  EXPECT_EQ(host.status().entries()[0].text, "start OK");
  expect_nothing_left_since(before);
}

TEST_P(LiveStopFromCallbackTest, OfTheStartWithAFileBeside) {
  LiveServer server(m_dir, GetParam(), "key");
  const std::string file = m_dir.file("movie.mp4");
  Overheard heard;
  const ProcessCounts before = ProcessCounts::now();
  Stopper stopper(&is_started);
  MovieInfo info = small_movie(server.url());
  info.other_urls[0] = file.c_str();
  Host host(info, true, std::ref(stopper));
  stopper.allow([&] { host.stop(); });
  ASSERT_TRUE(stopper.stopped());
  EXPECT_TRUE(eventually([&] { return heard.log().count(4, "--- stop OK") == 1; }));
  expect_nothing_left_since(before);
  EXPECT_EQ(heard.failure_lines(), 0);
  EXPECT_NE(file_bytes(file).find("moov"), std::string::npos) << "there is no trailer";
}

INSTANTIATE_TEST_SUITE_P(Servers, LiveStopFromCallbackTest, testing::Values("rtmp", "rtsp"),
                         [](const auto& test) { return test.param; });

class FailedStopFromCallbackTest : public testing::TestWithParam<StopCase> {
 protected:
  const TempDir m_dir;
};

/// The start fails, or the server is struck while pictures are pushed: then the writing thread calls.
TEST_P(FailedStopFromCallbackTest, EndsTheSession) {
  FailingServer server(m_dir, GetParam().trouble, GetParam().scheme);
  Overheard heard;
  const ProcessCounts before = ProcessCounts::now();
  Stopper stopper(&has_failed);
  Host host(small_movie(server.url()), true, std::ref(stopper));
  if (server.strikes()) {
    ASSERT_TRUE(host.status().wait_for_code(0));
    long long pushed = 0;
    const auto push_one = [&] { host.push_scene(1, kUsecPerSec + pushed++ * kUsecPerSec / 25); };
    ASSERT_TRUE(eventually([&] {
      push_one();
      return server.has_stream();
    }));
    server.strike();
    EXPECT_TRUE(eventually([&] {
      push_one();
      return stopper.reached();
    }));
  }
  stopper.allow([&] { host.stop(); });
  ASSERT_TRUE(stopper.stopped());
  EXPECT_LT(stopper.took(), kAtOnce);
  EXPECT_TRUE(eventually([&] { return heard.log().count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(host.session(), nullptr);
  EXPECT_EQ(host.status().entries().size(), server.strikes() ? 2U : 1U);
  expect_nothing_left_since(before);
  EXPECT_EQ(heard.failures(0, public_address(server.url())).size(), 1U);
  EXPECT_EQ(heard.failure_lines(), 1);
  heard.expect_no(FailingServer::kKey);
}

TEST_P(FailedStopFromCallbackTest, EndsTheSessionOfPackets) {
  FailingServer server(m_dir, GetParam().trouble, GetParam().scheme);
  const RawVideo video = make_video(m_dir);
  Overheard heard;
  const ProcessCounts before = ProcessCounts::now();
  Stopper stopper(&has_failed);
  PacketHost host(raw_movie(server.url(), true, false), std::ref(stopper));
  long long pushed = 0;
  const auto push_one = [&] {
    RawPacket packet = video.packets[static_cast<size_t>(pushed) % video.packets.size()];
    packet.pts = pushed++ * kUsecPerSec / video.fps;
    host.push_video(packet);
  };
  if (server.strikes()) {
    ASSERT_TRUE(eventually([&] {
      push_one();
      return server.has_stream();
    }));
    server.strike();
  }
  EXPECT_TRUE(eventually([&] {
    push_one();
    return stopper.reached();
  }));
  stopper.allow([&] { host.stop(); });
  ASSERT_TRUE(stopper.stopped());
  // The rest of the callback uses what the host is about to destroy.
  EXPECT_TRUE(host.status().wait_for([](const StatusLog::Entry& entry) { return entry.code != 0; }));
  expect_nothing_left_since(before);
  EXPECT_LT(stopper.took(), kAtOnce);
  EXPECT_EQ(host.session(), nullptr);
  EXPECT_EQ(heard.failures(0, public_address(server.url())).size(), 1U);
  heard.expect_no(FailingServer::kKey);
}

INSTANTIATE_TEST_SUITE_P(All, FailedStopFromCallbackTest,
                         testing::Values(StopCase{"RtmpRefused", "rtmp", Trouble::kRefused},
                                         StopCase{"RtmpRejected", "rtmp", Trouble::kRejected},
                                         StopCase{"RtmpKilled", "rtmp", Trouble::kKilled},
                                         StopCase{"RtmpReset", "rtmp", Trouble::kReset},
                                         StopCase{"RtspRefused", "rtsp", Trouble::kRefused},
                                         StopCase{"RtspRejected", "rtsp", Trouble::kRejected},
                                         StopCase{"RtspKilled", "rtsp", Trouble::kKilled}),
                         CaseName());

}  // namespace
}  // namespace meru_test

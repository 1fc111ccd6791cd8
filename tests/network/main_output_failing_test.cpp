// A live main output that fails: the host is told once, its pushes return, and the other outputs go on.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

constexpr int kImages = 50;
constexpr long long kBegin = 5 * kUsecPerSec;

/// A server for one stream, of either kind.
class AnyServer {
 public:
  AnyServer(const std::string& scheme, const TempDir& dir) {
    if (scheme == "rtmp") {
      m_rtmp = std::make_unique<RtmpServer>(dir.path());
    } else {
      m_rtsp = std::make_unique<RtspReceiver>(dir.file("received.mkv"));
    }
  }
  std::string url() const { return m_rtmp != nullptr ? m_rtmp->url("key") : m_rtsp->url(); }
  bool has_publisher() { return m_rtmp != nullptr ? m_rtmp->has_publisher("key") : m_rtsp->has_sender(); }
  void kill() { m_rtmp != nullptr ? m_rtmp->kill() : m_rtsp->kill(); }

 private:
  std::unique_ptr<RtmpServer> m_rtmp;
  std::unique_ptr<RtspReceiver> m_rtsp;
};

struct SchemeCase {
  const char* name;
  const char* scheme;
};
void PrintTo(const SchemeCase& c, std::ostream* out) { *out << c.name; }

class KilledServerTest : public testing::TestWithParam<SchemeCase> {
 protected:
  /// Pushes on until the failure is reported, however the pushes fare.
  static bool push_until_failure(StatusLog& status, const std::function<void()>& push) {
    return eventually([&] {
      push();
      const auto entries = status.entries();
      return std::any_of(entries.begin(), entries.end(), is_failure);
    });
  }

  const TempDir m_dir;
  AnyServer m_server{GetParam().scheme, m_dir};
};

TEST_P(KilledServerTest, IsReportedOnceAndPushesAndStopReturn) {
  Host host(small_movie(m_server.url()));
  ASSERT_TRUE(host.started());
  int pushed = 0;
  const auto push_one = [&] { host.push_scene(1, kBegin + pushed++ * kUsecPerSec / 25); };
  const Background all([&] {
    while (pushed < kImages) push_one();
    m_server.kill();
    EXPECT_TRUE(push_until_failure(host.status(), push_one));
    for (int i = 0; i < kImages; ++i) push_one();
    host.stop();
  });
  ASSERT_TRUE(all.ends());
  expect_started_and_failed(host.status());
}

TEST_P(KilledServerTest, JustBeforeTheStopDoesNotHoldItUp) {
  Host host(small_movie(m_server.url()));
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kBegin), kImages);
  m_server.kill();
  const Background stop([&] { host.stop(); });
  ASSERT_TRUE(stop.ends());
  // What is left to be sent may be nothing at all.
  const auto entries = host.status().entries();
  EXPECT_LE(std::count_if(entries.begin(), entries.end(), is_failure), 1);
}

TEST_P(KilledServerTest, FurtherFileIsWhole) {
  const std::string file = m_dir.file("further.mkv");
  MovieInfo info = small_movie(m_server.url());
  info.other_urls[0] = file.c_str();
  info.preset = QUALITY_FAST;  // so that the encoder holds images at the end
  Host host(info);
  ASSERT_TRUE(host.started());
  int pushed = 0;
  const auto push_one = [&] { host.push_scene(1, kBegin + pushed++ * kUsecPerSec / 25); };
  const Background all([&] {
    while (pushed < kImages) push_one();
    m_server.kill();
    EXPECT_TRUE(push_until_failure(host.status(), push_one));
    for (int i = 0; i < kImages; ++i) push_one();
    host.stop();
  });
  ASSERT_TRUE(all.ends());
  expect_started_and_failed(host.status());
  EXPECT_EQ(decode_errors(file), "");
  expect_images_in_step(file, pushed, 25);
  EXPECT_EQ(count_frames(file), pushed);
  const bool rtsp = std::string(GetParam().scheme) == "rtsp";
  expect_sound_in_step(file, host.pushed_samples(), 48000, rtsp ? kOpusFrames : kAacFrames);
}

TEST_P(KilledServerTest, OfPacketsIsReportedOnceAndPushesAndStopReturn) {
  const RawVideo video = make_video(m_dir);
  const RawAudio audio = make_audio(m_dir);
  PacketHost host(raw_movie(m_server.url()));
  long long round = 0;
  const auto push_all = [&] {
    RawPackets images = video.packets, sound = audio.packets;
    for (RawPacket& packet : images) packet.pts += round * 3 * kUsecPerSec;
    for (RawPacket& packet : sound) packet.pts += round * 3 * kUsecPerSec;
    host.push(images, sound);
    ++round;
  };
  const Background all([&] {
    push_all();
    ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry&) { return true; }));
    ASSERT_EQ(host.status().entries()[0].code, 0) << host.status().entries()[0].text;
    // An RTSP output connects only when its header is written.
    ASSERT_TRUE(m_server.has_publisher());
    m_server.kill();
    EXPECT_TRUE(push_until_failure(host.status(), push_all));
    for (int i = 0; i < 10; ++i) push_all();
    host.stop();
  });
  ASSERT_TRUE(all.ends());
  expect_started_and_failed(host.status(), "start success");
}

INSTANTIATE_TEST_SUITE_P(All, KilledServerTest, testing::Values(SchemeCase{"Rtmp", "rtmp"}, SchemeCase{"Rtsp", "rtsp"}),
                         CaseName());

TEST(RejectedStreamTest, IsReportedAsAnAddressThatCannotBeOpened) {
  const TempDir dir;
  const RtmpServer server(dir.path());
  Host host(small_movie(server.refusing_url("key")));
  EXPECT_FALSE(host.started());
  EXPECT_EQ(host.push_scene(10, kBegin), 0);
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].code, MERU_STATUS_OPEN_FAILED);
  EXPECT_EQ(entries[0].text, "Could not open url");
}

TEST(RejectedStreamTest, OfPacketsIsReportedAndPushesReturn) {
  const TempDir dir;
  const RtmpServer server(dir.path());
  const RawVideo video = make_video(dir);
  PacketHost host(raw_movie(server.refusing_url("key"), true, false));
  EXPECT_TRUE(host.status().wait_for(is_failure));
  for (int i = 0; i < 20; ++i) host.push(video.packets, {});  // more than any queue takes
  host.stop();
  ASSERT_EQ(host.status().entries().size(), 1U);
  EXPECT_LT(host.status().entries()[0].code, 0);
  EXPECT_NE(host.status().entries()[0].text, "");
}

}  // namespace
}  // namespace meru_test

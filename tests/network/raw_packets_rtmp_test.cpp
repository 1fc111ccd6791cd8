// Ready-made packets that live servers take: what they record are those packets.

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "support/case_name.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

struct RawCase {
  const char* name;
  bool video, audio, two_threads;
};
void PrintTo(const RawCase& c, std::ostream* out) { *out << c.name; }

class RawPacketsRtmpTest : public testing::TestWithParam<RawCase> {
 protected:
  void push(PacketHost* host) const {
    if (GetParam().two_threads) {
      host->push_from_two_threads(m_video.packets, m_audio.packets);
    } else {
      host->push(GetParam().video ? m_video.packets : RawPackets{}, GetParam().audio ? m_audio.packets : RawPackets{});
    }
  }
  std::string recording(const std::string& key) {
    EXPECT_TRUE(m_server.has_recorded(key));
    EXPECT_EQ(decode_errors(m_server.recorded(key)), "");
    return m_server.recorded(key);
  }

  const TempDir m_dir;
  const RawVideo m_video = make_video(m_dir);
  const RawAudio m_audio = make_audio(m_dir);
  RtmpServer m_server{m_dir.path()};
};

TEST_P(RawPacketsRtmpTest, ServerRecordsEveryPacketWithItsStamp) {
  PacketHost host(raw_movie(m_server.url("key"), GetParam().video, GetParam().audio));
  push(&host);
  host.stop();
  expect_success(host.status());
  const std::string path = recording("key");
  EXPECT_EQ(stream_count(path), (GetParam().video ? 1U : 0U) + (GetParam().audio ? 1U : 0U));
  if (GetParam().video) expect_video(path, m_video.packets, kFlv.tick);
  if (GetParam().audio) expect_audio(path, m_audio.packets, kFlv.tick);
}

INSTANTIATE_TEST_SUITE_P(All, RawPacketsRtmpTest,
                         testing::Values(RawCase{"OneThread", true, true, false},
                                         RawCase{"TwoThreads", true, true, true}, RawCase{"Video", true, false, false},
                                         RawCase{"Audio", false, true, false}),
                         CaseName());

class RawPacketsLiveOutputsTest : public RawPacketsRtmpTest {};

TEST_F(RawPacketsLiveOutputsTest, FileAndFourOthersHoldTheSamePackets) {
  RtspReceiver receiver(m_dir.file("received.mkv"));
  const std::string main = m_dir.file("main.mp4");
  const std::string others[] = {m_server.url("first"), receiver.url(), m_server.url("second"), m_dir.file("other.mkv")};
  MovieInfo2 info = raw_movie(main);
  for (size_t i = 0; i < 4; ++i) info.other_urls[i] = others[i].c_str();
  PacketHost host(info);
  host.push_from_two_threads(m_video.packets, m_audio.packets);
  host.stop();
  expect_success(host.status());
  expect_video(main, m_video.packets, kMp4.tick);
  expect_audio(main, m_audio.packets, kMp4.tick);
  for (const std::string& path : {recording("first"), recording("second"), others[3]}) {
    expect_video(path, m_video.packets, kMkv.tick);
    expect_audio(path, m_audio.packets, kMkv.tick);
  }
  ASSERT_TRUE(receiver.ended());
  EXPECT_EQ(received_errors(receiver.recorded()), "");
  EXPECT_TRUE(decoded_images(receiver.recorded()) == decoded_images(main));
  EXPECT_TRUE(decoded_samples(receiver.recorded()) == decoded_samples(main));
}

}  // namespace
}  // namespace meru_test

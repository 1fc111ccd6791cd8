// RTSP streams of packets that are encoded already.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/live_checks.h"
#include "support/probe.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

std::vector<std::string> hashes(const std::string& path, const std::string& stream) {
  std::vector<std::string> all;
  for (const ProbedPacket& packet : probe_packets(path, stream)) all.push_back(packet.hash);
  return all;
}

TEST(RawPacketsRtspTest, ReceiverGetsPicturesAndSound) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  RtspReceiver receiver(dir.file("received.mkv"));
  PacketHost host(raw_movie(receiver.url()));
  host.push_from_two_threads(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  ASSERT_TRUE(receiver.ended());
  EXPECT_EQ(hashes(receiver.recorded(), "v:0"), video_hashes(video.packets));
  EXPECT_EQ(hashes(receiver.recorded(), "a:0"), audio_hashes(audio.packets));
  EXPECT_EQ(received_errors(receiver.recorded()), "");
}

TEST(RawPacketsRtspTest, FurtherOutputTakesSoundBesideAFile) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  for (const char* name : {"movie.mp4", "movie.mkv", "movie.ts"}) {
    SCOPED_TRACE(name);
    RtspReceiver receiver(dir.file(std::string(name) + ".received.mkv"));
    const std::string url = receiver.url();
    MovieInfo2 info = raw_movie(dir.file(name));
    info.other_urls[0] = url.c_str();
    PacketHost host(info);
    host.push_from_two_threads(video.packets, audio.packets);
    host.stop();
    expect_success(host.status());
    ASSERT_TRUE(receiver.ended());
    EXPECT_EQ(hashes(receiver.recorded(), "a:0"), audio_hashes(audio.packets));
    EXPECT_EQ(received_errors(receiver.recorded()), "");
    EXPECT_TRUE(decoded_samples(dir.file(name)) == decoded_samples(receiver.recorded()));
    EXPECT_EQ(decode_errors(dir.file(name)), "");
  }
}

}  // namespace
}  // namespace meru_test

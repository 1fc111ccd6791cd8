// A medium that ends long before the other, or rests: it must neither hold the other one's host back nor lose anything.

#include <gtest/gtest.h>

#include <thread>

#include "support/probe.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

constexpr int kImages = 1300;  // more than may wait to be written, twice

class UnevenTest : public testing::Test {
 protected:
  /// Packets of which one second is real, over and over.
  static RawPackets repeated(const RawPackets& source, size_t count) {
    const long long step = source[1].pts - source[0].pts;
    RawPackets packets;
    for (size_t i = 0; i < count; ++i) {
      packets.push_back({source[i % source.size()].data, static_cast<long long>(i) * step});
    }
    return packets;
  }
  void push(const PacketHost& host, const RawPackets& packets, bool video, size_t begin = 0, size_t end = SIZE_MAX) {
    for (size_t i = begin; i < std::min(end, packets.size()); ++i) {
      auto* data = const_cast<char*>(packets[i].data.data());
      const int size = static_cast<int>(packets[i].data.size());
      if (video) {
        MERU2_write_video_packet(host.session(), data, size, packets[i].pts);
      } else {
        MERU2_write_audio_packet(host.session(), data, size, packets[i].pts);
      }
    }
  }
  void expect_all(size_t videos, size_t audios) {
    EXPECT_EQ(probe_packets(m_movie, "v:0").size(), videos);
    EXPECT_EQ(probe_packets(m_movie, "a:0").size(), audios);
    EXPECT_EQ(decode_errors(m_movie), "");
  }

  TempDir m_dir;
  std::string m_movie = m_dir.file("movie.mp4");
  RawPackets m_video = repeated(make_video(m_dir, {30, 30, "160x120", "keyint=30:scenecut=0"}).packets, kImages);
  RawPackets m_audio = repeated(make_audio(m_dir, 1).packets, 1300);
};

TEST_F(UnevenTest, SoundThatEndsEarlyLeavesThePicturesGoOn) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_audio, false, 0, 40);
    push(host, m_video, true);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(kImages, 40);
}

TEST_F(UnevenTest, PicturesThatEndEarlyLeaveTheSoundGoOn) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_video, true, 0, 40);
    push(host, m_audio, false);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(40, m_audio.size());
}

TEST_F(UnevenTest, SoundThatRestsIsTakenUpAgain) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_audio, false, 0, 40);
    push(host, m_video, true, 0, 900);
    push(host, m_audio, false, 40, 100);  // late, with the stamps that they have
    push(host, m_video, true, 900);
    push(host, m_audio, false, 100, 200);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(kImages, 200);
  const auto packets = probe_packets(m_movie, "a:0");
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_NEAR(packets[i].pts, static_cast<double>(m_audio[i].pts) / 1e6, 0.001) << i;
  }
}

TEST_F(UnevenTest, PicturesThatRestAreTakenUpAgain) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_video, true, 0, 40);
    push(host, m_audio, false, 0, 900);
    push(host, m_video, true, 40, 100);  // from the middle of a group of pictures
    push(host, m_audio, false, 900);
    push(host, m_video, true, 100, 200);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(200, m_audio.size());
  const auto packets = probe_packets(m_movie, "v:0");
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_NEAR(packets[i].pts, static_cast<double>(m_video[i].pts) / 1e6, 0.001) << i;
    EXPECT_EQ(packets[i].key, i % 30 == 0) << i;
  }
}

TEST_F(UnevenTest, OnePictureIsEnoughForTheSoundToGoOn) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_video, true, 0, 1);
    MERU2_write_video_packet(host.session(), nullptr, 0, 0);
    push(host, m_audio, false);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  // Not decoded together: some versions of the ffmpeg command give up when so much sound follows one picture.
  EXPECT_EQ(probe_packets(m_movie, "v:0").size(), 1U);
  std::vector<std::string> hashes;
  for (const auto& packet : probe_packets(m_movie, "a:0")) hashes.push_back(packet.hash);
  EXPECT_EQ(hashes, audio_hashes(m_audio));
}

TEST_F(UnevenTest, OneFrameOfSoundIsEnoughForThePicturesToGoOn) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    push(host, m_audio, false, 0, 1);
    MERU2_write_audio_packet(host.session(), nullptr, 0, 0);
    push(host, m_video, true);
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(kImages, 1);
}

TEST_F(UnevenTest, AMediumThatIsNotAnnouncedIsDroppedWithoutAWait) {
  for (const bool video : {true, false}) {
    PacketHost host(raw_movie(m_movie, video, !video));
    const Background work([&] {
      push(host, video ? m_audio : m_video, !video);
      push(host, video ? m_video : m_audio, video, 0, 40);
      host.stop();
    });
    ASSERT_TRUE(work.ends());
    expect_all(video ? 40 : 0, video ? 0 : 40);
  }
}

TEST_F(UnevenTest, BothAtTheirOwnPaceLoseNothing) {
  PacketHost host(raw_movie(m_movie));
  const Background work([&] {
    std::thread sound([&] { push(host, m_audio, false); });
    push(host, m_video, true);
    sound.join();
    host.stop();
  });
  ASSERT_TRUE(work.ends());
  expect_all(kImages, m_audio.size());
}

}  // namespace
}  // namespace meru_test

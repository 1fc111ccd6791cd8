#include "raw_packets/picture_order.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/reordered_video.h"

namespace {

using meru_test::TimedPacket;

struct Times {
  int64_t pts, dts;
};

class PictureOrderTest : public testing::Test {
 protected:
  static PacketPtr packet_of(const TimedPacket& timed, int64_t dts) {
    PacketPtr packet(av_packet_alloc());
    EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(timed.data.size())), 0);
    std::memcpy(packet->data, timed.data.data(), timed.data.size());
    packet->dts = packet->pts = dts;
    return packet;
  }
  /// What becomes of the video when it is announced to reorder by so many frames.
  static std::vector<Times> ordered(const std::vector<TimedPacket>& packets, int delay) {
    AVCodecParameters* par = avcodec_parameters_alloc();
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = AV_CODEC_ID_H264;
    par->video_delay = delay;
    PictureOrder order(par);
    avcodec_parameters_free(&par);
    std::vector<Times> times;
    const auto take = [&] {
      while (const PacketPtr packet = order.take()) times.push_back({packet->pts, packet->dts});
    };
    for (const TimedPacket& packet : packets) {
      order.put(packet_of(packet, packet.dts));
      take();
    }
    order.finish();
    take();
    return times;
  }

  meru_test::TempDir m_dir;
};

/// Any distance between two frames: the timestamps are those of the frames, in another order.
TEST_F(PictureOrderTest, UnevenDistancesKeepTheirPlace) {
  auto packets = meru_test::make_reordered_video(m_dir, "bframes=3:b-pyramid=normal").packets;
  std::vector<int64_t> clock;
  for (size_t i = 0; i < packets.size() + 2; ++i) clock.push_back(static_cast<int64_t>(i * i) * 1000);
  const auto rank = [&](const TimedPacket& packet) { return static_cast<size_t>((packet.pts + 20000) / 40000); };
  std::vector<int64_t> expected;
  for (size_t i = 0; i < packets.size(); ++i) {
    expected.push_back(clock[rank(packets[i]) + 2]);
    packets[i].dts = clock[i];
  }
  const auto times = ordered(packets, 2);
  ASSERT_EQ(times.size(), packets.size());
  for (size_t i = 0; i + 4 < times.size(); ++i) {
    EXPECT_EQ(times[i].dts, clock[i]) << i;
    EXPECT_EQ(times[i].pts, expected[i]) << i;
  }
}

TEST_F(PictureOrderTest, ReorderingThatIsNotAnnouncedIsLearned) {
  const auto packets = meru_test::make_reordered_video(m_dir, "bframes=3:b-pyramid=normal").packets;
  const auto times = ordered(packets, 0);
  ASSERT_EQ(times.size(), packets.size());
  for (size_t i = 0; i < times.size(); ++i) {
    EXPECT_EQ(times[i].dts, packets[i].dts) << i;
    EXPECT_GE(times[i].pts, times[i].dts) << i;
    if (i < 20) continue;  // the first group of pictures
    EXPECT_NEAR(static_cast<double>(times[i].pts), static_cast<double>(packets[i].pts), 2.0) << i;
  }
}

TEST_F(PictureOrderTest, WithoutReorderingNoFrameWaits) {
  const auto packets = meru_test::make_reordered_video(m_dir, "bframes=0", 30).packets;
  AVCodecParameters* par = avcodec_parameters_alloc();
  par->codec_id = AV_CODEC_ID_H264;
  PictureOrder order(par);
  avcodec_parameters_free(&par);
  for (const TimedPacket& packet : packets) {
    order.put(packet_of(packet, packet.dts));
    const PacketPtr taken = order.take();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->pts, packet.dts);
  }
  EXPECT_FALSE(order.reorders());
}

TEST_F(PictureOrderTest, FrameAloneIsShownWhenItIsDecoded) {
  auto packets = meru_test::make_reordered_video(m_dir, "bframes=3", 1).packets;
  packets[0].dts = 5000;
  const auto times = ordered(packets, 2);
  ASSERT_EQ(times.size(), 1U);
  EXPECT_EQ(times[0].pts, 5000);
}

TEST_F(PictureOrderTest, GarbageLosesNothing) {
  auto packets = meru_test::make_reordered_video(m_dir, "bframes=3").packets;
  for (size_t i = 0; i < packets.size(); i += 3) {
    packets[i].data = meru_test::random_bytes(1 + i * 10, static_cast<unsigned>(i));
  }
  const auto times = ordered(packets, 2);
  ASSERT_EQ(times.size(), packets.size());
  for (size_t i = 0; i < times.size(); ++i) EXPECT_GE(times[i].pts, times[i].dts) << i;
}

}  // namespace

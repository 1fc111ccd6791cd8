// The queue when there is no memory left.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "base/packetqueue.h"
#include "support/packets.h"

namespace {

using meru_test::make_packet;

constexpr int kPlenty = 1000;

TEST(PacketQueueWithoutMemory, PutLeavesThePacketAndPutBlockConsumesIt) {
  PacketQueue queue;
  std::atomic<int> freed{0};
  AVPacket kept = make_packet(0, 1, 100, &freed);
  AVPacket consumed = make_packet(0, 2, 100, &freed);
  av_max_alloc(32);  // less than a node
  EXPECT_EQ(queue.put(&kept), -1);
  EXPECT_EQ(freed, 0);
  EXPECT_NE(kept.data, nullptr);
  EXPECT_EQ(queue.put_block(&consumed, kPlenty, true), -1);
  EXPECT_EQ(freed, 1);
  av_max_alloc(1 << 30);
  EXPECT_EQ(queue.packets(), 0);
  av_packet_unref(&kept);
  EXPECT_EQ(freed, 2);
}

TEST(PacketQueueWithoutMemory, OneEndMarkerAtATimeIsQueuedAllTheSame) {
  PacketQueue queue;
  AVPacket packet;
  meru_compat::init_packet(&packet);
  av_max_alloc(32);  // less than a node
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(queue.put(&PacketQueue::s_tailer_pkt), 0);
    EXPECT_EQ(queue.put(&PacketQueue::s_tailer_pkt), -1);
    EXPECT_EQ(queue.get(&packet, false), 1);
    EXPECT_TRUE(PacketQueue::is_tailer(&packet));
    EXPECT_EQ(queue.get(&packet, false), 0);
  }
  EXPECT_EQ(queue.put(&PacketQueue::s_tailer_pkt), 0);
  queue.flush();
  EXPECT_EQ(queue.put(&PacketQueue::s_tailer_pkt), 0);
  av_max_alloc(1 << 30);
}

TEST(PacketQueueWithoutMemory, DataThatNobodyOwnsAreRefused) {
  PacketQueue queue;
  std::vector<uint8_t> bytes(10000 + AV_INPUT_BUFFER_PADDING_SIZE);
  AVPacket packet;
  meru_compat::init_packet(&packet);
  packet.data = bytes.data();
  packet.size = 10000;
  av_max_alloc(5000);
  EXPECT_EQ(queue.put(&packet), -1);
  EXPECT_EQ(packet.data, bytes.data());
  EXPECT_EQ(queue.put_block(&packet, kPlenty, true), -1);
  av_max_alloc(1 << 30);
  EXPECT_EQ(queue.packets(), 0);
}

}  // namespace

#include "base/packetqueue.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/packets.h"

namespace {

using meru_test::LogCapture;
using meru_test::make_packet;

constexpr int kNode = 96;
constexpr int kPlenty = 1000;
constexpr auto kDeadline = std::chrono::seconds(10);
constexpr char kTailerLine[] = "************ safe-free-packet(): pkt is tailer *****";

void put(PacketQueue* queue, int64_t pts, int size = 100, std::atomic<int>* freed = nullptr) {
  AVPacket packet = make_packet(0, pts, size, freed);
  ASSERT_EQ(queue->put(&packet), 0);
}

int put_block(PacketQueue* queue, int limit, bool block, std::atomic<int>* freed = nullptr) {
  AVPacket packet = make_packet(0, 7, 100, freed);
  const int result = queue->put_block(&packet, limit, block);
  EXPECT_EQ(packet.buf, nullptr) << "the caller keeps nothing";
  return result;
}

/// The stamp of the next packet, or -1000 less the queue's code.
int64_t take(PacketQueue* queue, bool block = false) {
  AVPacket packet;
  meru_compat::init_packet(&packet);
  const int code = queue->get(&packet, block);
  if (code != 1) return -1000 - code;
  const int64_t pts = packet.pts;
  av_packet_unref(&packet);
  return pts;
}

template <class Result>
bool is_done(std::future<Result>* call) {
  return call->wait_for(kDeadline) == std::future_status::ready;
}

TEST(PacketQueueTest, StartsEmpty) {
  PacketQueue queue;
  EXPECT_EQ(queue.packets(), 0);
  EXPECT_EQ(queue.size(), 0);
  EXPECT_EQ(take(&queue), -1000);
}

TEST(PacketQueueTest, GivesPacketsInTheOrderTheyCame) {
  PacketQueue queue;
  for (int i = 0; i < 5; ++i) put(&queue, i);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(take(&queue, true), i);
  EXPECT_EQ(take(&queue), -1000);
  put(&queue, 9);
  EXPECT_EQ(take(&queue), 9);
}

TEST(PacketQueueTest, AccountsDataAndNodes) {
  PacketQueue queue;
  put(&queue, 0, 10);
  EXPECT_EQ(queue.size(), 10 + kNode);
  put(&queue, 1, 1000);
  EXPECT_EQ(queue.size(), 1010 + 2 * kNode);
  EXPECT_EQ(queue.packets(), 2);
  take(&queue);
  EXPECT_EQ(queue.size(), 1000 + kNode);
  EXPECT_EQ(queue.packets(), 1);
  take(&queue);
  EXPECT_EQ(queue.size(), 0);
}

TEST(PacketQueueTest, PutTakesTheContentAndLeavesAnEmptyPacket) {
  PacketQueue queue;
  AVPacket packet = make_packet(0, 3);
  const uint8_t* data = packet.data;
  ASSERT_EQ(queue.put(&packet), 0);
  EXPECT_EQ(packet.data, nullptr);
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.buf, nullptr);
  AVPacket out;
  meru_compat::init_packet(&out);
  ASSERT_EQ(queue.get(&out, false), 1);
  EXPECT_EQ(out.data, data) << "moved, not copied";
  EXPECT_EQ(out.pts, 3);
  av_packet_unref(&out);
}

TEST(PacketQueueTest, CopiesDataThatNobodyOwns) {
  PacketQueue queue;
  std::vector<uint8_t> bytes(10 + AV_INPUT_BUFFER_PADDING_SIZE, 5);
  AVPacket packet;
  meru_compat::init_packet(&packet);
  packet.data = bytes.data();
  packet.size = 10;
  ASSERT_EQ(queue.put(&packet), 0);
  bytes.assign(bytes.size(), 0);
  AVPacket out;
  meru_compat::init_packet(&out);
  ASSERT_EQ(queue.get(&out, false), 1);
  ASSERT_EQ(out.size, 10);
  EXPECT_EQ(std::vector<uint8_t>(out.data, out.data + out.size), std::vector<uint8_t>(10, 5));
  av_packet_unref(&out);
}

TEST(PacketQueueTest, PutKnowsNoLimitAndNoAbort) {
  PacketQueue queue;
  queue.abort();
  for (int i = 0; i < 100; ++i) put(&queue, i);
  EXPECT_EQ(queue.packets(), 100);
}

TEST(PacketQueueTest, PutBlockStopsAtTheLimit) {
  PacketQueue queue;
  LogCapture log;
  for (int i = 0; i < 60; ++i) ASSERT_EQ(put_block(&queue, 60, false), 0);
  EXPECT_TRUE(log.lines().empty());
  std::atomic<int> freed{0};
  EXPECT_EQ(put_block(&queue, 60, false, &freed), -2);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(queue.packets(), 60);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.count(5, "write full: maxNpkt=60, have=60"), 1);
}

TEST(PacketQueueTest, RefusedPacketIsConsumed) {
  PacketQueue queue;
  std::atomic<int> freed{0};
  EXPECT_EQ(put_block(&queue, 0, false, &freed), -2);
  EXPECT_EQ(freed, 1);
  queue.abort();
  EXPECT_EQ(put_block(&queue, kPlenty, false, &freed), -1);
  EXPECT_EQ(put_block(&queue, kPlenty, true, &freed), -1);
  EXPECT_EQ(freed, 3);
  EXPECT_EQ(queue.packets(), 0);
}

TEST(PacketQueueTest, AbortWinsOverAFullQueue) {
  PacketQueue queue;
  LogCapture log;
  put(&queue, 0);
  queue.abort();
  EXPECT_EQ(put_block(&queue, 1, false), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST(PacketQueueTest, BlockedProducerGoesOnWhenAPacketIsTaken) {
  PacketQueue queue;
  LogCapture log;
  put(&queue, 1);
  auto blocked = std::async(std::launch::async, [&] { return put_block(&queue, 1, true); });
  ASSERT_TRUE(meru_test::eventually([&] { return log.count(5, "write full: maxNpkt=1, have=1") == 1; }));
  EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(take(&queue), 1);
  ASSERT_TRUE(is_done(&blocked));
  EXPECT_EQ(blocked.get(), 0);
  EXPECT_EQ(take(&queue), 7);
}

TEST(PacketQueueTest, BlockedProducerIsRefusedByAnAbort) {
  PacketQueue queue;
  LogCapture log;
  put(&queue, 1);
  std::atomic<int> freed{0};
  auto blocked = std::async(std::launch::async, [&] { return put_block(&queue, 1, true, &freed); });
  ASSERT_TRUE(meru_test::eventually([&] { return log.count(5, "write full: maxNpkt=1, have=1") == 1; }));
  queue.abort();
  ASSERT_TRUE(is_done(&blocked));
  EXPECT_EQ(blocked.get(), -1);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(queue.packets(), 1);
}

TEST(PacketQueueTest, EveryBlockedProducerIsRefusedByAnAbort) {
  PacketQueue queue;
  LogCapture log;
  std::vector<std::future<int>> blocked;
  for (int i = 0; i < 4; ++i) {
    blocked.push_back(std::async(std::launch::async, [&] { return put_block(&queue, 0, true); }));
  }
  ASSERT_TRUE(meru_test::eventually([&] { return log.count(5, "write full: maxNpkt=0, have=0") == 4; }));
  queue.abort();
  for (auto& call : blocked) {
    ASSERT_TRUE(is_done(&call));
    EXPECT_EQ(call.get(), -1);
  }
}

TEST(PacketQueueTest, WaitingConsumerGetsThePacket) {
  PacketQueue queue;
  auto waiting = std::async(std::launch::async, [&] { return take(&queue, true); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  put(&queue, 5);
  ASSERT_TRUE(is_done(&waiting));
  EXPECT_EQ(waiting.get(), 5);
}

TEST(PacketQueueTest, WaitingConsumersAreSentAwayByAnAbort) {
  PacketQueue queue;
  auto first = std::async(std::launch::async, [&] { return take(&queue, true); });
  auto second = std::async(std::launch::async, [&] { return take(&queue, true); });
  EXPECT_EQ(first.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  queue.abort();
  ASSERT_TRUE(is_done(&first));
  ASSERT_TRUE(is_done(&second));
  EXPECT_EQ(first.get(), -1000 + 1);
  EXPECT_EQ(second.get(), -1000 + 1);
}

TEST(PacketQueueTest, GetReturnsMinusOneAfterAnAbortEvenWithPacketsQueued) {
  PacketQueue queue;
  put(&queue, 1);
  queue.abort();
  queue.abort();
  EXPECT_EQ(take(&queue, false), -1000 + 1);
  EXPECT_EQ(take(&queue, true), -1000 + 1);
  EXPECT_EQ(queue.packets(), 1);
}

TEST(PacketQueueTest, FlushReleasesEverythingAndKeepsTheAbort) {
  PacketQueue queue;
  std::atomic<int> freed{0};
  for (int i = 0; i < 3; ++i) put(&queue, i, 100, &freed);
  queue.flush();
  EXPECT_EQ(freed, 3);
  EXPECT_EQ(queue.packets(), 0);
  EXPECT_EQ(queue.size(), 0);
  put(&queue, 9);
  EXPECT_EQ(take(&queue), 9) << "usable after a flush";
  queue.abort();
  queue.flush();
  EXPECT_EQ(put_block(&queue, kPlenty, false), -1);
}

TEST(PacketQueueTest, DestructionReleasesWhatIsQueued) {
  std::atomic<int> freed{0};
  {
    PacketQueue queue;
    put(&queue, 1, 100, &freed);
    put(&queue, 2, 100, &freed);
  }
  EXPECT_EQ(freed, 2);
}

TEST(PacketQueueTest, CopyFirstAndLastLookWithoutTaking) {
  PacketQueue queue;
  for (int i = 1; i <= 3; ++i) put(&queue, i, i * 10);
  AVPacket first, last;
  EXPECT_EQ(queue.copy_first(&first), 0);
  EXPECT_EQ(queue.copy_last(&last), 0);
  EXPECT_EQ(first.pts, 1);
  EXPECT_EQ(first.size, 10);
  EXPECT_EQ(last.pts, 3);
  EXPECT_EQ(last.size, 30);
  ASSERT_NE(first.buf, nullptr);
  EXPECT_EQ(av_buffer_get_ref_count(first.buf), 1) << "no new reference";
  EXPECT_EQ(queue.packets(), 3);
}

TEST(PacketQueueTest, CopyFromAnEmptyQueueClearsThePacket) {
  PacketQueue queue;
  for (const auto copy : {&PacketQueue::copy_first, &PacketQueue::copy_last}) {
    AVPacket packet;
    meru_compat::init_packet(&packet);
    uint8_t byte = 0;
    packet.data = &byte;
    packet.size = 1;
    EXPECT_EQ((queue.*copy)(&packet), -1);
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0);
  }
}

TEST(PacketQueueTailer, PassesThroughPutAndPutBlock) {
  PacketQueue queue;
  ASSERT_EQ(queue.put(&PacketQueue::s_tailer_pkt), 0);
  ASSERT_EQ(queue.put_block(&PacketQueue::s_tailer_pkt, kPlenty, true), 0);
  EXPECT_EQ(queue.size(), 2 * kNode);
  for (int i = 0; i < 2; ++i) {
    AVPacket packet;
    meru_compat::init_packet(&packet);
    ASSERT_EQ(queue.get(&packet, true), 1);
    EXPECT_EQ(packet.data, reinterpret_cast<uint8_t*>(&PacketQueue::s_tailer_pkt));
    EXPECT_TRUE(PacketQueue::is_tailer(&packet));
  }
  EXPECT_TRUE(PacketQueue::is_tailer(&PacketQueue::s_tailer_pkt)) << "the marker itself stays";
}

TEST(PacketQueueTailer, IsToldFromOtherPackets) {
  const PacketQueue queue;
  AVPacket packet = make_packet(0, 1);
  EXPECT_FALSE(PacketQueue::is_tailer(&packet));
  av_packet_unref(&packet);
  EXPECT_FALSE(PacketQueue::is_tailer(&packet));
}

TEST(PacketQueueTailer, IsLoggedAndLeftAloneByAFlush) {
  PacketQueue queue;
  LogCapture log;
  std::atomic<int> freed{0};
  put(&queue, 1, 100, &freed);
  ASSERT_EQ(queue.put(&PacketQueue::s_tailer_pkt), 0);
  queue.flush();
  EXPECT_EQ(freed, 1);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.count(5, kTailerLine), 1);
  EXPECT_TRUE(PacketQueue::is_tailer(&PacketQueue::s_tailer_pkt));
}

TEST(PacketQueueTailer, IsLoggedAndLeftAloneWhenRefused) {
  PacketQueue queue;
  LogCapture log;
  EXPECT_EQ(queue.put_block(&PacketQueue::s_tailer_pkt, 0, false), -2);
  queue.abort();
  EXPECT_EQ(queue.put_block(&PacketQueue::s_tailer_pkt, kPlenty, true), -1);
  EXPECT_EQ(log.count(5, kTailerLine), 2);
  EXPECT_TRUE(PacketQueue::is_tailer(&PacketQueue::s_tailer_pkt));
}

TEST(PacketQueueThreads, KeepEveryPacketAndEachProducersOrder) {
  constexpr int kPackets = 2000;
  constexpr int kLimit = 8;
  PacketQueue queue;
  std::vector<std::thread> producers;
  for (int p = 0; p < 2; ++p) {
    producers.emplace_back([&queue, p] {
      for (int i = 0; i < kPackets; ++i) {
        AVPacket packet = make_packet(p, i);
        EXPECT_EQ(queue.put_block(&packet, kLimit, true), 0);
      }
    });
  }
  int64_t next[2] = {0, 0};
  for (int i = 0; i < 2 * kPackets; ++i) {
    EXPECT_LE(queue.packets(), kLimit);
    AVPacket packet;
    meru_compat::init_packet(&packet);
    ASSERT_EQ(queue.get(&packet, true), 1);
    ASSERT_EQ(packet.pts, next[packet.stream_index]++);
    av_packet_unref(&packet);
  }
  for (std::thread& thread : producers) thread.join();
  EXPECT_EQ(queue.size(), 0);
}

}  // namespace

#include "raw_packets/packet_stream_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <future>

#include "support/eventually.h"
#include "support/stream_queue.h"

namespace {

using meru_test::Bytes;
using meru_test::PacketStreamQueueTest;
using meru_test::stream;
using nuv::MRMemNode;
using std::chrono::milliseconds;

TEST_F(PacketStreamQueueTest, CodesAreFixed) {
  EXPECT_EQ(nuv::kReadDone, 0);
  EXPECT_EQ(nuv::kReadAborted, 1);
  EXPECT_EQ(nuv::kReadNoMoreData, 2);
  EXPECT_EQ(nuv::kReadBadCount, 5);
}

TEST_F(PacketStreamQueueTest, ReadsGoOverTheBordersOfNodes) {
  push(100);
  MRMemNode* second = push(200);
  EXPECT_EQ(read(150, true), 0);
  EXPECT_EQ(m_read, stream(0, 150));
  EXPECT_EQ(m_pool.cached_count(), 1) << "the first node is back in the pool";
  expect_cursor(150, 50, second);
  EXPECT_EQ(read(150, true), 0);
  EXPECT_EQ(m_read, stream(150, 150));
  EXPECT_EQ(m_pool.cached_count(), 2);
  expect_no_cursor();
}

TEST_F(PacketStreamQueueTest, ReadOfANodesSizeReleasesIt) {
  push(100);
  push(100);
  EXPECT_EQ(read(100, false), 0);
  EXPECT_EQ(m_read, stream(0, 100));
  EXPECT_EQ(m_pool.cached_count(), 1);
  expect_no_cursor();
  EXPECT_EQ(m_queue->size(), 1);
}

TEST_F(PacketStreamQueueTest, SmallReadsStayWithinTheCursorsNode) {
  MRMemNode* node = push(10);
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(m_read, stream(0, 4));
  expect_cursor(6, 4, node);
  EXPECT_EQ(read(5, false), 0);
  EXPECT_EQ(m_read, stream(4, 5));
  expect_cursor(1, 9, node);
  EXPECT_EQ(m_pool.cached_count(), 0);
  EXPECT_EQ(read(1, true), 0);
  EXPECT_EQ(m_read, stream(9, 1));
  EXPECT_EQ(m_pool.cached_count(), 1);
  expect_no_cursor();
}

TEST_F(PacketStreamQueueTest, ReadBeginsInTheCursorAndEndsSeveralNodesOn) {
  push(10);
  push(1);
  push(5);
  MRMemNode* last = push(7);
  EXPECT_EQ(read(3, true), 0);
  EXPECT_EQ(read(15, true), 0);
  EXPECT_EQ(m_read, stream(3, 15));
  expect_cursor(5, 2, last);
  EXPECT_EQ(m_pool.cached_count(), 3);
}

TEST_F(PacketStreamQueueTest, EmptyNodesAreReleasedAndPassedOver) {
  push(0);
  push(3);
  push(0);
  push(0);
  push(2);
  EXPECT_EQ(read(5, true), 0);
  EXPECT_EQ(m_read, stream(0, 5));
  EXPECT_EQ(m_pool.cached_count(), 5);
  push(0);
  EXPECT_EQ(read(1, false), 2);
  EXPECT_EQ(m_pool.cached_count(), 5) << "of 5 blocks";
}

TEST_F(PacketStreamQueueTest, NodeWithANegativeSizeIsAnEmptyOne) {
  push(3)->size = INT_MIN;
  push(4);
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(m_read, stream(3, 4));
  EXPECT_EQ(m_pool.cached_count(), 2);
}

TEST_F(PacketStreamQueueTest, SharedNodeIsOnlyReleasedOnce) {
  MRMemNode* node = push(4);
  ++node->ref_count;
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(node->ref_count, 1);
  EXPECT_EQ(m_pool.cached_count(), 0);
  nuv::release_node(node);
}

TEST_F(PacketStreamQueueTest, CountsBelowOneAreRefused) {
  push(10);
  EXPECT_EQ(read(3, true), 0);
  for (const int n : {0, -1, INT_MIN}) {
    for (const bool block : {false, true}) EXPECT_EQ(read(n, block), 5) << n;
  }
  EXPECT_EQ(m_queue->_read_nbytes_(nullptr, 0, true, 0), 5);
  EXPECT_EQ(m_queue->cursor_remain(), 7) << "unchanged";
  m_queue->abort();
  EXPECT_EQ(read(0, true), 5);
}

TEST_F(PacketStreamQueueTest, BlockingReadWaitsForAllItsBytes) {
  push(10);
  auto call = waiting_read(25, true);
  push(10);
  EXPECT_EQ(call.wait_for(milliseconds(20)), std::future_status::timeout);
  push(10);
  ASSERT_EQ(result_of(&call), 0);
  EXPECT_EQ(m_read, stream(0, 25));
  EXPECT_EQ(m_queue->cursor_remain(), 5);
}

TEST_F(PacketStreamQueueTest, EndMarkerEndsABlockingReadAndItsBytesAreLost) {
  push(10);
  push(20);
  push_end();
  push(5);
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(read(30, true), 2);
  EXPECT_EQ(Bytes(m_read.begin(), m_read.begin() + 26), stream(4, 26)) << "copied all the same";
  EXPECT_EQ(Bytes(m_read.begin() + 26, m_read.end()), Bytes(4, 0xEE));
  EXPECT_EQ(m_pool.cached_count(), 2);
  expect_no_cursor();
  EXPECT_EQ(read(5, true), 0);
  EXPECT_EQ(m_read, stream(30, 5)) << "what comes behind the marker";
}

TEST_F(PacketStreamQueueTest, EndMarkerEndsANonBlockingReadInTheSameWay) {
  push(10);
  push_end();
  EXPECT_EQ(read(30, false, 5), 2);
  expect_no_cursor();
  EXPECT_EQ(m_pool.cached_count(), 1);
  EXPECT_EQ(m_queue->size(), 0);
}

TEST_F(PacketStreamQueueTest, EndMarkerReachesAWaitingRead) {
  auto call = waiting_read(1, true);
  push_end();
  EXPECT_EQ(result_of(&call), 2);
}

TEST_F(PacketStreamQueueTest, BytesOfTheCursorAreReadBeforeAnEndMarker) {
  push(10);
  push_end();
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(read(6, true), 0);
  EXPECT_EQ(m_read, stream(4, 6));
  EXPECT_EQ(read(1, true), 2);
}

TEST_F(PacketStreamQueueTest, AbortEndsAWaitingRead) {
  auto call = waiting_read(10, true);
  m_queue->abort();
  EXPECT_EQ(result_of(&call), 1);
  EXPECT_EQ(read(10, true), 1);
  EXPECT_EQ(read(10, false), 1);
}

TEST_F(PacketStreamQueueTest, AbortEndsATimedReadToo) {
  auto call = waiting_read(10, false, 600000);
  m_queue->abort();
  EXPECT_EQ(result_of(&call), 1);
}

TEST_F(PacketStreamQueueTest, BytesOfAnAbortedReadAreLostAndTheirNodesReleased) {
  push(10);
  push(10);
  EXPECT_EQ(read(5, true), 0);
  auto call = waiting_read(50, true);
  ASSERT_TRUE(meru_test::eventually([&] { return m_queue->size() == 0; }));
  m_queue->abort();
  EXPECT_EQ(result_of(&call), 1);
  EXPECT_EQ(m_pool.cached_count(), 2);
  expect_no_cursor();
}

TEST_F(PacketStreamQueueTest, CursorIsStillReadAfterAnAbort) {
  push(10);
  push(10);
  EXPECT_EQ(read(4, true), 0);
  m_queue->abort();
  EXPECT_EQ(read(5, true), 0);
  EXPECT_EQ(m_read, stream(4, 5));
  EXPECT_EQ(read(2, true), 1);
  EXPECT_EQ(m_queue->size(), 1) << "until it is cleared";
}

TEST_F(PacketStreamQueueTest, NonBlockingReadOfNothingSaysSo) {
  EXPECT_EQ(read(1, false), 2);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(read(1, false, 30), 2);
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
  expect_no_cursor();
}

TEST_F(PacketStreamQueueTest, BytesOfAReadWithoutEnoughComeFirstInTheNext) {
  push(100);
  EXPECT_EQ(read(300, false), 2);
  EXPECT_EQ(m_queue->cursor_remain(), 100);
  EXPECT_EQ(read(100, false), 0);
  EXPECT_EQ(m_read, stream(0, 100));
  expect_no_cursor();
  EXPECT_EQ(m_pool.cached_count(), 1) << "one block was enough";
}

TEST_F(PacketStreamQueueTest, KeptBytesAreOfTheCursorAndOfSeveralNodes) {
  push(10);
  push(20);
  push(30);
  EXPECT_EQ(read(4, true), 0);
  EXPECT_EQ(read(1000, false, 20), 2);
  EXPECT_EQ(m_queue->cursor_remain(), 56);
  EXPECT_EQ(read(1000, false), 2) << "kept again";
  push(40);
  EXPECT_EQ(read(66, true), 0);
  EXPECT_EQ(m_read, stream(4, 66));
  EXPECT_EQ(read(30, true), 0);
  EXPECT_EQ(m_read, stream(70, 30));
  expect_no_cursor();
  EXPECT_EQ(m_queue->size(), 0);
}

TEST_F(PacketStreamQueueTest, TimedReadTakesWhatArrivesInTime) {
  push(10);
  auto call = waiting_read(20, false, 600000);
  push(10);
  EXPECT_EQ(result_of(&call), 0);
  EXPECT_EQ(m_read, stream(0, 20));
}

}  // namespace

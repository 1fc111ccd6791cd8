// Whom the nodes of a byte-stream queue belong to, and when they go back.

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <new>

#include "support/stream_queue.h"

namespace {

using meru_test::Bytes;
using meru_test::kUnbounded;
using meru_test::OpenQueue;
using meru_test::stream;
using nuv::MRMemNode;
using nuv::MRMemPool;
using nuv::MRPacketQueue;

constexpr char kNoPool[] = "[ERROR] *** MRMemNode's pool is NULL, exit\n";

using PacketStreamQueueNodes = meru_test::PacketStreamQueueTest;

TEST_F(PacketStreamQueueNodes, ClearReleasesEveryNodeAndTheCursors) {
  for (int i = 0; i < 5; ++i) push(10);
  push_end();
  EXPECT_EQ(read(14, true), 0);
  EXPECT_EQ(m_pool.cached_count(), 1);
  m_queue->m_bytes = 77;
  m_queue->clear();
  EXPECT_EQ(m_pool.cached_count(), 5);
  EXPECT_EQ(m_queue->m_bytes, 0);
  expect_no_cursor();
  m_queue->clear();
  EXPECT_EQ(m_pool.cached_count(), 5);
  push(8);
  EXPECT_EQ(read(8, true), 0);
  EXPECT_EQ(m_read, stream(50, 8)) << "usable after it";
}

TEST_F(PacketStreamQueueNodes, ClearReleasesBytesThatWereKept) {
  push(10);
  EXPECT_EQ(read(20, false), 2);
  m_queue->abort();
  m_queue->clear();
  EXPECT_EQ(m_pool.cached_count(), 1);
  expect_no_cursor();
}

TEST_F(PacketStreamQueueNodes, EndReleasesEveryNodeAndTheCursorsButNotAPoolThatWasGiven) {
  EXPECT_TRUE(m_queue->external_pool());
  EXPECT_EQ(m_queue->pool(), &m_pool);
  for (int i = 0; i < 3; ++i) push(10);
  EXPECT_EQ(read(1, true), 0);
  m_queue.reset();
  EXPECT_EQ(m_pool.cached_count(), 3);
  MRMemNode* node = m_pool.mr_malloc(1);
  EXPECT_EQ(node->id, 1) << "the queued nodes come first, the partly read one last";
  m_pool.mr_free(node);
}

TEST_F(PacketStreamQueueNodes, QueuesShareAPool) {
  OpenQueue other(&m_pool);
  MRMemNode* node = push(10);
  EXPECT_EQ(read(10, true), 0);
  EXPECT_EQ(other.pool()->mr_malloc(5), node);
  EXPECT_EQ(other._push_back_(node, kUnbounded, false, 0), 0);
}

TEST(PacketStreamQueueOwnPool, IsMadeWithTheQueueAndEndsWithIt) {
  OpenQueue queue(nullptr);
  const OpenQueue other(nullptr);
  EXPECT_FALSE(queue.external_pool());
  ASSERT_NE(queue.pool(), nullptr);
  EXPECT_NE(queue.pool(), other.pool());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(queue._push_back_(queue.pool()->mr_malloc(10), kUnbounded, false, 0), 0);
  unsigned char byte = 0;
  EXPECT_EQ(queue._read_nbytes_(&byte, 1, true, 0), 0);
  // What is queued and partly read is released before the pool; the leak sanitizer sees it.
}

TEST_F(PacketStreamQueueNodes, BytesAreCountedByTheirOwnEventsOnly) {
  push(10);
  EXPECT_EQ(m_queue->m_bytes, 0) << "the queue does not call them";
  EXPECT_EQ(read(10, true), 0);
  EXPECT_EQ(m_queue->m_bytes, 0);
  MRMemNode node{};
  node.size = 100;
  const MRMemNode* counted = &node;
  m_queue->on_node_enque_event(counted);
  m_queue->on_node_enque_event(counted);
  EXPECT_EQ(m_queue->m_bytes, 2 * (100 + 56));
  m_queue->on_node_deque_event(counted);
  EXPECT_EQ(m_queue->m_bytes, 156);
  MRMemNode* same = &node;
  m_queue->on_node_enque_event(same);
  m_queue->on_node_deque_event(same);
  EXPECT_EQ(m_queue->m_bytes, 156) << "the base's events do nothing";
}

TEST_F(PacketStreamQueueNodes, CountOfBytesWrapsInsteadOfOverflowing) {
  MRMemNode node{};
  node.size = INT_MAX;
  const MRMemNode* counted = &node;
  for (int i = 0; i < 3; ++i) m_queue->on_node_enque_event(counted);
  for (int i = 0; i < 3; ++i) m_queue->on_node_deque_event(counted);
  EXPECT_EQ(m_queue->m_bytes, 0);
}

TEST(PacketStreamQueueFreeNode, FollowsTheRuleForReferences) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(1);
  ++node->ref_count;
  MRPacketQueue::free_node(node);
  EXPECT_EQ(node->ref_count, 1);
  MRPacketQueue::free_node(node);
  EXPECT_EQ(pool.cached_count(), 1);
  MRPacketQueue::free_node(node);
  MRPacketQueue::free_node(nullptr);
  EXPECT_EQ(pool.cached_count(), 1);
}

TEST_F(PacketStreamQueueNodes, NodesWithoutAPoolAreReportedAndFreed) {
  const auto push_orphan = [this] {
    auto* node = new (std::malloc(512)) MRMemNode();
    node->data = reinterpret_cast<unsigned char*>(node) + sizeof(MRMemNode);
    node->size = 1;
    node->data[0] = 42;
    EXPECT_EQ(m_queue->_push_back_(node, kUnbounded, false, 0), 0);
  };
  push_orphan();
  push_orphan();
  testing::internal::CaptureStderr();
  EXPECT_EQ(read(1, true), 0);
  EXPECT_EQ(m_read, Bytes{42});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kNoPool);
  testing::internal::CaptureStderr();
  m_queue->clear();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kNoPool);
}

}  // namespace

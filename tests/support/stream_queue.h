#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include "raw_packets/packet_stream_queue.h"

namespace meru_test {

constexpr int kUnbounded = 2147483647;

using Bytes = std::vector<unsigned char>;

/// With the insides that tests look at.
class OpenQueue : public nuv::MRPacketQueue {
 public:
  using MRPacketQueue::m_bytes;
  using MRPacketQueue::m_cursor;
  using MRPacketQueue::MRPacketQueue;
  using MRPacketQueue::on_node_deque_event;
  using MRPacketQueue::on_node_enque_event;
};

/// The stream that is pushed: byte n of it is `stream_byte(n)`.
inline unsigned char stream_byte(size_t n) { return static_cast<unsigned char>(n * 7 + n / 256); }
inline Bytes stream(size_t from, size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = stream_byte(from + i);
  return bytes;
}

/// A queue on a pool of the test's, so that the pool tells which nodes have come back.
class PacketStreamQueueTest : public testing::Test {
 protected:
  nuv::MRMemNode* make_node(int size) {
    nuv::MRMemNode* node = m_pool.mr_malloc(size);
    for (int i = 0; i < size; ++i) node->data[i] = stream_byte(m_pushed++);
    return node;
  }
  /// Queues a node with the next `size` bytes of the stream.
  nuv::MRMemNode* push(int size) {
    nuv::MRMemNode* node = make_node(size);
    EXPECT_EQ(m_queue->_push_back_(node, kUnbounded, false, 0), nuv::kQueueDone);
    return node;
  }
  void push_end() { EXPECT_EQ(m_queue->_push_back_(nullptr, kUnbounded, false, 0), nuv::kQueueDone); }

  int read(int n, bool block, unsigned timeout_ms = 0) {
    m_read.assign(static_cast<size_t>(std::max(n, 0)), 0xEE);
    return m_queue->_read_nbytes_(m_read.data(), n, block, timeout_ms);
  }
  /// A read on a thread of its own, seen to wait.
  std::future<int> waiting_read(int n, bool block, unsigned timeout_ms = 0) {
    auto call = std::async(std::launch::async, [=] { return read(n, block, timeout_ms); });
    EXPECT_EQ(call.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    return call;
  }
  static int result_of(std::future<int>* call) {
    return call->wait_for(std::chrono::seconds(20)) == std::future_status::ready ? call->get() : -1000;
  }
  void expect_cursor(int remain, int offset, const nuv::MRMemNode* node) {
    EXPECT_EQ(m_queue->cursor_remain(), remain);
    EXPECT_EQ(m_queue->m_cursor->remain, remain);
    EXPECT_EQ(m_queue->m_cursor->offset, offset);
    EXPECT_EQ(m_queue->m_cursor->node, node);
  }
  void expect_no_cursor() { expect_cursor(0, 0, nullptr); }

  nuv::MRMemPool m_pool;
  std::unique_ptr<OpenQueue> m_queue = std::make_unique<OpenQueue>(&m_pool);
  size_t m_pushed = 0;
  Bytes m_read;
};

}  // namespace meru_test

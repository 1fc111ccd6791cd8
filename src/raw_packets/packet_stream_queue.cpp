#include "raw_packets/packet_stream_queue.h"

#include <algorithm>
#include <cstring>

namespace nuv {

namespace {

/// What a queued node is counted with; in unsigned numbers, which wrap where signed ones overflow.
uint32_t counted_bytes(const MRMemNode* node) {
  return static_cast<uint32_t>(node->size) + static_cast<uint32_t>(sizeof(MRMemNode));
}

}  // namespace

MRPacketQueue::MRPacketQueue(MRMemPool* pool)
    : m_pool(pool), m_external_pool(pool != nullptr), m_cursor(std::make_unique<ReadCursor>()) {
  if (!m_external_pool) {
    m_own_pool = std::make_unique<MRMemPool>();
    m_pool = m_own_pool.get();
  }
  m_free_func = &MRPacketQueue::free_node;
}

MRPacketQueue::~MRPacketQueue() { MRPacketQueue::clear(); }

void MRPacketQueue::free_node(MRMemNode* node) { release_node(node); }

void MRPacketQueue::on_clear_event() {
  m_bytes = 0;
  const std::lock_guard<std::mutex> lock(m_cursor_mutex);
  reset_cursor();
}

void MRPacketQueue::on_node_deque_event(const MRMemNode*& node) {
  m_bytes = static_cast<int32_t>(static_cast<uint32_t>(m_bytes) - counted_bytes(node));
}

void MRPacketQueue::on_node_enque_event(const MRMemNode*& node) {
  m_bytes = static_cast<int32_t>(static_cast<uint32_t>(m_bytes) + counted_bytes(node));
}

int MRPacketQueue::_read_nbytes_(unsigned char* buf, int n, bool block, unsigned timeout_ms) {
  if (n < 1) return kReadBadCount;
  int copied = read_cursor(buf, n);
  while (copied < n) {
    MRMemNode* node = nullptr;
    const int result = _get_front_(node, block, block ? 0 : timeout_ms, true);
    if (result == kQueueAborted) return kReadAborted;
    if (result == kQueueEmpty) {
      keep_for_next_read(buf, copied);
      return kReadNoMoreData;
    }
    if (node == nullptr) return kReadNoMoreData;
    copied += read_node(node, buf + copied, n - copied);
  }
  return kReadDone;
}

int MRPacketQueue::read_cursor(unsigned char* buf, int n) {
  const std::lock_guard<std::mutex> lock(m_cursor_mutex);
  return take_from_cursor(buf, n);
}

/// Goes on reading with the next node of the queue. The cursor is empty here, as its bytes always come first.
int MRPacketQueue::read_node(MRMemNode* node, unsigned char* buf, int n) {
  const std::lock_guard<std::mutex> lock(m_cursor_mutex);
  *m_cursor = ReadCursor{node->size, 0, node};
  return take_from_cursor(buf, n);
}

/// Copies up to `n` bytes and releases the node when that was all of it.
int MRPacketQueue::take_from_cursor(unsigned char* buf, int n) {
  if (m_cursor->node == nullptr) return 0;
  const int count = std::max(std::min(n, m_cursor->remain), 0);
  if (count > 0) std::memcpy(buf, m_cursor->node->data + m_cursor->offset, static_cast<size_t>(count));
  m_cursor->offset += count;
  m_cursor->remain -= count;
  if (m_cursor->remain <= 0) reset_cursor();
  return count;
}

void MRPacketQueue::reset_cursor() {
  free_node(m_cursor->node);
  *m_cursor = ReadCursor{};
}

void MRPacketQueue::keep_for_next_read(const unsigned char* buf, int copied) {
  if (copied < 1 || aborted()) return;
  MRMemNode* node = m_pool->mr_malloc(copied);
  if (node == nullptr) return;
  std::memcpy(node->data, buf, static_cast<size_t>(copied));
  const std::lock_guard<std::mutex> lock(m_cursor_mutex);
  *m_cursor = ReadCursor{copied, 0, node};
}

int MRPacketQueue::cursor_remain() {
  const std::lock_guard<std::mutex> lock(m_cursor_mutex);
  return m_cursor->remain;
}

}  // namespace nuv

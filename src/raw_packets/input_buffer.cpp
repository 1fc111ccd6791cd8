#include "raw_packets/input_buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/log_site.h"
#include "raw_packets/start_codes.h"

namespace {

constexpr int kUnbounded = std::numeric_limits<int>::max();

constexpr unsigned kLookIntervalMs = 50;

}  // namespace

InputBuffer::~InputBuffer() {
  for (const auto& entry : m_reorder) free_node(entry.second);
}

/// A drop that no host causes has a line in the log, once for each reason.
void InputBuffer::drop(int size, MR::Drop reason) {
  const bool first = m_books.bytes.drop(reason, size);
  if (reason == MR::Drop::kMemory && first) MERU_LOG(2, "a packet of %d bytes is dropped: no memory", size);
}

/// @return null when the packet is dropped
nuv::MRMemNode* InputBuffer::make_node(const void* data, int size) {
  m_books.bytes.take(size);
  if (aborted()) {
    drop(size, m_announced ? MR::Drop::kFailedOutput : MR::Drop::kDisabled);
    return nullptr;
  }
  nuv::MRMemNode* node = pool()->mr_malloc(size);
  if (node == nullptr) {
    drop(size, MR::Drop::kMemory);
    return nullptr;
  }
  std::memcpy(node->data, data, static_cast<size_t>(size));
  if (!m_begun) m_length_prefixed = looks_length_prefixed(node->data, static_cast<size_t>(size));
  m_begun = true;
  return node;
}

void InputBuffer::note_fall(int64_t pts) {
  if (pts < m_last_pushed) m_fell = true;
  m_last_pushed = pts;
}

void InputBuffer::hold(const void* data, int size, int64_t pts) {
  if (data == nullptr || size < 1) return;
  nuv::MRMemNode* node = make_node(data, size);
  if (node == nullptr) return;
  pts = std::clamp(pts, -kLastPts, kLastPts);
  note_fall(pts);
  while (m_reorder.count(pts) != 0) ++pts;
  node->pts = pts;
  try {
    m_reorder.emplace(pts, node);
  } catch (const std::bad_alloc&) {
    free_node(node);
    drop(size, MR::Drop::kMemory);
  }
}

void InputBuffer::push_exact(const void* data, int size, int64_t pts, int64_t dts, int max_queued) {
  m_exact = true;
  release(0, max_queued);
  if (data == nullptr || size < 1) return;
  nuv::MRMemNode* node = make_node(data, size);
  if (node == nullptr) return;
  dts = std::clamp(dts, -kLastPts, kLastPts);
  pts = std::clamp(pts, dts, kLastPts);
  node->pts = pts;
  queue(node, pts, dts, true, max_queued);
}

/// A stream that cannot be recorded as it is does not wait for seven packets until the host is told.
size_t InputBuffer::held_back() const { return m_exact || m_length_prefixed ? 0 : kHeldBack; }

void InputBuffer::release(size_t keep, int max_queued) {
  while (m_reorder.size() > keep && release_first(max_queued)) {
  }
}

/// Passes on a packet, or frees it. The stamp goes ahead: as soon as the packet is in the stream, the demuxer may find
/// it and ask for its stamp. When the packet is then refused, the stamp is one too many, and nothing begins there.
/// @return what the queue says
int InputBuffer::queue(nuv::MRMemNode* node, int64_t pts, int64_t dts, bool exact, int max_queued) {
  const int size = node->size;
  int result = m_pts_queue._push_back_({pts, dts, m_queued_bytes, size, exact}, kUnbounded, false, 0);
  if (result == nuv::kQueueDone) result = _push_back_(node, max_queued, true, 0);
  if (result == nuv::kQueueDone) {
    m_queued_bytes += size;
    return result;
  }
  free_node(node);
  drop(size, result == nuv::kQueueFull ? MR::Drop::kMemory : MR::Drop::kFailedOutput);
  return result;
}

/// @return false when the stream takes nothing more. The entry stays then, without its node.
bool InputBuffer::release_first(int max_queued) {
  const auto first = m_reorder.begin();
  if (first->second == nullptr) return false;
  const int result = queue(first->second, first->first, first->first, false, max_queued);
  if (result == nuv::kQueueAborted) {
    first->second = nullptr;
    return false;
  }
  m_reorder.erase(first);  // without memory the packet is dropped
  return true;
}

bool InputBuffer::other_is_full() const { return m_other != nullptr && m_other->size() >= kMaxQueued; }

int InputBuffer::bytes_at_hand() {
  const int remain = cursor_remain();
  if (remain > 0) return remain;
  nuv::MRMemNode* front = nullptr;
  int result = nuv::kQueueEmpty;
  // Nothing tells this medium when the other is full, so it looks now and then while it has nothing to do.
  const bool begun = m_beginning.is_complete();
  while (result == nuv::kQueueEmpty) {
    result = _get_front_(front, m_other == nullptr, kLookIntervalMs, false);
    if (result == nuv::kQueueEmpty && begun && other_is_full()) return 0;
  }
  if (result != nuv::kQueueDone || front == nullptr) return 1;
  // What is at the front is not in anybody's hands but this thread's, and is looked at once: it is read from now.
  if (m_guarded && front->size > 0) m_guard.check(front->data, static_cast<size_t>(front->size));
  return std::max(front->size, 1);
}

bool InputBuffer::ready() {
  nuv::MRMemNode* front = nullptr;
  return cursor_remain() > 0 || _get_front_(front, false, 0, false) != nuv::kQueueEmpty;
}

/// What was read and is in no packet is damage; what was not read, or never passed on, the end has left over.
void InputBuffer::settle_books() {
  MR::Ledger& bytes = m_books.bytes;
  for (const auto& entry : m_reorder) {
    if (entry.second != nullptr) bytes.drop(MR::Drop::kQueueAborted, entry.second->size);
  }
  const int64_t found = bytes.passed() + bytes.dropped(MR::Drop::kDamaged);
  if (m_read_bytes > found) bytes.drop(m_eof ? MR::Drop::kDamaged : MR::Drop::kQueueAborted, m_read_bytes - found);
  if (m_queued_bytes > m_read_bytes) bytes.drop(MR::Drop::kQueueAborted, m_queued_bytes - m_read_bytes);
}

bool push_data(InputBuffer* ib, void* data, int size, long long pts) {
  ib->hold(data, size, pts);
  ib->release(data != nullptr && size > 0 ? ib->held_back() : 0, kMaxQueued);
  return true;
}

bool push_data_ts(InputBuffer* ib, void* data, int size, long long pts, long long dts) {
  ib->push_exact(data, size, pts, dts, kMaxQueued);
  return true;
}

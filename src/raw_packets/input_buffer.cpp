#include "raw_packets/input_buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/log_site.h"

namespace {

constexpr int kUnbounded = std::numeric_limits<int>::max();

constexpr unsigned kLookIntervalMs = 50;

void note_dropped(int size) { MERU_LOG(2, "a packet of %d bytes is dropped: no memory", size); }

}  // namespace

InputBuffer::~InputBuffer() {
  for (const auto& entry : m_reorder) free_node(entry.second);
}

void InputBuffer::hold(const void* data, int size, int64_t pts) {
  if (data == nullptr || size < 1 || aborted()) return;
  nuv::MRMemNode* node = pool()->mr_malloc(size);
  if (node == nullptr) return note_dropped(size);
  pts = std::clamp(pts, -kLastPts, kLastPts);
  while (m_reorder.count(pts) != 0) ++pts;
  std::memcpy(node->data, data, static_cast<size_t>(size));
  node->pts = pts;
  try {
    m_reorder.emplace(pts, node);
  } catch (const std::bad_alloc&) {
    free_node(node);
    note_dropped(size);
  }
}

void InputBuffer::release(size_t keep, int max_queued) {
  while (m_reorder.size() > keep && release_first(max_queued)) {
  }
}

/// @return false when the stream takes nothing more. The entry stays then, without its node.
bool InputBuffer::release_first(int max_queued) {
  const auto first = m_reorder.begin();
  if (first->second == nullptr) return false;
  // The stamp goes ahead: as soon as the packet is in the stream, the demuxer may find it and ask for its stamp. When
  // the packet is then refused, the stamp is one too many, behind all others, and nobody asks for it.
  int result = m_pts_queue._push_back_(first->first, kUnbounded, false, 0);
  if (result == nuv::kQueueDone) result = _push_back_(first->second, max_queued, true, 0);
  if (result == nuv::kQueueFull) note_dropped(first->second->size);
  if (result != nuv::kQueueDone) free_node(first->second);
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
  return std::max(front->size, 1);
}

bool InputBuffer::ready() {
  nuv::MRMemNode* front = nullptr;
  return cursor_remain() > 0 || _get_front_(front, false, 0, false) != nuv::kQueueEmpty;
}

bool push_data(InputBuffer* ib, void* data, int size, long long pts) {
  ib->hold(data, size, pts);
  ib->release(data != nullptr && size > 0 ? kHeldBack : 0, kMaxQueued);
  return true;
}

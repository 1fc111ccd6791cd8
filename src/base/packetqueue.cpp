#include "base/packetqueue.h"

#include "common/ffmpeg_compat.h"
#include "common/log_site.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace {

// What a queued packet is accounted with besides its data. Hosts see the sum in logs, so it does not follow the size
// that the packet structure happens to have in one FFmpeg version.
constexpr int kAccountedNodeSize = 96;

}  // namespace

AVPacket PacketQueue::s_tailer_pkt;

PacketQueue::PacketQueue() {
  static const bool tailer_ready = [] {
    meru_compat::init_packet(&s_tailer_pkt);
    s_tailer_pkt.data = reinterpret_cast<uint8_t*>(&s_tailer_pkt);
    return true;
  }();
  static_cast<void>(tailer_ready);
}

PacketQueue::~PacketQueue() { flush(); }

PacketQueue::Node* PacketQueue::make_node(AVPacket* pkt) {
  if (pkt == &s_tailer_pkt && !m_tailer_queued.exchange(true)) return &m_tailer_node;
  if (pkt != &s_tailer_pkt && av_packet_make_refcounted(pkt) < 0) return nullptr;
  return static_cast<Node*>(av_malloc(sizeof(Node)));
}

void PacketQueue::free_node(Node* node) {
  if (node == &m_tailer_node) {
    m_tailer_queued = false;
  } else {
    av_free(node);
  }
}

void PacketQueue::release(AVPacket* pkt) {
  if (is_tailer(pkt)) {
    MERU_LOG(5, "************ safe-free-packet(): pkt is tailer *****");
  } else {
    av_packet_unref(pkt);
  }
}

void PacketQueue::append(Node* node, AVPacket* pkt) {
  node->pkt = *pkt;
  node->next = nullptr;
  // The node owns the data now; the caller's structure must not keep a second claim on it.
  if (pkt != &s_tailer_pkt) meru_compat::init_packet(pkt);
  (last != nullptr ? last->next : first) = node;
  last = node;
  ++nb_packets;
  m_size += node->pkt.size + kAccountedNodeSize;
  cond_get.notify_one();
}

int PacketQueue::put(AVPacket* pkt) {
  Node* node = make_node(pkt);
  if (node == nullptr) return -1;
  const std::lock_guard<std::mutex> lock(mutex);
  append(node, pkt);
  return 0;
}

int PacketQueue::put_block(AVPacket* pkt, int maxNpkt, bool block) {
  Node* node = make_node(pkt);
  if (node == nullptr) {
    release(pkt);
    return -1;
  }
  int result = 0;
  {
    std::unique_lock<std::mutex> lock(mutex);
    while (!abort_request && nb_packets >= maxNpkt) {
      MERU_LOG(5, "write full: maxNpkt=%d, have=%d", maxNpkt, nb_packets);
      if (!block) {
        result = -2;
        break;
      }
      cond_put.wait(lock);
    }
    if (abort_request) result = -1;
    if (result == 0) {
      append(node, pkt);
      return 0;
    }
  }
  release(pkt);
  free_node(node);
  return result;
}

int PacketQueue::get(AVPacket* pkt, bool block) {
  std::unique_lock<std::mutex> lock(mutex);
  if (block) cond_get.wait(lock, [&] { return abort_request || first != nullptr; });
  if (abort_request) return -1;
  if (first == nullptr) return 0;
  Node* node = first;
  first = node->next;
  if (first == nullptr) last = nullptr;
  --nb_packets;
  m_size -= node->pkt.size + kAccountedNodeSize;
  *pkt = node->pkt;
  free_node(node);
  cond_put.notify_one();
  return 1;
}

int PacketQueue::size() {
  const std::lock_guard<std::mutex> lock(mutex);
  return m_size;
}

int PacketQueue::packets() {
  const std::lock_guard<std::mutex> lock(mutex);
  return nb_packets;
}

int PacketQueue::copy_out(AVPacket* pkt, Node* PacketQueue::*end) {
  meru_compat::init_packet(pkt);
  const std::lock_guard<std::mutex> lock(mutex);
  const Node* node = this->*end;
  if (node == nullptr) return -1;
  *pkt = node->pkt;
  return 0;
}

int PacketQueue::copy_first(AVPacket* pkt) { return copy_out(pkt, &PacketQueue::first); }
int PacketQueue::copy_last(AVPacket* pkt) { return copy_out(pkt, &PacketQueue::last); }

void PacketQueue::abort() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (abort_request) return;
  abort_request = true;
  cond_get.notify_all();
  cond_put.notify_all();
}

void PacketQueue::flush(const std::function<void(const AVPacket& pkt)>& dropped) {
  const std::lock_guard<std::mutex> lock(mutex);
  for (Node* node = first; node != nullptr;) {
    Node* next = node->next;
    if (dropped && !is_tailer(&node->pkt)) dropped(node->pkt);
    release(&node->pkt);
    free_node(node);
    node = next;
  }
  first = last = nullptr;
  nb_packets = 0;
  m_size = 0;
}

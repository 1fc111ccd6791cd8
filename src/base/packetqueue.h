#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "common/ffmpeg_handles.h"

/// Bounded, blocking first-in first-out queue of encoded packets between an encoding thread and a writing thread. It
/// also carries the end-of-stream marker, s_tailer_pkt. Any number of threads may put and get.
class PacketQueue {
 public:
  PacketQueue();
  ~PacketQueue();
  PacketQueue(const PacketQueue&) = delete;
  PacketQueue& operator=(const PacketQueue&) = delete;

  /// Appends without a limit and without regard to an abort. The queue takes the packet's content; `pkt` is empty
  /// afterwards (but for the end marker, which stays as it is).
  /// @return 0, or -1 when there is no memory; the packet is then unchanged
  int put(AVPacket* pkt);

  /// Appends when fewer than `maxNpkt` packets are queued; otherwise waits (`block`) or refuses. The packet's content
  /// is taken in every case: a refused packet is released.
  /// @return 0; -1 aborted or no memory; -2 full
  int put_block(AVPacket* pkt, int maxNpkt, bool block);

  /// Takes the first packet; its content passes to `*pkt`, which must be empty.
  /// @return 1; 0 when empty and not blocking; -1 aborted
  int get(AVPacket* pkt, bool block);

  int size();     ///< bytes accounted: each packet's size and 96 for its node
  int packets();  ///< packets queued

  /// Copies the first or last queued packet's structure without a new reference: valid while it stays queued.
  /// @return 0, or -1 (and an empty packet) when nothing is queued
  int copy_first(AVPacket* pkt);
  int copy_last(AVPacket* pkt);

  /// Makes every waiting and later put_block and get return -1, for good.
  void abort();
  /// Releases what is queued, which `dropped` sees before, the end marker excepted. An abort stays in force.
  void flush(const std::function<void(const AVPacket& pkt)>& dropped = nullptr);

  /// The end marker; the same for all queues, never copied, never freed.
  static AVPacket s_tailer_pkt;
  static bool is_tailer(const AVPacket* pkt) { return pkt->data == reinterpret_cast<const uint8_t*>(&s_tailer_pkt); }

 private:
  struct Node {
    AVPacket pkt;
    Node* next;
  };

  Node* make_node(AVPacket* pkt);
  void free_node(Node* node);
  static void release(AVPacket* pkt);
  void append(Node* node, AVPacket* pkt);
  int copy_out(AVPacket* pkt, Node* PacketQueue::*end);

  Node* first = nullptr;  // guarded by mutex, like all that follows
  Node* last = nullptr;
  int nb_packets = 0;
  int m_size = 0;
  bool abort_request = false;
  Node m_tailer_node{};  // for the first end marker: without memory the end must be reached all the same
  std::mutex mutex;
  std::condition_variable_any cond_get;      // a packet was added
  std::condition_variable_any cond_put;      // a packet was taken
  std::atomic<bool> m_tailer_queued{false};  // m_tailer_node is in use; not guarded
};

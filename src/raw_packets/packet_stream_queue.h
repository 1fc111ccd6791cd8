#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "raw_packets/blocking_queue.h"
#include "raw_packets/mem_pool.h"

namespace nuv {

// What _read_nbytes_ returns.
constexpr int kReadDone = 0;
constexpr int kReadAborted = 1;
constexpr int kReadNoMoreData = 2;
constexpr int kReadBadCount = 5;

/// A queue of packet nodes that is read as a stream of bytes, whatever the packets' borders. Producers push nodes with
/// _push_back_, and with them the reference that they hold; a null node marks the end of the stream. One consumer
/// reads.
class MRPacketQueue : public BlockingQueue<MRMemNode*> {
 public:
  /// @param pool  where nodes come from; it must outlive the queue. Null: the queue makes a pool of its own.
  explicit MRPacketQueue(MRMemPool* pool);
  /// Releases what is queued and partly read.
  ~MRPacketQueue() override;

  /// Gives back one reference of a node, as release_node.
  static void free_node(MRMemNode* node);

  /// Copies exactly `n` bytes to `buf`, over as many nodes as it takes; a node is released with its last byte.
  /// @param block       wait for nodes without limit
  /// @param timeout_ms  not blocking: how long to wait for each node at most. Bytes copied before it ran out come first
  ///                    in the next read (and are lost if there is no memory to keep them).
  /// @return kReadDone; kReadAborted or, at an end marker, kReadNoMoreData: what this call had copied is lost;
  ///         kReadNoMoreData when time ran out; kReadBadCount when `n` is below 1. Bytes that the cursor holds can be
  ///         read even after an abort.
  int _read_nbytes_(unsigned char* buf, int n, bool block, unsigned timeout_ms);

  int cursor_remain();                        ///< unread bytes of the node that is partly read; 0 when there is none
  MRMemPool* pool() const { return m_pool; }  ///< for nodes to be pushed here
  bool external_pool() const { return m_external_pool; }  ///< whether the pool was given to the constructor

 protected:
  /// The node that is partly read; zeroed when there is none.
  struct ReadCursor {
    int32_t remain;  ///< unread bytes
    int32_t offset;  ///< bytes already read
    MRMemNode* node;
  };

  using BlockingQueue<MRMemNode*>::on_node_deque_event;
  using BlockingQueue<MRMemNode*>::on_node_enque_event;
  void on_clear_event() override;
  // Operations of their own, not overrides: a pointer to a constant node is another type, so the base never calls them
  // and m_bytes stays 0 unless a subclass does. Nothing reads it.
  virtual void on_node_deque_event(const MRMemNode*& node);
  virtual void on_node_enque_event(const MRMemNode*& node);

  MRMemPool* m_pool;
  const bool m_external_pool;
  int32_t m_bytes = 0;                   // guarded by m_mutex; size and 56 for each node that the two events counted
  std::unique_ptr<ReadCursor> m_cursor;  // guarded by m_cursor_mutex

 private:
  int read_cursor(unsigned char* buf, int n);
  int read_node(MRMemNode* node, unsigned char* buf, int n);
  int take_from_cursor(unsigned char* buf, int n);
  void reset_cursor();
  void keep_for_next_read(const unsigned char* buf, int copied);

  std::unique_ptr<MRMemPool> m_own_pool;  // null with an external pool
  std::mutex m_cursor_mutex;              // taken after m_mutex where both are: clear may meet a read
};

}  // namespace nuv

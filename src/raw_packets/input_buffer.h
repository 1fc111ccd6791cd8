#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <string>

#include "common/books.h"
#include "raw_packets/adts.h"
#include "raw_packets/beginning.h"
#include "raw_packets/blocking_queue.h"
#include "raw_packets/packet_stream_queue.h"

/// What goes beside a pushed packet.
struct Stamp {
  int64_t pts;    ///< microseconds
  int64_t dts;    ///< the same as pts unless both are the host's
  int64_t begin;  ///< where the packet begins in the stream, in bytes
  int32_t size;
  bool exact;  ///< both timestamps are the host's, and the packet is one access unit
};

/// The accounts of one medium.
struct InputBooks {
  MR::Ledger bytes;    ///< pushed = found as packets + dropped
  MR::Ledger packets;  ///< found = handed to the writer + dropped
};

/// The packets of one medium on their way from the host to the demuxer: copied into nodes of a pool of its own, put in
/// the order of their stamps, read as a stream of bytes. The stamps go beside them.
///
/// One thread pushes, one reads. What only one of them may touch says so.
class InputBuffer : public nuv::MRPacketQueue {
 public:
  InputBuffer() : MRPacketQueue(nullptr) {}
  /// Releases what is held back as well.
  ~InputBuffer() override;

  /// Takes in one packet; null, or a size below 1, takes in nothing.
  void hold(const void* data, int size, int64_t pts);
  /// Passes on what is held back, then this packet, with both its timestamps. Waits while `max_queued` are queued. From
  /// then on nothing is held back any more.
  void push_exact(const void* data, int size, int64_t pts, int64_t dts, int max_queued);
  /// Passes on packets, the earliest first, until at most `keep` are held back. Waits while `max_queued` are queued.
  void release(size_t keep, int max_queued);

  /// Waits until there is something to read. @return how many bytes are there at least, so that reading as many waits
  /// for nothing; 1 when there are no more, which reading then tells; 0 when the other medium holds its host back
  int bytes_at_hand();
  /// @return whether there is something to read, or nothing any more
  bool ready();

  /// From now on waiting ends when this medium has begun and `other` is full: its host would be held back for ever when
  /// this medium has ended, or pauses. To be called by the reading thread.
  void give_way_to(InputBuffer* other) { m_other = other; }

  /// @return how many packets a push leaves held back
  size_t held_back() const;
  /// @return whether a packet was pushed with a smaller timestamp than the one before it. Any thread
  bool timestamps_fell() const { return m_fell; }
  /// @return whether the first packet looks like H.264 without start codes. Any thread
  bool length_prefixed() const { return m_length_prefixed; }
  /// What became of the bytes that are accounted for nowhere else. To be called once, when the session has ended.
  void settle_books();

  /// The stamps of the packets in the stream, in the same order. One is there before the packet can be read.
  nuv::BlockingQueue<Stamp> m_pts_queue;
  std::map<int64_t, nuv::MRMemNode*> m_reorder;  ///< pushing thread: held back, by stamp; null for what was refused
  std::string m_name;
  Beginning m_beginning;    ///< reading thread: waiting ends for the other medium only once it is complete
  bool m_eof = false;       ///< reading thread: the stream has ended
  bool m_gave_way = false;  ///< reading thread: waiting ended for the other medium
  int64_t m_allowed = std::numeric_limits<int64_t>::max();  ///< reading thread: bytes until the stream is cut off
  bool m_guarded = false;                                   ///< reading thread: damaged frames of AAC are wiped out
  bool m_needs_start_codes = false;                         ///< reading thread: length-prefixed packets end the stream
  bool m_refused = false;    ///< reading thread: the stream ended because it is none of the expected kind
  int64_t m_read_bytes = 0;  ///< reading thread: handed to the demuxer so far
  bool m_announced = true;   ///< the record has such a track; set before the start
  InputBooks m_books;

 private:
  nuv::MRMemNode* make_node(const void* data, int size);
  int queue(nuv::MRMemNode* node, int64_t pts, int64_t dts, bool exact, int max_queued);
  bool release_first(int max_queued);
  bool other_is_full() const;
  void note_fall(int64_t pts);
  void drop(int size, MR::Drop reason);

  AdtsGuard m_guard;                                            // reading thread
  InputBuffer* m_other = nullptr;                               // reading thread
  int64_t m_queued_bytes = 0;                                   // pushing thread
  int64_t m_last_pushed = std::numeric_limits<int64_t>::min();  // pushing thread
  bool m_exact = false;                                         // pushing thread: push_exact was called
  bool m_begun = false;                                         // pushing thread
  std::atomic<bool> m_length_prefixed{false};
  std::atomic<bool> m_fell{false};
};

/// How many packets are held back for reordering, and how many may wait to be read before a push waits.
constexpr size_t kHeldBack = 6;
constexpr int kMaxQueued = 500;

/// 36000 years. Beyond, sums and differences of stamps would not fit into 64 bits on their way through the muxers.
constexpr int64_t kLastPts = int64_t{1} << 60;

/// Pushes a packet of the host's. Null, or a size below 1, passes on all that is held back.
/// @return true, whatever became of the packet
bool push_data(InputBuffer* ib, void* data, int size, long long pts);
/// Pushes a packet of the host's with both timestamps; a pts before the dts is raised to it. Otherwise as push_data.
bool push_data_ts(InputBuffer* ib, void* data, int size, long long pts, long long dts);

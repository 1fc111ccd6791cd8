#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "common/ffmpeg_handles.h"
#include "raw_packets/input_buffer.h"
#include "raw_packets/picture_order.h"
#include "raw_packets/stamp_finder.h"

/// One input of a session of packets, as the copying sees it.
struct MuxInput {
  const char* name;           ///< for the log
  AVFormatContext* ifmt_ctx;  ///< its demuxer, null when there is none
  InputBuffer* buffer;
  AVStream* ost;          ///< the output stream made for it
  bool bare = false;      ///< frames of sound are written without their headers
  bool reorders = false;  ///< the frames may come in another order than they are shown
  bool indexed = false;   ///< the output has a side index
  bool written = false;   ///< a packet of it was written
  int64_t last_dts = 0;   ///< of the packet written last, microseconds, as the input had it
  int64_t last_tick = std::numeric_limits<int64_t>::min();  ///< the same packet's dts as the output has it
  int64_t last_pts_tick = 0;                                ///< the same of its pts
  bool late = false;                                        ///< a packet of it came too late
};

/// Takes the packets of one input out of its demuxer, with the host's timestamps, in decoding order. What is damaged
/// is left out. One thread.
class InputReader {
 public:
  explicit InputReader(MuxInput* input);

  /// Reads the next packet, with timestamps and duration in microseconds; the duration is 0 where the demuxer knows
  /// none. Waits for the host.
  /// @return 0; AVERROR_EOF at the end, or when the input gave way; AVERROR(EINVAL) when refused() says why; or another
  ///         error
  int read(PacketPtr* packet);
  /// @return why the input cannot be recorded, for the host; null when it can
  const char* refused() const { return m_refused; }
  /// Logs what was skipped. To be called once, at the end.
  void log_skipped() const;

 private:
  int read_unit();
  int read_found();
  int append_found();
  int deliver();
  void stamp(bool given);
  int64_t own_stamp();
  void note_damage(int error);

  MuxInput* m_input;
  StampFinder m_finder;
  std::unique_ptr<PictureOrder> m_order;  // null for what is not reordered
  PacketPtr m_found, m_unit;
  PacketPtr m_ready;  // to be read next, behind what m_order holds
  const char* m_refused = nullptr;
  int64_t m_last = 0;      // timestamp of the packet found last
  int64_t m_step = 0;      // from the one before it to that packet
  int64_t m_duration = 0;  // of that packet
  bool m_damaged = false;
};

/// @return why the host's timestamps cannot be used, null when they can: those of a stream that reorders have to rise
const char* refused_timestamps(const InputBuffer& buffer, bool reorders);

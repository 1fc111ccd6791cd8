#pragma once

#include <cstdint>

#include "common/ffmpeg_handles.h"
#include "raw_packets/input_buffer.h"

/// Finds the pushed packet in which a packet of the demuxer begins, and so its timestamps: what is damaged, or found in
/// two pushed packets, moves no timestamp of what follows. Reading thread.
class StampFinder {
 public:
  /// @param by_position  whether the demuxer gives each packet its offset in the stream; without, the n-th found packet
  ///                     is the n-th pushed one
  StampFinder(InputBuffer* buffer, bool by_position) : m_buffer(buffer), m_by_position(by_position) {}

  /// Moves on to the next packet of the demuxer, and counts its bytes.
  /// @return whether it is the first one that begins in its pushed packet
  bool find(const AVPacket* packet);
  /// The pushed packet in which the last one begins.
  const Stamp& stamp() const { return m_stamp; }
  /// @return whether the pushed packet goes on after the last one
  bool goes_on() const;
  /// Looks at the next pushed packet. @return false when it is not known yet
  bool peek(Stamp* next) const;

  /// @return how many bytes were read and are in no packet: between the packets, and after the last one at the end
  int64_t skipped_bytes() const;
  int64_t unused() const { return m_unused; }  ///< pushed packets in which none begins

 private:
  bool find_at(int64_t position);

  InputBuffer* m_buffer;
  bool m_by_position;
  Stamp m_stamp{0, 0, 0, 0, false};
  int64_t m_end = 0;  // of the last packet
  int64_t m_skipped = 0;
  int64_t m_unused = 0;
};

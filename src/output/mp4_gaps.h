#pragma once

#include <array>
#include <cstdint>

#include "common/ffmpeg_handles.h"

namespace MR {

/// FFmpeg's writers of MP4 and its relatives hold no gap of 2^31 ticks: what comes after it is moved up to one tick
/// after the packet before. But while such a packet waits for a fragment to be completed, they abort the process. So it
/// is moved before they see it. A tick of ISMV is 0.1 us: there it is a gap of 215 seconds.
class Mp4Gaps {
 public:
  /// @param ctx     with its header written
  /// @param output  its number in the log
  Mp4Gaps(const AVFormatContext* ctx, int output);
  /// The first move is reported. @return whether the packet was moved
  bool bound(AVPacket* pkt);

 private:
  static constexpr size_t kStreams = 8;
  bool m_limited;
  int m_output;
  bool m_reported = false;
  std::array<int64_t, kStreams> m_last_dts;
};

}  // namespace MR

#pragma once

#include "base/rtsp_tail.h"
#include "output/in_band_extradata.h"
#include "output/mp4_gaps.h"
#include "output/stream_order.h"

namespace MR {

/// What an output's muxer needs to be done to its packets just before they are written. One thread, the one that
/// writes.
class MuxerQuirks {
 public:
  /// @param ctx              with its header written, not owned; null does nothing
  /// @param number           of the output, for the log
  /// @param extradata_apart  the encoder keeps its parameter sets out of the packets
  MuxerQuirks(AVFormatContext* ctx, int number, bool extradata_apart);

  /// @return whether the packet comes too late to be written
  bool is_late(const AVPacket& pkt) { return m_order.is_late(pkt); }
  /// @return 0 or a negative FFmpeg error
  int prepare(AVPacket* pkt);
  /// After the last packet. @return 0 or a negative FFmpeg error
  int finish() { return m_tail.push_out(); }
  /// How long a silent stream must be waited for at least.
  int64_t interleave_usec() const { return m_order.interleave_usec(); }

 private:
  AVFormatContext* m_ctx;
  RtspTail m_tail;
  Mp4Gaps m_gaps;
  StreamOrder m_order;
  InBandExtradata m_in_band;
};

}  // namespace MR

#pragma once

#include <cstdint>

#include "common/ffmpeg_handles.h"

namespace MR {

/// What a muxer cannot bear of a stream that lags behind the other one, which has been written meanwhile.
///
/// ASF: FFmpeg aborts the process when the dts go back. There a silent stream is waited for much longer than elsewhere,
/// and what comes even later is dropped. FLV and NUT: the output fails at a packet before the first one that was
/// written; such packets are dropped. Other formats take any order. One thread.
class StreamOrder {
 public:
  /// @param ctx  not owned; null does nothing
  explicit StreamOrder(const AVFormatContext* ctx);

  /// @return whether the packet, which is about to be written, must be dropped. `ctx->max_interleave_delta` must be
  ///         what it will be written with
  bool is_late(const AVPacket& pkt);
  /// How long the interleaving waits for a silent stream at least; 0 where the muxer does not care.
  int64_t interleave_usec() const;

 private:
  enum class Kind { kAny, kRising, kNothingBeforeTheFirst };
  static Kind kind_of(const AVFormatContext* ctx);
  bool is_before_the_first(int stream, int64_t usec);

  const AVFormatContext* m_ctx;
  Kind m_kind;
  int64_t m_newest_usec = INT64_MIN / 2;  // nothing yet
  int64_t m_first_usec = INT64_MAX;
  uint64_t m_seen = 0;     // bit by stream
  bool m_written = false;  // a packet may have been written, the earliest so far
};

}  // namespace MR

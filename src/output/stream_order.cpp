#include "output/stream_order.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace MR {

namespace {

constexpr int64_t kRisingInterleaveUsec = 60000000;
constexpr int64_t kRoundingUsec = 2000;  // the muxers count milliseconds

}  // namespace

StreamOrder::Kind StreamOrder::kind_of(const AVFormatContext* ctx) {
  if (ctx == nullptr || ctx->nb_streams < 2 || ctx->nb_streams > 64) return Kind::kAny;
  const char* name = ctx->oformat->name;
  if (std::strcmp(name, "asf") == 0 || std::strcmp(name, "asf_stream") == 0) return Kind::kRising;
  const bool fails = std::strcmp(name, "flv") == 0 || std::strcmp(name, "nut") == 0;
  return fails ? Kind::kNothingBeforeTheFirst : Kind::kAny;
}

StreamOrder::StreamOrder(const AVFormatContext* ctx) : m_ctx(ctx), m_kind(kind_of(ctx)) {}

bool StreamOrder::is_late(const AVPacket& pkt) {
  if (m_kind == Kind::kAny || pkt.dts == AV_NOPTS_VALUE) return false;
  const int64_t usec = av_rescale_q(pkt.dts, m_ctx->streams[pkt.stream_index]->time_base, {1, AV_TIME_BASE});
  const bool late = m_kind == Kind::kRising ? usec < m_newest_usec - kRisingInterleaveUsec + kRoundingUsec
                                            : is_before_the_first(pkt.stream_index, usec);
  if (!late) m_newest_usec = std::max(m_newest_usec, usec);
  return late;
}

/// The earliest packet is written once each stream has one, or when another one is later by more than the interleaving
/// waits.
bool StreamOrder::is_before_the_first(int stream, int64_t usec) {
  if (m_written) return usec < m_first_usec;
  m_first_usec = std::min(m_first_usec, usec);
  m_seen |= uint64_t{1} << stream;
  const bool all = m_seen == ~uint64_t{0} >> (64 - m_ctx->nb_streams);
  m_written = all || std::max(m_newest_usec, usec) - m_first_usec > m_ctx->max_interleave_delta - kRoundingUsec;
  return false;
}

int64_t StreamOrder::interleave_usec() const { return m_kind == Kind::kRising ? kRisingInterleaveUsec : 0; }

}  // namespace MR

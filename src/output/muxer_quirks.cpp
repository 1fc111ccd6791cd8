#include "output/muxer_quirks.h"

#include "common/ffmpeg_compat.h"

namespace MR {

MuxerQuirks::MuxerQuirks(AVFormatContext* ctx, int number, bool extradata_apart)
    : m_ctx(ctx), m_tail(ctx), m_gaps(ctx, number), m_order(ctx), m_in_band(extradata_apart ? ctx : nullptr) {}

int MuxerQuirks::prepare(AVPacket* pkt) {
  meru_compat::complete_duration(m_ctx->streams[pkt->stream_index], pkt);
  m_gaps.bound(pkt);
  m_tail.note(pkt);
  return m_in_band.add_to(pkt);
}

}  // namespace MR

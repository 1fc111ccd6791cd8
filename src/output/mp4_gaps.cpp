#include "output/mp4_gaps.h"

#include <algorithm>
#include <climits>
#include <string_view>

#include "common/log_site.h"

namespace MR {

namespace {

bool is_mp4(std::string_view muxer) {
  static constexpr std::string_view kRelatives[] = {
      "mov", "mp4", "3gp", "3g2", "psp", "ipod", "ismv", "f4v", "dash", "hls", "smoothstreaming"};
  return std::find(std::begin(kRelatives), std::end(kRelatives), muxer) != std::end(kRelatives);
}

}  // namespace

Mp4Gaps::Mp4Gaps(const AVFormatContext* ctx, int output)
    : m_limited(ctx != nullptr && ctx->nb_streams <= kStreams && is_mp4(ctx->oformat->name)), m_output(output) {
  m_last_dts.fill(AV_NOPTS_VALUE);
}

bool Mp4Gaps::bound(AVPacket* pkt) {
  if (!m_limited || pkt->dts == AV_NOPTS_VALUE) return false;
  int64_t& last = m_last_dts.at(static_cast<size_t>(pkt->stream_index));
  // Unsigned: the distance of any two timestamps fits.
  const bool too_far = last != AV_NOPTS_VALUE && pkt->dts > last &&
                       static_cast<uint64_t>(pkt->dts) - static_cast<uint64_t>(last) >= uint64_t{INT_MAX};
  if (too_far) {
    const int64_t ahead = pkt->pts != AV_NOPTS_VALUE ? std::max<int64_t>(pkt->pts - pkt->dts, 0) : 0;
    pkt->dts = last + 1;
    pkt->pts = pkt->dts + std::min<int64_t>(ahead, INT_MAX / 2);
  }
  last = pkt->dts;
  if (too_far && !m_reported) {
    m_reported = true;
    MERU_LOG(2, "output %d: a gap of stream %d is longer than the container holds; what follows is moved up", m_output,
             pkt->stream_index);
  }
  return too_far;
}

}  // namespace MR

#include "base/rtsp_tail.h"

#include <cstring>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

constexpr int64_t kFarTooLateUsec = 1000000;

}  // namespace

RtspTail::RtspTail(AVFormatContext* ctx)
    : m_ctx(ctx != nullptr && strcmp(ctx->oformat->name, "rtsp") == 0 ? ctx : nullptr) {}

void RtspTail::note(const AVPacket* packet) {
  if (m_ctx == nullptr) return;
  const AVStream* st = m_ctx->streams[packet->stream_index];
  if (st->codecpar->codec_id == AV_CODEC_ID_AAC) m_last.reset(av_packet_clone(packet));
}

int RtspTail::push_out() {
  if (m_last == nullptr) return 0;
  const AVRational usec{1, 1000000};
  const int64_t late = av_rescale_q(kFarTooLateUsec, usec, m_ctx->streams[m_last->stream_index]->time_base);
  m_last->pts += late;
  m_last->dts += late;
  return av_interleaved_write_frame(m_ctx, m_last.get());
}

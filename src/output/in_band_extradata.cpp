#include "output/in_band_extradata.h"

namespace MR {

namespace {

/// Parameter sets that may stand in the stream: those of the MPEG family, behind start codes.
bool has_start_code(const AVCodecParameters* par) {
  const uint8_t* e = par->extradata;
  if (par->codec_type != AVMEDIA_TYPE_VIDEO || par->extradata_size < 5 || e[0] != 0 || e[1] != 0) return false;
  return e[2] == 1 || (e[2] == 0 && e[3] == 1);
}

}  // namespace

InBandExtradata::FilterPtr InBandExtradata::make_filter(const AVStream* st) {
  const AVBitStreamFilter* found = av_bsf_get_by_name("dump_extra");
  AVBSFContext* made = nullptr;
  if (found == nullptr || av_bsf_alloc(found, &made) < 0) return nullptr;
  FilterPtr filter(made);
  filter->time_base_in = st->time_base;
  const bool ready = avcodec_parameters_copy(filter->par_in, st->codecpar) >= 0 && av_bsf_init(filter.get()) >= 0;
  return ready ? std::move(filter) : nullptr;
}

InBandExtradata::InBandExtradata(const AVFormatContext* ctx) {
  if (ctx == nullptr || (ctx->oformat->flags & AVFMT_GLOBALHEADER) != 0) return;
  m_filters.resize(ctx->nb_streams);
  for (size_t i = 0; i < m_filters.size(); ++i) {
    const AVStream* st = ctx->streams[i];
    if (has_start_code(st->codecpar)) m_filters[i] = make_filter(st);
  }
}

int InBandExtradata::add_to(AVPacket* packet) {
  const auto stream = static_cast<size_t>(packet->stream_index);
  if (stream >= m_filters.size() || m_filters[stream] == nullptr) return 0;
  const int ret = av_bsf_send_packet(m_filters[stream].get(), packet);
  return ret >= 0 ? av_bsf_receive_packet(m_filters[stream].get(), packet) : ret;
}

}  // namespace MR

#include "bare_encoder.h"

#include <stdexcept>

extern "C" {
#include <libavutil/opt.h>
}

namespace meru_bench {

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + AvError(result).text);
  return result;
}

}  // namespace

BareEncoder::BareEncoder(const std::string& path, const Settings& settings) : m_packet(av_packet_alloc()) {
  AVFormatContext* output = nullptr;
  checked(avformat_alloc_output_context2(&output, nullptr, nullptr, path.c_str()), "output");
  m_output.reset(output);
  open_encoder(settings);
  AVStream* stream = avformat_new_stream(output, nullptr);
  checked(avcodec_parameters_from_context(stream->codecpar, m_encoder.get()), "stream");
  stream->time_base = m_encoder->time_base;
  stream->avg_frame_rate = m_encoder->framerate;
  checked(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), path.c_str());
  checked(avformat_write_header(output, nullptr), "header");
}

BareEncoder::~BareEncoder() { avio_closep(&m_output->pb); }

void BareEncoder::open_encoder(const Settings& settings) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_H264);
  m_encoder.reset(avcodec_alloc_context3(codec));
  AVCodecContext* enc = m_encoder.get();
  enc->bit_rate = 0;
  enc->width = settings.width;
  enc->height = settings.height;
  enc->framerate = {settings.fps, 1};
  enc->time_base = {1, settings.fps};
  enc->gop_size = kGopSize;
  enc->pix_fmt = AV_PIX_FMT_YUV420P;
  enc->max_b_frames = 0;
  if ((m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  checked(av_opt_set(enc->priv_data, "preset", kPreset, 0), "preset");
  checked(avcodec_open2(enc, codec, nullptr), "encoder");
}

void BareEncoder::push(const AVFrame* frame) {
  checked(avcodec_send_frame(m_encoder.get(), frame), "send");
  const AVStream* stream = m_output->streams[0];
  while (avcodec_receive_packet(m_encoder.get(), m_packet.get()) >= 0) {
    m_packet->stream_index = stream->index;
    m_packet->duration = 1;
    av_packet_rescale_ts(m_packet.get(), m_encoder->time_base, stream->time_base);
    checked(av_write_frame(m_output.get(), m_packet.get()), "write");
    av_packet_unref(m_packet.get());
  }
}

void BareEncoder::finish() {
  push(nullptr);
  checked(av_write_trailer(m_output.get()), "trailer");
}

}  // namespace meru_bench

#include "base/enc_base.h"

#include "base/presets.h"

EncBase::EncBase(BaseWriter* writer) : m_writer(writer) {
  m_info.crf = 23;
  m_info.qp = 20;
  m_info.timeout_sec = 0;
}

namespace {

/// FFmpeg's AAC encoder refuses a negative bit rate. Before version 5 it crashes while it does so.
bool is_refused(const AVCodecContext* enc) { return enc->codec_id == AV_CODEC_ID_AAC && enc->bit_rate < 0; }

}  // namespace

int EncBase::open_encoder(const AVCodec* codec, OutputStream* ost, const AVDictionary* opts) {
  if (is_refused(ost->enc.get())) return AVERROR(EINVAL);
  AVDictionary* options = nullptr;
  av_dict_copy(&options, opts, 0);
  unset_empty_presets(ost->enc.get());
  int ret = avcodec_open2(ost->enc.get(), codec, &options);
  av_dict_free(&options);
  if (ret >= 0) ret = avcodec_parameters_from_context(ost->st->codecpar, ost->enc.get());
  return ret;
}

EncodeResult EncBase::encode(AVCodecContext* enc, const AVFrame* frame, AVPacket* packet) {
  int sent = avcodec_send_frame(enc, frame);
  int received = AVERROR(EAGAIN);
  if (sent >= 0 || sent == AVERROR(EAGAIN) || sent == AVERROR_EOF) received = avcodec_receive_packet(enc, packet);
  // The encoder was full: a packet has made room, and the frame must not be lost.
  if (sent == AVERROR(EAGAIN) && received >= 0) sent = avcodec_send_frame(enc, frame);

  if (sent < 0 && sent != AVERROR_EOF) {
    if (received >= 0) av_packet_unref(packet);
    return {sent, false, false};
  }
  const bool accepted = frame != nullptr && sent >= 0;
  if (received >= 0) return {0, true, accepted};
  const bool nothing_yet = received == AVERROR(EAGAIN) || received == AVERROR_EOF;
  return {nothing_yet ? 0 : received, false, accepted};
}

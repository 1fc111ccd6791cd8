#include "base/audio_enc.h"

#include <cmath>
#include <cstdlib>
#include <mutex>
#include <string>

#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "common/printf_i64.h"

namespace {

constexpr int64_t kMostTestSamples = int64_t{1} << 24;  // of rates that lie far apart
constexpr int kVariableFrameSize = 10000;
constexpr int kTestPeriodSec = 10;
constexpr float kToneStep = 691.1504F;  // 2 pi times 110 Hz
constexpr float kToneAmplitude = 10000;

std::mutex g_test_mutex;
int64_t g_test_audio = 0;  // guarded by g_test_mutex: seconds at which the tone starts anew, in the whole process

bool tone_starts_anew(int64_t next_pts, AVRational time_base) {
  const std::lock_guard<std::mutex> lock(g_test_mutex);
  if (av_compare_ts(next_pts, time_base, g_test_audio, {1, 1}) < 0) return false;
  g_test_audio += kTestPeriodSec;
  return true;
}

}  // namespace

FramePtr AudioEnc::alloc_audio_frame(AVSampleFormat fmt, uint64_t channel_layout, int sample_rate, int nb_samples) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) {
    nuv::print_stderr("Error allocating an audio frame\n");
    exit(1);
  }
  frame->format = fmt;
  frame->sample_rate = sample_rate;
  frame->nb_samples = nb_samples;
  meru_compat::set_layout(frame.get(), channel_layout);
  if (nb_samples != 0 && av_frame_get_buffer(frame.get(), 0) < 0) {
    nuv::print_stderr("[C++] Error allocating an audio buffer\n");
    exit(1);
  }
  return frame;
}

void AudioEnc::open_audio(AVFormatContext* /*oc*/, const AVCodec* codec, OutputStream* ost, const AVDictionary* opts,
                          const MovieInfo& info) {
  m_info = info;
  const int ret = open_encoder(codec, ost, opts);
  if (ret < 0) {
    nuv::print_stderr("Could not open audio codec: %s\n", AvError(ret).text);
    exit(1);
  }
  const AVCodecContext* enc = ost->enc.get();
  restart_tone(enc->sample_rate);
  ost->tmp_frame.reset();
  const bool any_size = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
  const int nb_samples = any_size ? kVariableFrameSize : enc->frame_size;
  ost->frame = alloc_audio_frame(enc->sample_fmt, meru_compat::layout_of(enc), enc->sample_rate, nb_samples);
  if (ost->frame == nullptr) throw std::string("Could not allocate audio frame");
}

int AudioEnc::write_packet(OutputStream* ost, AVPacket* packet) {
  if (FilterBase* filter = m_filter; filter != nullptr) filter->on_audio_packet(packet);
  packet->stream_index = ost->st->index;
  const int ret = m_writer->writePacket(&ost->enc->time_base, packet, true);
  av_packet_unref(packet);
  if (ret >= 0) return 1;
  MERU_LOG(2, "[write-packet] error while writing audio frame: ret=%d", ret);
  return kPacketRefused;
}

int AudioEnc::write_audio_frame(AVFormatContext* oc, OutputStream* ost, AVFrame* frame) {
  if (oc == nullptr) return -1;
  AVPacket packet;
  meru_compat::init_packet(&packet);
  if (frame == nullptr) return drain(ost, &packet);

  const EncodeResult result = encode(ost->enc.get(), frame, &packet);
  if (result.error < 0) {
    MERU_LOG(2, "Error encoding audio frame: %s", AvError(result.error).text);
    return -2;
  }
  return result.got_packet ? write_packet(ost, &packet) : 0;
}

int AudioEnc::drain(OutputStream* ost, AVPacket* packet) {
  MERU_LOG(2, "NULL ------------> flush audio encoder");
  int written = 0;
  for (;;) {
    const EncodeResult result = encode(ost->enc.get(), nullptr, packet);
    if (result.error < 0) {
      MERU_LOG(2, "Error encoding audio frame: %s", AvError(result.error).text);
      return -2;
    }
    if (!result.got_packet) return written;
    const int ret = write_packet(ost, packet);
    if (ret < 0) return ret;
    ++written;
  }
}

void AudioEnc::restart_tone(int sample_rate) {
  m_t = 0;
  m_tincr = kToneStep / static_cast<float>(sample_rate);
  m_tincr2 = m_tincr / static_cast<float>(sample_rate);
}

AVFrame* AudioEnc::get_audio_frame_test(OutputStream* ost, const AVRational& tb) {
  const AVCodecContext* enc = ost->enc.get();
  if (ost->tmp_frame == nullptr) {
    const auto fmt = static_cast<AVSampleFormat>(m_info.sample_fmt);
    const bool possible = av_get_bytes_per_sample(fmt) > 0 && m_info.sample_rate_src > 0 && m_info.channels > 0 &&
                          meru_compat::default_layout(m_info.channels) != 0;
    const int64_t nb_samples =
        possible ? av_rescale_rnd(ost->frame->nb_samples, m_info.sample_rate_src, m_info.sample_rate_dst, AV_ROUND_UP)
                 : 0;
    if (!possible || nb_samples <= 0 || nb_samples > kMostTestSamples) {
      nuv::print_stderr("Could not allocate temporary audio samples\n");
      return nullptr;
    }
    ost->tmp_frame = alloc_audio_frame(fmt, meru_compat::default_layout(m_info.channels), m_info.sample_rate_src,
                                       static_cast<int>(nb_samples));
  }
  AVFrame* frame = ost->tmp_frame.get();
  if (av_frame_make_writable(frame) < 0) return nullptr;
  if (tone_starts_anew(ost->next_pts, enc->time_base)) restart_tone(enc->sample_rate);
  fill_tone(frame, meru_compat::channels_of(enc));
  frame->pts = av_rescale_q(ost->next_pts, {1, m_info.sample_rate_src}, tb);
  ost->next_pts += frame->nb_samples;
  return frame;
}

/// Writes interleaved 16-bit samples, one for each of the encoder's channels, as far as the first plane reaches.
void AudioEnc::fill_tone(AVFrame* frame, int channels) {
  auto* out = reinterpret_cast<int16_t*>(frame->data[0]);
  const int bytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format));
  const bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)) != 0;
  const int64_t plane_bytes =
      static_cast<int64_t>(frame->nb_samples) * bytes * (planar ? 1 : meru_compat::channels_of(frame));
  const int16_t* const end = out + plane_bytes / static_cast<int64_t>(sizeof(*out));
  for (int i = 0; i < frame->nb_samples; ++i) {
    const auto value = static_cast<int16_t>(std::sin(m_t) * kToneAmplitude);
    for (int c = 0; c < channels && out < end; ++c) *out++ = value;
    m_t += m_tincr;
    m_tincr += m_tincr2;
  }
}

#include "IO_Cvt/audio_input.h"

#include <algorithm>
#include <cstdlib>

#include "IO_Cvt/io_cvt.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "meru/recording.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kLongestSilenceUsec = int64_t{30} * 24 * 3600 * 1000000;
constexpr int64_t kMaxPieceSamples = 768000;

/// Drops the first `count` samples of a frame by moving its data pointers.
void skip_samples(AVFrame* frame, int count) {
  const auto fmt = static_cast<AVSampleFormat>(frame->format);
  const int channels = meru_compat::channels_of(frame);
  const bool planar = av_sample_fmt_is_planar(fmt) != 0;
  const int planes = planar ? channels : 1;
  const ptrdiff_t offset = static_cast<ptrdiff_t>(count) * av_get_bytes_per_sample(fmt) * (planar ? 1 : channels);
  for (int i = 0; i < planes; ++i) {
    frame->extended_data[i] += offset;
    if (frame->extended_data != frame->data && i < AV_NUM_DATA_POINTERS) frame->data[i] += offset;
  }
  frame->nb_samples -= count;
}

}  // namespace

AudioInput::~AudioInput() = default;

bool AudioInput::release_resampler() {
  const bool existed = m_resample != nullptr;
  m_resample.reset();
  return existed;
}

bool AudioInput::release_wrapper() {
  const bool existed = m_pcm_frame != nullptr;
  m_pcm_frame.reset();
  return existed;
}

FramePtr AudioInput::alloc_pcm_frame(const MovieInfo* info) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = info->sample_fmt;
  frame->sample_rate = info->sample_rate_src;
  meru_compat::set_layout(frame.get(), meru_compat::default_layout(info->channels));
  return frame;
}

bool AudioInput::init(const MovieInfo& info) {
  m_rate = info.sample_rate_src;
  m_channels = info.channels;
  m_format = static_cast<AVSampleFormat>(info.sample_fmt);
  m_sample_bytes = av_get_bytes_per_sample(m_format);
  if (m_pcm_frame == nullptr) m_pcm_frame = alloc_pcm_frame(&info);
  if (m_resample != nullptr || m_pcm_frame == nullptr) return false;
  const AVFrame* dst = MERU_audio_dst_frame(m_owner);
  if (dst == nullptr) {
    MERU_LOG(2, "=== No audio dst_frame ..");
    return false;
  }
  auto resample = std::make_unique<MR::QVResample>();
  if (resample->qv_config_frame(dst, m_pcm_frame.get(), {1, info.sample_rate_dst}) < 0) {
    MERU_LOG(2, "=== config QVResample failed ..");
    return false;
  }
  m_resample = std::move(resample);
  return true;
}

int AudioInput::fill_pcm(void* data, int nbytes, long long pts) {
  if (data == nullptr || nbytes < 0 || m_sample_bytes <= 0 || m_channels <= 0) return 0;
  return push_pcm(static_cast<uint8_t*>(data), nbytes / m_sample_bytes / m_channels, pts);
}

int AudioInput::push_pcm(uint8_t* data, int nb_samples, long long pts) {
  AVFrame* frame = m_pcm_frame.get();
  frame->nb_samples = nb_samples;
  frame->pts = pts;
  if (av_samples_fill_arrays(frame->data, frame->linesize, data, m_channels, nb_samples, m_format, 1) < 0) return 0;
  return push(frame, &kUsec);
}

int AudioInput::fill_silence(long long dur, long long pts) {
  const int frame_bytes = m_sample_bytes * m_channels;
  // A gap of months comes from a wrong stamp. Filling it would take for ever; without it the next sound keeps its time.
  if (frame_bytes <= 0 || dur > kLongestSilenceUsec) return 0;
  const int64_t nbytes = av_rescale_rnd(std::max(dur, 0LL), m_resample->in_byte_rate(), 1000000, AV_ROUND_ZERO);
  if (nbytes < 0) return 0;
  return push_silence(nbytes / frame_bytes, pts);
}

/// Feeds silence in pieces of at most a second, so that a long gap costs no memory.
int AudioInput::push_silence(int64_t nb_samples, long long pts) {
  const int64_t longest = std::min<int64_t>(m_rate, kMaxPieceSamples);
  const size_t frame_bytes = static_cast<size_t>(m_sample_bytes) * static_cast<size_t>(m_channels);
  int result = 0;
  int64_t done = 0;
  do {
    const auto piece = static_cast<int>(std::min(nb_samples - done, longest));
    m_silence.resize(std::max({m_silence.size(), static_cast<size_t>(piece) * frame_bytes, frame_bytes}));
    const int pushed = push_pcm(m_silence.data(), piece, pts + av_rescale(done, kUsec.den, m_rate));
    if (pushed != 0) result = pushed;
    done += piece;
  } while (done < nb_samples);
  return result;
}

int AudioInput::push(AVFrame* frame, const AVRational* tb) {
  m_samples += frame->nb_samples;
  if (frame->nb_samples < 1 || !m_realign) return m_cvt->in_frame(false, frame, tb);
  m_realign = false;
  // A copy: the host's frame stays as it is, and the silence needs the frame that wraps the host's PCM.
  const FramePtr aligned(av_frame_clone(frame));
  if (aligned == nullptr) return m_cvt->in_frame(false, frame, tb);
  align(aligned.get(), tb);
  return m_cvt->in_frame(false, aligned.get(), tb);
}

/// Makes the audio so far end where `frame` begins. Timestamps that differ from the count of samples by less than half
/// a second are otherwise ignored; each pause cuts the audio at a place where no buffer ends, and without this the
/// differences would add up from pause to pause.
void AudioInput::align(AVFrame* frame, const AVRational* tb) {
  const int64_t gap = m_resample->samples_until(frame->pts, *tb);
  if (std::llabs(gap) >= m_rate / 2) return;
  if (gap > 0) {
    push_silence(gap, av_rescale_q(frame->pts, *tb, kUsec) - av_rescale(gap, kUsec.den, m_rate));
  } else if (gap < 0) {
    const auto skipped = static_cast<int>(std::min<int64_t>(-gap, frame->nb_samples));
    skip_samples(frame, skipped);
    frame->pts += av_rescale_q(skipped, {1, m_rate}, *tb);
  }
}

int AudioInput::fill_frame(AVFrame* frame, const AVRational* tb) { return push(frame, tb); }

int AudioInput::convert(const AVFrame* frame, const AVRational* tb) {
  if (m_resample == nullptr) return 0;
  int result = 0;
  AVRational out_tb{0, 1};
  AVFrame* out = m_resample->qv_convert_frame(frame, tb);
  for (; out != nullptr; out = m_resample->qv_convert_frame(nullptr, tb)) {
    result = m_cvt->out_frame(false, out, &out_tb) ? 1 : 0;
  }
  return result;
}

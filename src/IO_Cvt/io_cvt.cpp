#include "IO_Cvt/io_cvt.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>

#include "capture/movie_capture2.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "meru/recording.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kLongestSilenceUsec = int64_t{30} * 24 * 3600 * 1000000;
constexpr int64_t kMaxPieceSamples = 768000;

int sample_bytes(const MovieInfo& info) {
  return av_get_bytes_per_sample(static_cast<AVSampleFormat>(info.sample_fmt));
}

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

IOCvt::IOCvt(void* owner) : m_owner(owner) {
  if (owner == nullptr) exit(1);
  init_resample();
  init_rescale();
}

IOCvt::~IOCvt() {
  MERU_LOG(4, "Begin ...");
  if (m_resample != nullptr) {
    m_resample.reset();
    MERU_LOG(4, "delete evr ok!");
  }
  if (m_rescale != nullptr) {
    m_rescale.reset();
    MERU_LOG(4, "delete evs ok!");
  }
  if (m_pcm_frame != nullptr) {
    m_pcm_frame.reset();
    MERU_LOG(4, "free pcm");
  }
  if (m_bgra_frame != nullptr) {
    m_bgra_frame.reset();
    MERU_LOG(4, "free bgra");
  }
  MERU_LOG(4, "OK");
}

bool IOCvt::init() {
  init_resample();
  return init_rescale();
}

bool IOCvt::read_settings() {
  const std::lock_guard<std::mutex> lock(m_info_mutex);
  if (m_info != nullptr) return true;
  auto info = std::make_unique<MovieInfo>();
  if (!MERU_get_mInfo(m_owner, info.get())) return false;
  m_info = std::move(info);
  return true;
}

bool IOCvt::update_movie_info() {
  auto info = std::make_unique<MovieInfo>();
  const bool started = MERU_get_mInfo(m_owner, info.get());
  const std::lock_guard<std::mutex> lock(m_info_mutex);
  m_info = std::move(info);
  return started;
}

FramePtr IOCvt::alloc_audio_pcm_frame(const MovieInfo* info) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = info->sample_fmt;
  frame->sample_rate = info->sample_rate_src;
  meru_compat::set_layout(frame.get(), meru_compat::default_layout(info->channels));
  return frame;
}

FramePtr IOCvt::alloc_video_bgra_frame(const MovieInfo* info, int linesize) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = info->pix_fmt_src;
  frame->width = info->width_src;
  frame->height = info->height_src;
  frame->linesize[0] = linesize;
  // Further planes keep to the first one's ratio of stride to width.
  std::array<int, 4> tight{};
  if (av_image_fill_linesizes(tight.data(), static_cast<AVPixelFormat>(info->pix_fmt_src), info->width_src) >= 0) {
    for (size_t i = 1; i < tight.size() && tight[0] > 0; ++i) {
      frame->linesize[i] = static_cast<int>((static_cast<int64_t>(tight[i]) * linesize + tight[0] - 1) / tight[0]);
    }
  }
  return frame;
}

bool IOCvt::init_resample() {
  if (!read_settings()) return false;
  if (m_pcm_frame == nullptr) m_pcm_frame = alloc_audio_pcm_frame(m_info.get());
  if (m_resample != nullptr || m_pcm_frame == nullptr) return false;
  const AVFrame* dst = MERU_audio_dst_frame(m_owner);
  if (dst == nullptr) {
    MERU_LOG(2, "=== No audio dst_frame ..");
    return false;
  }
  auto resample = std::make_unique<MR::QVResample>();
  if (resample->qv_config_frame(dst, m_pcm_frame.get(), {1, m_info->sample_rate_dst}) < 0) {
    MERU_LOG(2, "=== config QVResample failed ..");
    return false;
  }
  m_resample = std::move(resample);
  return true;
}

bool IOCvt::init_rescale() {
  if (!read_settings() || m_rescale != nullptr) return false;
  const AVFrame* dst = MERU_video_dst_frame(m_owner);
  if (dst == nullptr) {
    MERU_LOG(2, "=== No video dst_frame ..");
    return false;
  }
  const FramePtr src = alloc_video_bgra_frame(m_info.get(), 0);
  auto rescale = std::make_unique<MR::QVRescale>();
  if (src == nullptr || rescale->qv_config_frame(dst, src.get(), {1, m_info->fps}) < 0) {
    MERU_LOG(2, "=== config QVRescale failed ..");
    return false;
  }
  m_rescale = std::move(rescale);
  return true;
}

int IOCvt::fill_audio_pcm(void* data, int nbytes, long long pts) {
  if (!ready_for_audio()) return 0;
  const int bytes = sample_bytes(*m_info);
  if (data == nullptr || nbytes < 0 || bytes <= 0 || m_info->channels <= 0) return 0;
  return push_pcm(static_cast<uint8_t*>(data), nbytes / bytes / m_info->channels, pts);
}

int IOCvt::push_pcm(uint8_t* data, int nb_samples, long long pts) {
  AVFrame* frame = m_pcm_frame.get();
  frame->nb_samples = nb_samples;
  frame->pts = pts;
  if (av_samples_fill_arrays(frame->data, frame->linesize, data, m_info->channels, nb_samples,
                             static_cast<AVSampleFormat>(m_info->sample_fmt), 1) < 0) {
    return 0;
  }
  return push_audio(frame, &kUsec);
}

int IOCvt::fill_audio_silence(long long dur, long long pts) {
  if (!ready_for_audio()) return 0;
  const int frame_bytes = sample_bytes(*m_info) * m_info->channels;
  // A gap of months comes from a wrong stamp. Filling it would take for ever; without it the next sound keeps its time.
  if (frame_bytes <= 0 || dur > kLongestSilenceUsec) return 0;
  const int64_t nbytes = av_rescale_rnd(std::max(dur, 0LL), m_resample->in_byte_rate(), 1000000, AV_ROUND_ZERO);
  if (nbytes < 0) return 0;
  return push_silence(nbytes / frame_bytes, pts);
}

/// Feeds silence in pieces of at most a second, so that a long gap costs no memory.
int IOCvt::push_silence(int64_t nb_samples, long long pts) {
  const int64_t rate = m_info->sample_rate_src;
  const int64_t longest = std::min(rate, kMaxPieceSamples);
  const size_t frame_bytes = static_cast<size_t>(sample_bytes(*m_info)) * static_cast<size_t>(m_info->channels);
  int result = 0;
  int64_t done = 0;
  do {
    const auto piece = static_cast<int>(std::min(nb_samples - done, longest));
    m_silence.resize(std::max({m_silence.size(), static_cast<size_t>(piece) * frame_bytes, frame_bytes}));
    const int pushed = push_pcm(m_silence.data(), piece, pts + av_rescale(done, kUsec.den, rate));
    if (pushed != 0) result = pushed;
    done += piece;
  } while (done < nb_samples);
  return result;
}

int IOCvt::push_audio(AVFrame* frame, const AVRational* tb) {
  m_audio_samples += frame->nb_samples;
  if (frame->nb_samples < 1 || !m_realign_audio.exchange(false)) return in_frame(false, frame, tb);
  // A copy: the host's frame stays as it is, and the silence needs the frame that wraps the host's PCM.
  const FramePtr aligned(av_frame_clone(frame));
  if (aligned == nullptr) return in_frame(false, frame, tb);
  align(aligned.get(), tb);
  return in_frame(false, aligned.get(), tb);
}

/// Makes the sound so far end where `frame` begins. Time stamps that differ from the count of samples by less than half
/// a second are otherwise ignored; each pause cuts the sound at a place where no buffer ends, and without this the
/// differences would add up from pause to pause.
void IOCvt::align(AVFrame* frame, const AVRational* tb) {
  const int64_t rate = m_info->sample_rate_src;
  const int64_t gap = m_resample->samples_until(frame->pts, *tb);
  if (std::llabs(gap) >= rate / 2) return;
  if (gap > 0) {
    push_silence(gap, av_rescale_q(frame->pts, *tb, kUsec) - av_rescale(gap, kUsec.den, rate));
  } else if (gap < 0) {
    const auto skipped = static_cast<int>(std::min<int64_t>(-gap, frame->nb_samples));
    skip_samples(frame, skipped);
    frame->pts += av_rescale_q(skipped, {1, static_cast<int>(rate)}, *tb);
  }
}

int IOCvt::fill_audio_frame(AVFrame* frame, const AVRational* tb) {
  return ready_for_audio() ? push_audio(frame, tb) : 0;
}

int IOCvt::fill_video_bgra(void* data, int nbytes, long long pts, int linesize) {
  if (!ready_for_video()) return 0;
  const auto fmt = static_cast<AVPixelFormat>(m_info->pix_fmt_src);
  const int row_bytes = av_image_get_linesize(fmt, m_info->width_src, 0);
  if (data == nullptr || row_bytes <= 0 || linesize < row_bytes) {
    MERU_LOG(4, "image refused: nb=%d, linesize=%d, a row has %d", nbytes, linesize, row_bytes);
    return 0;
  }
  if (m_bgra_frame == nullptr || m_bgra_frame->linesize[0] != linesize) {
    m_bgra_frame = alloc_video_bgra_frame(m_info.get(), linesize);
    if (m_bgra_frame == nullptr) return 0;
  }
  AVFrame* frame = m_bgra_frame.get();
  const int ret =
      av_image_fill_pointers(frame->data, fmt, m_info->height_src, static_cast<uint8_t*>(data), frame->linesize);
  if (ret < 0) {
    av_log(nullptr, AV_LOG_ERROR, "###---> image fill error: %s\n", AvError(ret).text);
    return 0;
  }
  frame->pts = pts;
  ++m_video_frames;
  return in_frame(true, frame, &kUsec);
}

int IOCvt::fill_video_frame(AVFrame* frame, const AVRational* tb) {
  if (!ready_for_video()) return 0;
  ++m_video_frames;
  return in_frame(true, frame, tb);
}

int IOCvt::in_frame(bool video, AVFrame* frame, const AVRational* tb) {
  AVRational out_tb{0, 1};
  if (video) {
    AVFrame* out = m_rescale != nullptr ? m_rescale->qv_convert_frame(frame, tb) : nullptr;
    return out != nullptr && out_frame(true, out, &out_tb) ? 1 : 0;
  }
  int result = 0;
  AVFrame* out = m_resample != nullptr ? m_resample->qv_convert_frame(frame, tb) : nullptr;
  for (; out != nullptr; out = m_resample->qv_convert_frame(nullptr, tb)) {
    result = out_frame(false, out, &out_tb) ? 1 : 0;
  }
  return result;
}

bool IOCvt::out_frame(bool video, AVFrame* frame, AVRational* /*tb*/) {
  auto* muxer = static_cast<MovieCapture2*>(m_owner);
  if (video) {
    muxer->write_video_frame(frame, nullptr);
  } else {
    muxer->write_audio_frame(frame, nullptr);
  }
  return true;
}

#include "IO_Cvt/io_cvt.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>

#include "capture/movie_capture2.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "meru/recording.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};

/// The strides of the other planes are those of an image whose rows fill `linesize` with pixels.
void fill_strides(AVFrame* frame, int linesize) {
  const auto format = static_cast<AVPixelFormat>(frame->format);
  frame->linesize[0] = linesize;
  std::array<int, 4> tight{}, steps{};
  if (av_image_fill_linesizes(tight.data(), format, frame->width) < 0) return;
  av_image_fill_max_pixsteps(steps.data(), nullptr, av_pix_fmt_desc_get(format));
  const int columns = steps[0] > 0 ? linesize / steps[0] + (linesize % steps[0] > 0 ? 1 : 0) : 0;
  for (int i = 1; i < 4; ++i) {
    if (tight[static_cast<size_t>(i)] > 0) frame->linesize[i] = av_image_get_linesize(format, columns, i);
  }
}

}  // namespace

IOCvt::IOCvt(void* owner) : m_owner(owner), m_audio(this, static_cast<MovieCapture2*>(owner)) {
  if (owner == nullptr) exit(1);
  init_resample();
  init_rescale();
}

IOCvt::~IOCvt() {
  MERU_LOG(4, "Begin ...");
  if (m_audio.release_resampler()) MERU_LOG(4, "delete evr ok!");
  if (m_rescale != nullptr) {
    m_rescale.reset();
    MERU_LOG(4, "delete evs ok!");
  }
  if (m_audio.release_wrapper()) MERU_LOG(4, "free pcm");
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

FramePtr IOCvt::alloc_audio_pcm_frame(const MovieInfo* info) { return AudioInput::alloc_pcm_frame(info); }

FramePtr IOCvt::alloc_video_bgra_frame(const MovieInfo* info, int linesize) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = info->pix_fmt_src;
  frame->width = info->width_src;
  frame->height = info->height_src;
  fill_strides(frame.get(), linesize);
  return frame;
}

bool IOCvt::init_resample() { return read_settings() && m_audio.init(*m_info); }

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
  if (!ready_for_audio()) return m_audio.refuse(static_cast<MovieCapture2*>(m_owner)->samples_in(nbytes));
  return m_audio.fill_pcm(data, nbytes, pts);
}

int IOCvt::fill_audio_silence(long long dur, long long pts) {
  return ready_for_audio() ? m_audio.fill_silence(dur, pts) : 0;
}

int IOCvt::fill_audio_frame(AVFrame* frame, const AVRational* tb) {
  return ready_for_audio() ? m_audio.fill_frame(frame, tb) : m_audio.refuse(std::max(frame->nb_samples, 0));
}

template <class Push>
int IOCvt::account_video(MR::Taken* taken, Push push) {
  std::optional<MR::Taken> own;
  if (taken == nullptr) taken = &own.emplace(&static_cast<MovieCapture2*>(m_owner)->books().video_frames, 1);
  struct Scope {
    explicit Scope(MR::Taken** current, MR::Taken* frame) : m_current(current) { *m_current = frame; }
    ~Scope() { *m_current = nullptr; }
    MR::Taken** m_current;
  };
  const Scope scope(&m_video_taken, taken);
  return push();
}

int IOCvt::fill_video_bgra(void* data, int nbytes, long long pts, int linesize, MR::Taken* taken) {
  return account_video(taken, [&] { return push_image(data, nbytes, pts, linesize); });
}

int IOCvt::fill_video_frame(AVFrame* frame, const AVRational* tb, MR::Taken* taken) {
  return account_video(taken, [&] { return push_frame(frame, tb); });
}

int IOCvt::drop_video(MR::Drop reason) {
  if (m_video_taken != nullptr) m_video_taken->drop(reason);
  return 0;
}

/// What keeps the rescaler from being made.
int IOCvt::drop_unready_video() {
  if (!read_settings()) return drop_video(MR::Drop::kNotStarted);
  return drop_video(MERU_video_dst_frame(m_owner) == nullptr ? MR::Drop::kDisabled : MR::Drop::kRefused);
}

int IOCvt::push_image(void* data, int nbytes, long long pts, int linesize) {
  if (!ready_for_video()) return drop_unready_video();
  const auto fmt = static_cast<AVPixelFormat>(m_info->pix_fmt_src);
  const int row_bytes = av_image_get_linesize(fmt, m_info->width_src, 0);
  if (data == nullptr || row_bytes <= 0 || linesize < row_bytes) {
    MERU_LOG(4, "image refused: nb=%d, linesize=%d, a row has %d", nbytes, linesize, row_bytes);
    return drop_video(MR::Drop::kRefused);
  }
  if (m_bgra_frame == nullptr || m_bgra_frame->linesize[0] != linesize) {
    m_bgra_frame = alloc_video_bgra_frame(m_info.get(), linesize);
    if (m_bgra_frame == nullptr) return drop_video(MR::Drop::kMemory);
  }
  AVFrame* frame = m_bgra_frame.get();
  const int ret =
      av_image_fill_pointers(frame->data, fmt, m_info->height_src, static_cast<uint8_t*>(data), frame->linesize);
  if (ret < 0) {
    av_log(nullptr, AV_LOG_ERROR, "###---> image fill error: %s\n", AvError(ret).text);
    return drop_video(MR::Drop::kRefused);
  }
  frame->pts = pts;
  ++m_video_frames;
  return in_frame(true, frame, &kUsec);
}

int IOCvt::push_frame(AVFrame* frame, const AVRational* tb) {
  if (!ready_for_video()) return drop_unready_video();
  ++m_video_frames;
  return in_frame(true, frame, tb);
}

int IOCvt::in_frame(bool video, AVFrame* frame, const AVRational* tb) {
  return video ? in_video_frame(frame, tb) : m_audio.convert(frame, tb);
}

int IOCvt::in_video_frame(AVFrame* frame, const AVRational* tb) {
  if (m_rescale == nullptr) return drop_video(MR::Drop::kNotStarted);
  const bool taken = frame->data[0] != nullptr && m_rescale->takes(*frame);
  AVFrame* out = taken ? m_rescale->qv_convert_frame(frame, tb) : nullptr;
  if (out == nullptr) {
    const MR::Drop reason = taken ? MR::Drop::kMemory : MR::Drop::kRefused;
    const bool first = m_video_taken != nullptr && m_video_taken->drop(reason);
    MR::report_drop("video frame", reason, first,
                    taken ? "it cannot be converted" : "it has not the size and the pixel format of the record");
    return 0;
  }
  AVRational out_tb{0, 1};
  return out_frame(true, out, &out_tb) ? 1 : 0;
}

bool IOCvt::out_frame(bool video, AVFrame* frame, AVRational* /*tb*/) {
  auto* muxer = static_cast<MovieCapture2*>(m_owner);
  if (video) {
    muxer->write_video_frame(frame, nullptr, m_video_taken);
  } else {
    muxer->encode_audio_frame(frame, nullptr);
  }
  return true;
}

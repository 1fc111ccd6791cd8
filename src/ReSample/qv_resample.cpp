#include "ReSample/qv_resample.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "ReSample/finite_samples.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "common/printf_i64.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

namespace MR {

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kMaxDiffUsec = 500000;
constexpr int kMaxChannels = 64;  // of libswresample
constexpr int kDrainSamples = 1024;

double to_sec(int64_t usec) { return static_cast<double>(usec) / 1e6; }

int buffer_references(const AVFrame* frame) {
  return frame->buf[0] != nullptr ? av_buffer_get_ref_count(frame->buf[0]) : 0;
}

/// Mixes channels of which nobody knows where they belong: the first to the left, the second to the right, and so on.
int mix_in_turn(SwrContext* swr, int in, int out) {
  std::array<double, static_cast<size_t>(kMaxChannels) * kMaxChannels> matrix{};
  if (in < 1 || in > kMaxChannels || out < 1 || out > kMaxChannels) return AVERROR(EINVAL);
  for (int o = 0; o < out; ++o) {
    const int mixed = (in - o + out - 1) / out;
    for (int i = o; i < in; i += out)
      matrix[static_cast<size_t>(o) * static_cast<size_t>(in) + static_cast<size_t>(i)] = 1.0 / mixed;
  }
  return swr_set_matrix(swr, matrix.data(), in);
}

/// libswresample mixes the layouts that it knows.
int init_resampler(SwrContext* swr, int in, int out) {
  int ret = AVERROR(EINVAL);
  if (meru_compat::default_layout(in) != 0) ret = swr_init(swr);
  if (ret >= 0 || in < 1 || in > kMaxChannels) return ret;
  swr_close(swr);
  ret = mix_in_turn(swr, in, out);
  return ret < 0 ? ret : swr_init(swr);
}

/// From which difference on the input counts as having jumped. Computed for the first recording of the process and kept
/// for all that follow.
int64_t max_difference(AVRational time_base) {
  static std::atomic<int64_t> check_max_diff{0};
  if (check_max_diff == 0) check_max_diff = av_rescale_q(kMaxDiffUsec, kUsec, time_base);
  return check_max_diff;
}

}  // namespace

QVResample::QVResample() : m_swr(swr_alloc()) {}

QVResample::~QVResample() {
  m_swr.reset();
  nuv::print_stderr("delete evr.s ok!\n");
  m_out_frame.reset();
  nuv::print_stderr("delete out_frame ok!\n");
}

int QVResample::pri_swr_config_frame(SwrContext* swr, const AVFrame* out, const AVFrame* in) {
  const auto set = [swr](const char* name, int value) { return av_opt_set_int(swr, name, value, 0) >= 0; };
  swr_close(swr);
  bool ok = swr != nullptr;
  if (in != nullptr) {
    ok = ok && meru_compat::set_resampler_layout(swr, 'i', meru_compat::layout_of(in)) >= 0 && set("isf", in->format) &&
         set("isr", in->sample_rate);
  }
  if (out != nullptr) {
    ok = ok && meru_compat::set_resampler_layout(swr, 'o', meru_compat::layout_of(out)) >= 0 &&
         set("osf", out->format) && set("osr", out->sample_rate);
  }
  if (!ok) {
    av_log(swr, AV_LOG_ERROR, "Failed to set option\n");
    return AVERROR(EINVAL);
  }
  if (in != nullptr) {
    m_in_ch_layout = static_cast<int64_t>(meru_compat::layout_of(in));
    m_in_sample_rate = in->sample_rate;
    m_in_sample_fmt = in->format;
    m_in_channels = meru_compat::channels_of(in);
    if (m_in_channels < 1) m_in_channels = meru_compat::layout_channels(static_cast<uint64_t>(m_in_ch_layout));
    m_in_bytes_per_sample = av_get_bytes_per_sample(static_cast<AVSampleFormat>(in->format));
    m_in_byte_rate = static_cast<int>(static_cast<int64_t>(m_in_bytes_per_sample) * m_in_sample_rate * m_in_channels);
  }
  if (out != nullptr) {
    m_out_ch_layout = static_cast<int64_t>(meru_compat::layout_of(out));
    m_out_sample_rate = out->sample_rate;
    m_out_sample_fmt = out->format;
    m_out_frame_size = out->nb_samples;
    m_out_planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(out->format));
    m_out_channels = meru_compat::channels_of(out);
  }
  return 0;
}

int QVResample::qv_config_frame(const AVFrame* dst, const AVFrame* src, AVRational tb) {
  m_out_frame.reset(av_frame_clone(dst));
  if (m_out_frame == nullptr || m_swr == nullptr) return -1;
  m_sharers = buffer_references(m_out_frame.get());
  m_time_base = tb;
  if (pri_swr_config_frame(m_swr.get(), dst, src) < 0) return -1;
  const int ret = init_resampler(m_swr.get(), m_in_channels, m_out_channels);
  if (ret < 0) return ret;
  m_fifo.reset(av_audio_fifo_alloc(static_cast<AVSampleFormat>(m_out_sample_fmt), m_out_channels, 1));
  if (m_fifo == nullptr) {
    av_log(nullptr, AV_LOG_ERROR, "alloc audio fifo error!,%s\n", AvError(AVERROR(errno)).text);
    return -1;
  }
  return ret;
}

AVFrame* QVResample::qv_convert_frame(const AVFrame* in, const AVRational* tb) {
  if (m_swr == nullptr || swr_is_initialized(m_swr.get()) < 1) {
    nuv::print_stderr("=== resample:  swr_init = false\n");
    return nullptr;
  }
  AVFrame* out = pri_convert_frame(in);
  if (out != nullptr) pri_convert_pts(in, out, tb);
  return out;
}

/// The order of the channels is not compared: a record says how many there are, not which.
bool QVResample::accepts(const AVFrame* in) const {
  if (in->format != m_in_sample_fmt || in->sample_rate != m_in_sample_rate ||
      meru_compat::channels_of(in) != m_in_channels || in->nb_samples < 0) {
    return false;
  }
  if (in->nb_samples == 0) return true;
  const bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(m_in_sample_fmt)) != 0;
  const uint8_t* const* planes = in->extended_data;
  return planes != nullptr && std::all_of(planes, planes + (planar ? m_in_channels : 1),
                                          [](const uint8_t* plane) { return plane != nullptr; });
}

/// Makes memory for `count` converted samples.
bool QVResample::reserve(int count) {
  if (m_converted != nullptr && m_reserved >= count) return true;
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return false;
  meru_compat::set_layout(frame.get(), static_cast<uint64_t>(m_out_ch_layout));
  frame->format = m_out_sample_fmt;
  frame->nb_samples = count;
  if (av_frame_get_buffer(frame.get(), 0) < 0) return false;
  m_converted = std::move(frame);
  m_reserved = count;
  return true;
}

/// Converts `count` samples into the buffer; null drains the resampler. @return how many came out, or a negative error
int QVResample::convert(const uint8_t* const* planes, int count) {
  const int most = planes != nullptr ? swr_get_out_samples(m_swr.get(), count) : kDrainSamples;
  if (most < 0) return most;
  if (!reserve(std::max(most, 1))) return AVERROR(ENOMEM);
  const int made =
      swr_convert(m_swr.get(), m_converted->extended_data, most, const_cast<const uint8_t**>(planes), count);
  if (made <= 0) return made;
  m_counts.out += made;
  make_finite(m_converted.get(), made);
  const int wanted = av_audio_fifo_size(m_fifo.get()) + made;
  if (av_audio_fifo_realloc(m_fifo.get(), wanted) < 0) {
    MERU_LOG(2, "--- audio fifo realloc failed: sz = %d", wanted);
    m_counts.lost += made;
    return made;
  }
  const int kept = av_audio_fifo_write(m_fifo.get(), reinterpret_cast<void**>(m_converted->extended_data), made);
  m_counts.lost += made - std::max(kept, 0);
  return made;
}

bool QVResample::buffer_samples(const AVFrame* in) {
  m_counts.no_memory = false;
  if (!accepts(in)) return false;
  const int64_t lost = m_counts.lost;
  const int ret = convert(in->extended_data, in->nb_samples);
  m_counts.no_memory = ret == AVERROR(ENOMEM);
  if (ret < 0) return false;
  m_counts.in += in->nb_samples;
  return m_counts.lost == lost;
}

AVFrame* QVResample::read_frame(int count) {
  AVFrame* out = m_out_frame.get();
  out->nb_samples = m_out_frame_size;
  if (!make_buffers_free(out, &m_sharers)) return nullptr;
  const int ret = av_audio_fifo_read(m_fifo.get(), reinterpret_cast<void**>(out->extended_data), count);
  if (ret < 0) {
    av_log(nullptr, AV_LOG_INFO, "@@ audio fifo read error: %s\n", AvError(ret).text);
    return nullptr;
  }
  out->nb_samples = count;
  return out;
}

AVFrame* QVResample::pri_convert_frame(const AVFrame* in) {
  if (in != nullptr && !buffer_samples(in)) return nullptr;
  return buffered() < m_out_frame_size ? nullptr : read_frame(m_out_frame_size);
}

AVFrame* QVResample::qv_take_rest() {
  if (m_swr == nullptr || swr_is_initialized(m_swr.get()) < 1) return nullptr;
  if (!m_drained) {
    m_drained = true;
    while (convert(nullptr, 0) > 0) continue;
  }
  const int count = std::min(buffered(), m_out_frame_size);
  AVFrame* out = count > 0 ? read_frame(count) : nullptr;
  if (out == nullptr) {
    m_drained = false;
    swr_init(m_swr.get());
    return nullptr;
  }
  out->pts = m_next_pts;
  m_next_pts += count;
  return out;
}

void QVResample::pri_convert_pts(const AVFrame* in, AVFrame* out, const AVRational* tb) {
  int64_t pts = m_next_pts;
  if (in != nullptr) {
    const int64_t this_pts = av_rescale_q(in->pts, *tb, m_time_base);
    if (std::llabs(this_pts - m_next_pts) >= max_difference(m_time_base)) {
      MERU_LOG.i64(2,
                   "@@@ [check] correct au pts ----> processd_samples=%I64d(%lfsec), "
                   "this_pts=%I64d(%lfsec)",
                   static_cast<long long>(m_next_pts), to_sec(av_rescale_q(m_next_pts, m_time_base, *tb)),
                   static_cast<long long>(this_pts), to_sec(in->pts));
      fflush(stderr);
      pts = this_pts;
    }
  }
  out->pts = pts;
  m_next_pts = pts + out->nb_samples;
}

int64_t QVResample::samples_until(int64_t pts, AVRational tb) const {
  const AVRational in_base{1, m_in_sample_rate};
  const int64_t taken = m_next_pts + av_audio_fifo_size(m_fifo.get());
  return av_rescale_q(pts, tb, in_base) - av_rescale_q(taken, m_time_base, in_base) -
         swr_get_delay(m_swr.get(), m_in_sample_rate);
}

int QVRescale::qv_config_frame(const AVFrame* dst, const AVFrame* src, AVRational tb) {
  m_time_base = tb;
  if (dst->width == src->width && dst->height == src->height && dst->format == src->format) return 0;
  m_src = {src->width, src->height, src->format};
  const ImageFormat to{dst->width, dst->height, dst->format};
  m_rgb_to_yuv = RgbToYuv::make(m_src, to, dst->colorspace, dst->color_range);
  if (m_rgb_to_yuv == nullptr) m_sws = make_scaler(m_src, to, dst->colorspace, dst->color_range);
  if (converts()) m_out_frame.reset(av_frame_clone(dst));
  if (m_out_frame == nullptr) {
    m_sws.reset();
    m_rgb_to_yuv.reset();
    nuv::print_stderr("Could not initialize the conversion context\n");
    return -1;
  }
  m_sharers = buffer_references(m_out_frame.get());
  return 0;
}

AVFrame* QVRescale::pri_convert_frame(const AVFrame* src) {
  if (!takes(*src)) return nullptr;
  AVFrame* out = m_out_frame.get();
  if (!make_buffers_free(out, &m_sharers)) return nullptr;
  if (m_rgb_to_yuv != nullptr) {
    m_rgb_to_yuv->convert(src->data[0], src->linesize[0], out->data, out->linesize);
  } else {
    const AVFrame* readable = m_padded.readable(src, out->width);
    if (readable == nullptr) return nullptr;
    meru_compat::scale(m_sws.get(), readable, out);
  }
  return out;
}

/// The scaler would read beyond an image that is smaller than the one it was made for.
bool QVRescale::takes(const AVFrame& src) const {
  return !converts() || (src.width == m_src.width && src.height == m_src.height && src.format == m_src.format);
}

AVFrame* QVRescale::qv_convert_frame(AVFrame* src, const AVRational* tb) {
  if (src == nullptr) return nullptr;
  AVFrame* out = converts() ? pri_convert_frame(src) : src;
  if (out != nullptr) out->pts = av_rescale_q(src->pts, *tb, m_time_base);
  return out;
}

}  // namespace MR

#pragma once

#include <cstdint>

#include "ReSample/rgb_to_yuv.h"
#include "common/ffmpeg_handles.h"
#include "common/scaler.h"

namespace MR {

/// Converts PCM of any layout, sample format and rate into frames of exactly the encoder's frame size, with continuous
/// time stamps. One thread at a time.
class QVResample {
 public:
  QVResample();
  virtual ~QVResample();
  QVResample(const QVResample&) = delete;
  QVResample& operator=(const QVResample&) = delete;

  /// Sets up the conversion from frames like `src` to frames like `dst`, the encoder's input frame, whose buffers the
  /// converter shares. `tb` is the time base of the frames given out.
  /// @return 0 or more; -1 or a negative FFmpeg error
  int qv_config_frame(const AVFrame* dst, const AVFrame* src, AVRational tb);

  /// Takes `in`, stamped in `*tb` (null takes nothing more), and gives the next whole frame.
  /// @return a frame that is overwritten by the next call; null when too few samples are buffered, or on an error,
  ///         after which the converter can still be used
  AVFrame* qv_convert_frame(const AVFrame* in, const AVRational* tb);

  int in_byte_rate() const { return m_in_byte_rate; }
  int in_sample_rate() const { return m_in_sample_rate; }

  /// By how many input samples a frame stamped `pts` in `tb` would start after the samples taken so far (negative:
  /// before their end).
  int64_t samples_until(int64_t pts, AVRational tb) const;

 private:
  int pri_swr_config_frame(SwrContext* swr, const AVFrame* out, const AVFrame* in);
  AVFrame* pri_convert_frame(const AVFrame* in);
  void pri_convert_pts(const AVFrame* in, AVFrame* out, const AVRational* tb);
  bool buffer_samples(const AVFrame* in);

  SwrPtr m_swr;
  AudioFifoPtr m_fifo;
  AVRational m_time_base{0, 1};
  int64_t m_in_ch_layout = 0;
  int m_in_sample_rate = 0;
  int m_in_sample_fmt = -1;
  int m_in_channels = 0;
  int m_in_bytes_per_sample = 0;
  int m_in_byte_rate = 0;
  int64_t m_out_ch_layout = 0;
  int m_out_sample_rate = 0;
  int m_out_sample_fmt = -1;
  int m_out_frame_size = 0;
  int m_out_planar = 0;
  int m_out_channels = 0;
  FramePtr m_out_frame;
  int64_t m_next_pts = 0;
  int m_sharers = 0;  // references to the output frame's buffers while the encoder holds none
};

/// Converts images into the encoder's input frame, or hands them through when they already fit. One thread at a time.
class QVRescale {
 public:
  QVRescale() = default;
  virtual ~QVRescale() = default;
  QVRescale(const QVRescale&) = delete;
  QVRescale& operator=(const QVRescale&) = delete;

  /// Sets up the conversion from images like `src` (width, height and format count) to `dst`, the encoder's input
  /// frame, whose buffers the converter shares. `tb` is the time base of the frames given out.
  /// @return 0, or -1 when there is no such conversion
  int qv_config_frame(const AVFrame* dst, const AVFrame* src, AVRational tb);

  /// @return the image to encode, stamped from `*tb`: a frame that the next call overwrites, or `src` itself when no
  ///         conversion is needed; null when `src` is not what was configured, or when there is no memory
  AVFrame* qv_convert_frame(AVFrame* src, const AVRational* tb);

 private:
  AVFrame* pri_convert_frame(const AVFrame* src);
  bool converts() const { return m_sws != nullptr || m_rgb_to_yuv != nullptr; }

  SwsPtr m_sws;
  AVRational m_time_base{0, 1};
  FramePtr m_out_frame;
  std::unique_ptr<RgbToYuv> m_rgb_to_yuv;  // in place of m_sws where the two would do the same
  ImageFormat m_src;                       // what is converted from
  int m_sharers = 0;                       // references to the output frame's buffers while the encoder holds none
};

}  // namespace MR

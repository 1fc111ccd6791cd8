#pragma once

#include <cstdint>

#include "ReSample/rgb_to_yuv.h"
#include "common/ffmpeg_handles.h"
#include "common/padded_source.h"
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

  /// @return whether these are samples of the configured format, rate and number of channels
  bool accepts(const AVFrame* in) const;

  /// At the end of the audio: gives what the resampler and the buffer still hold, frame by frame; the last one may be
  /// shorter than the encoder's frame size. @return as qv_convert_frame; after null the converter can be used again
  AVFrame* qv_take_rest();

  /// What has been taken and made so far, in samples of every channel.
  struct Counts {
    int64_t in = 0;          ///< taken, at the input's rate
    int64_t out = 0;         ///< converted, at the output's rate
    int64_t lost = 0;        ///< of these: not buffered, for lack of memory
    bool no_memory = false;  ///< why the last input was not taken, else it is not what was configured
  };
  const Counts& counts() const { return m_counts; }
  /// Converted samples that no frame has been made of yet.
  int buffered() const { return m_fifo != nullptr ? av_audio_fifo_size(m_fifo.get()) : 0; }

  int in_byte_rate() const { return m_in_byte_rate; }
  int in_sample_rate() const { return m_in_sample_rate; }

  /// By how many input samples a frame stamped `pts` in `tb` would start after the samples taken so far (negative:
  /// before their end).
  int64_t samples_until(int64_t pts, AVRational tb) const;

 private:
  int pri_swr_config_frame(SwrContext* swr, const AVFrame* out, const AVFrame* in);
  AVFrame* pri_convert_frame(const AVFrame* in);
  void pri_convert_pts(const AVFrame* in, AVFrame* out, const AVRational* tb);
  bool reserve(int count);
  int convert(const uint8_t* const* planes, int count);
  bool buffer_samples(const AVFrame* in);
  AVFrame* read_frame(int count);

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
  FramePtr m_converted;  // holds what one call of the resampler gives
  int m_reserved = 0;    // samples that it has memory for
  bool m_drained = false;
  Counts m_counts;
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

  /// @return whether `src` is what was configured; without a conversion anything is
  bool takes(const AVFrame& src) const;

 private:
  AVFrame* pri_convert_frame(const AVFrame* src);
  bool converts() const { return m_sws != nullptr || m_rgb_to_yuv != nullptr; }

  SwsPtr m_sws;
  AVRational m_time_base{0, 1};
  FramePtr m_out_frame;
  std::unique_ptr<RgbToYuv> m_rgb_to_yuv;  // in place of m_sws where the two would do the same
  ImageFormat m_src;                       // what is converted from
  PaddedSource m_padded;
  int m_sharers = 0;  // references to the output frame's buffers while the encoder holds none
};

}  // namespace MR

#pragma once

#include <atomic>

#include "base/enc_base.h"

/// Encodes samples that are in the encoder's format already and hands the packets to the writer. Used by the thread
/// that pushes audio, and by stop().
class AudioEnc : public EncBase {
 public:
  using EncBase::EncBase;

  /// Opens the encoder that stream setup prepared. Ends the process with status 1 when it refuses, and throws
  /// std::string when there is no frame for it.
  void open_audio(AVFormatContext* oc, const AVCodec* codec, OutputStream* ost, const AVDictionary* opts,
                  const MovieInfo& info);

  /// Encodes one frame of the encoder's frame size; null gives out everything the encoder holds. The filter sees every
  /// packet before it is written. @return as VideoEnc::write_video_frame
  int write_audio_frame(AVFormatContext* oc, OutputStream* ost, AVFrame* frame);

  /// The filter stays the host's.
  void set_filter(FilterBase* filter) { m_filter = filter; }

  /// The next piece of the test tone, stamped in `tb`; owned by `ost`. Null when it cannot be made.
  AVFrame* get_audio_frame_test(OutputStream* ost, const AVRational& tb);

  /// A frame for `nb_samples` samples, without buffers when that is 0. Ends the process with status 1 when it fails.
  static FramePtr alloc_audio_frame(AVSampleFormat fmt, uint64_t channel_layout, int sample_rate, int nb_samples);

 private:
  int write_packet(OutputStream* ost, AVPacket* packet);
  int drain(OutputStream* ost, AVPacket* packet);
  void restart_tone(int sample_rate);
  void fill_tone(AVFrame* frame, int channels);

  std::atomic<FilterBase*> m_filter{nullptr};  // not owned; may be set while another thread pushes
  float m_t = 0;                               // phase of the test tone
  float m_tincr = 0;                           // phase step of a sample
  float m_tincr2 = 0;                          // increase of the step with each sample
};

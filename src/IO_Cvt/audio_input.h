#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "ReSample/qv_resample.h"
#include "common/ffmpeg_handles.h"
#include "meru/movie_info.h"

class IOCvt;

/// The audio half of IOCvt: wraps the host's PCM in frames, generates silence, aligns samples with their timestamps and
/// resamples them into frames of the encoder's size.
///
/// What it converts passes through the IOCvt's in_frame and out_frame. One thread at a time.
class AudioInput {
 public:
  /// @param cvt    converts and passes on
  /// @param owner  the MovieCapture2 that both belong to
  AudioInput(IOCvt* cvt, void* owner) : m_cvt(cvt), m_owner(owner) {}
  ~AudioInput();
  AudioInput(const AudioInput&) = delete;
  AudioInput& operator=(const AudioInput&) = delete;

  /// Sets up the conversion once the session has started. @return false when that failed, or was done before
  bool init(const MovieInfo& info);
  bool ready() const { return m_resample != nullptr; }

  int fill_pcm(void* data, int nbytes, long long pts);
  int fill_silence(long long dur, long long pts);
  int fill_frame(AVFrame* frame, const AVRational* tb);

  /// in_frame for audio. @return 1 when a frame was passed on, else 0
  int convert(const AVFrame* frame, const AVRational* tb);

  /// See IOCvt::realign_audio.
  void realign() { m_realign = true; }

  int64_t samples() const { return m_samples; }

  /// For the log of the IOCvt's destruction. @return whether there was one
  bool release_resampler();
  bool release_wrapper();

  /// See IOCvt::alloc_audio_pcm_frame.
  static FramePtr alloc_pcm_frame(const MovieInfo* info);

 private:
  int push(AVFrame* frame, const AVRational* tb);
  void align(AVFrame* frame, const AVRational* tb);
  int push_pcm(uint8_t* data, int nb_samples, long long pts);
  int push_silence(int64_t nb_samples, long long pts);

  IOCvt* m_cvt;
  void* m_owner;
  std::unique_ptr<MR::QVResample> m_resample;
  FramePtr m_pcm_frame;
  int m_rate = 0;  // of the host's PCM, as the members below
  int m_channels = 0;
  int m_sample_bytes = 0;
  AVSampleFormat m_format = AV_SAMPLE_FMT_NONE;
  std::vector<uint8_t> m_silence;
  std::atomic<int64_t> m_samples{0};
  bool m_realign = false;
};

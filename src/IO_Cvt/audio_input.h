#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ReSample/qv_resample.h"
#include "common/books.h"
#include "common/ffmpeg_handles.h"
#include "meru/movie_info.h"

class IOCvt;
class MovieCapture2;

/// The audio half of IOCvt: wraps the host's PCM in frames, generates silence, aligns samples with their timestamps and
/// resamples them into frames of the encoder's size. Keeps the session's accounts of both.
///
/// What it converts passes through the IOCvt's in_frame and out_frame. One thread at a time, but for
/// wait_for_silence().
class AudioInput {
 public:
  /// What happens to the next samples before they are taken.
  enum class Align {
    kNone,        ///< nothing: their count is their time, unless they are half a second or more away
    kAfterPause,  ///< a gap or an overlap of less than half a second is filled or cut
    kFirst        ///< as after a pause, and a gap of any length is filled
  };

  /// @param cvt    converts and passes on
  /// @param owner  the session that both belong to
  AudioInput(IOCvt* cvt, MovieCapture2* owner) : m_cvt(cvt), m_owner(owner) {}
  /// What was converted and is less than a frame of the encoder is dropped.
  ~AudioInput();
  AudioInput(const AudioInput&) = delete;
  AudioInput& operator=(const AudioInput&) = delete;

  /// Sets up the conversion once the session has started. @return false when that failed, or was done before
  bool init(const MovieInfo& info);
  bool ready() const { return m_resample != nullptr; }

  int fill_pcm(void* data, int nbytes, long long pts);
  /// Ends early when the session is being stopped.
  int fill_silence(long long dur, long long pts);
  int fill_frame(AVFrame* frame, const AVRational* tb);
  /// Accounts for samples that cannot be converted. @return 0
  int refuse(int64_t nb_samples);

  /// in_frame for audio. @return 1 when a frame was passed on, else 0
  int convert(const AVFrame* frame, const AVRational* tb);
  /// See MovieMuxer::set_audio_rest.
  AVFrame* take_rest();

  void align_next(Align how) { m_align = how; }
  /// Returns once no silence is being generated. Any thread.
  void wait_for_silence() { const std::lock_guard<std::mutex> lock(m_silence_mutex); }

  int64_t samples() const { return m_samples; }

  /// For the log of the IOCvt's destruction. @return whether there was one
  bool release_resampler();
  bool release_wrapper();

  /// See IOCvt::alloc_audio_pcm_frame.
  static FramePtr alloc_pcm_frame(const MovieInfo* info);

 private:
  MR::CaptureBooks& books() const;
  int64_t silence_at(int64_t nb_samples, long long* pts) const;
  void wrap(AVFrame* frame, uint8_t* data, int nb_samples, long long pts) const;
  int push(AVFrame* frame, const AVRational* tb);
  int push_aligned(AVFrame* frame, const AVRational* tb);
  int push_behind(int64_t overlap, AVFrame* frame, const AVRational* tb);
  int push_silence(int64_t nb_samples, long long pts);
  void account(int nb_samples);
  void drop_rest();
  int pass_on(AVFrame* out);
  void bridge(const AVFrame* out);

  IOCvt* m_cvt;
  MovieCapture2* m_owner;
  std::unique_ptr<MR::QVResample> m_resample;
  MR::QVResample::Counts m_accounted;  // of the resampler
  FramePtr m_pcm_frame;
  FramePtr m_silence_frame;
  int m_rate = 0;  // of the host's PCM, as the members below
  int m_channels = 0;
  int m_sample_bytes = 0;
  AVSampleFormat m_format = AV_SAMPLE_FMT_NONE;
  std::vector<uint8_t> m_silence;
  std::mutex m_silence_mutex;  // held while silence is generated
  bool m_silent = false;       // what is being converted was generated
  std::atomic<int64_t> m_samples{0};
  Align m_align = Align::kNone;
  int64_t m_passed_end = 0;  // of the frames passed on, in the encoder's time base
  bool m_passed_any = false;
};

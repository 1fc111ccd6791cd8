#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "IO_Cvt/audio_input.h"
#include "ReSample/qv_resample.h"
#include "common/books.h"
#include "common/ffmpeg_handles.h"
#include "meru/movie_info.h"

/// Wraps the host's buffers in frames, converts them to what the encoders take, and hands them to the muxer.
///
/// Audio comes from one thread and video from another at the same time: the two use different members, but for the
/// session's record, which a lock protects. The host's buffers are only borrowed for the duration of a call.
class IOCvt {
 public:
  /// @param owner  the MovieCapture2 that this belongs to; a null owner ends the process with status 1
  explicit IOCvt(void* owner);
  virtual ~IOCvt();
  IOCvt(const IOCvt&) = delete;
  IOCvt& operator=(const IOCvt&) = delete;

  /// Converts one frame stamped in `*tb` and hands on what comes out. @return the muxer's last result, 0 when nothing
  /// came out
  virtual int in_frame(bool video, AVFrame* frame, const AVRational* tb);
  /// Hands a converted frame, stamped in the encoder's time base, to the muxer. @return true
  virtual bool out_frame(bool video, AVFrame* frame, AVRational* tb);

  /// Sets up both directions as far as the session has started. @return whether video is ready
  bool init();
  bool init_resample();
  bool init_rescale();
  /// Takes a fresh copy of the session's record. @return whether the session has started
  bool update_movie_info();

  /// All times in microseconds of the stream. @return the result of in_frame, 0 when nothing could be done
  int fill_audio_pcm(void* data, int nbytes, long long pts);
  int fill_audio_silence(long long dur, long long pts);
  int fill_audio_frame(AVFrame* frame, const AVRational* tb);
  /// The owner's account of video frames is settled for each frame: that of the caller in `taken`, or one made here.
  int fill_video_bgra(void* data, int nbytes, long long pts, int linesize, MR::Taken* taken = nullptr);
  int fill_video_frame(AVFrame* frame, const AVRational* tb, MR::Taken* taken = nullptr);

  /// Before the next samples are taken, the audio so far is brought to exactly their time.
  void realign_audio(AudioInput::Align how = AudioInput::Align::kAfterPause) { m_audio.align_next(how); }
  /// See MovieMuxer::set_audio_rest.
  AVFrame* audio_rest() { return m_audio.take_rest(); }
  /// Returns once no silence is being generated. Any thread.
  void wait_for_silence() { m_audio.wait_for_silence(); }

  int64_t audio_samples() const { return m_audio.samples(); }
  int64_t video_frames() const { return m_video_frames; }

  /// Frames without buffers that describe the host's PCM and images; null when there is no memory.
  static FramePtr alloc_audio_pcm_frame(const MovieInfo* info);
  static FramePtr alloc_video_bgra_frame(const MovieInfo* info, int linesize);

 private:
  bool read_settings();
  bool ready_for_audio() { return m_audio.ready() || init_resample(); }
  bool ready_for_video() { return m_rescale != nullptr || init_rescale(); }
  template <class Push>
  int account_video(MR::Taken* taken, Push push);
  int in_video_frame(AVFrame* frame, const AVRational* tb);
  int push_image(void* data, int nbytes, long long pts, int linesize);
  int push_frame(AVFrame* frame, const AVRational* tb);
  int drop_video(MR::Drop reason);
  int drop_unready_video();

  void* m_owner;
  AudioInput m_audio;
  std::unique_ptr<MR::QVRescale> m_rescale;
  FramePtr m_bgra_frame;
  std::unique_ptr<MovieInfo> m_info;  // set once under m_info_mutex, constant while frames are converted
  std::mutex m_info_mutex;
  MR::Taken* m_video_taken = nullptr;  // of the frame that is being pushed
  std::atomic<int64_t> m_video_frames{0};
};

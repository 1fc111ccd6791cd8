#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "IO_Cvt/io_cvt.h"
#include "base/movie_muxer.h"
#include "capture/recording_clock.h"
#include "common/forked.h"
#include "common/status_relay.h"

/// The session behind a recording's handle: a muxer with a recording clock and the conversion of the host's buffers.
///
/// Video may be pushed from one thread and audio from another; pause, resume and the read-outs come from any thread.
class MovieCapture2 : public MovieMuxer, public OfThisProcess {
 public:
  /// @param writer  owned by the session from here on
  explicit MovieCapture2(BaseWriter* writer);
  ~MovieCapture2() override;

  /// As MovieMuxer::start; the messages of the muxer and of the writer reach `cb`, which may be null.
  int start(MovieInfo info, MovieStatusCallback cb, void* user, bool async);
  bool stop();

  bool pause();
  bool resume();
  bool is_paused() const { return m_clock.is_paused(); }
  long long movieTime() const;

  /// The session's record; a copy, because a start may be replacing it.
  MovieInfo mInfo(bool* started) const;

  /// Brings the first audio that is taken to exactly its timestamp, where it else begins with time 0 when it is less
  /// than half a second away. To be set before start().
  void align_first_audio(bool on) { m_align_first_audio = on; }

  /// Pushes what the host gave, stamped on the library clock. A null `pcm` asks for silence up to `pts_usec`.
  /// @return nonzero when taken, 0 when dropped
  int fill_video_frame(void* bgra, int nbytes, long long pts_usec, int linesize);
  int fill_audio_frame(void* pcm, int nbytes, long long pts_usec);
  int fill_video_frame(AVFrame* frame, const AVRational& tb);
  int fill_audio_frame(AVFrame* frame, const AVRational& tb);

  bool video_disabled() const { return no_video(); }
  bool audio_disabled() const { return no_audio(); }
  /// Accounts for PCM that is pushed although the record has no audio.
  void drop_disabled_audio(const void* pcm, int nbytes);
  /// How many whole samples of the record's PCM that many bytes hold.
  int64_t samples_in(int nbytes) const;

  bool is_started() const { return m_start_ok; }

  /// Null before start().
  std::shared_ptr<StatusRelay> relay() const { return m_relay; }

 private:
  static void writer_callback(int id, const char* text, void* ctx);
  static void statu_callback(int id, const char* text, void* ctx);

  void note_status(int id, const char* text);
  bool accepts_frames() const;
  bool accepts_samples(int64_t count);
  template <class Push>
  int push_samples(int64_t count, const Push& push);
  bool accepts_video(MR::Taken* taken) const;
  IOCvt* iocvt();
  IOCvt* iocvt_for_samples();
  AVFrame* audio_rest();

  std::atomic<bool> m_start_ok{false};
  RecordingClock m_clock;
  std::atomic<int64_t> m_last_audio_pts{0};
  std::atomic<int64_t> m_last_video_pts{0};
  std::unique_ptr<IOCvt> m_iocvt;  // made under m_iocvt_mutex by the first push
  std::mutex m_iocvt_mutex;
  std::atomic<bool> m_resumed{false};  // the next audio is the first after a pause
  bool m_align_first_audio = false;
  std::atomic<bool> m_first_audio{false};  // the next audio is the first, and to be aligned
  std::atomic<int> m_sample_bytes{0};      // of the record's PCM, 0 when that has no such format
  std::atomic<int> m_channels{0};
  std::shared_ptr<StatusRelay> m_relay;
};

#pragma once

#include <atomic>

#include "base/movie_muxer.h"

/// A bare session for hosts that push frames in the encoders' formats straight to the muxer: no clock, no conversion.
class MovieConvert : public MovieMuxer {
 public:
  explicit MovieConvert(BaseWriter* writer);

  int start(const MovieInfo& info, MovieStatusCallback cb, void* user, bool async);
  bool stop();
  MovieInfo mInfo(bool* started) const;

  /// As MovieMuxer::write_video_frame and write_audio_frame.
  using MovieMuxer::write_audio_frame;
  using MovieMuxer::write_video_frame;

 private:
  static void s_writer_call_back(int type, const char* describ, void* ctx);
  static void statu_callback(int id, const char* text, void* ctx);
  void writer_call_back(int type, const char* describ);
  void forward(int id, const char* text);

  MovieStatusCallback m_cb = nullptr;
  void* m_user = nullptr;
  std::atomic<bool> m_start_ok{false};
};

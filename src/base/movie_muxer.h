#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "base/audio_enc.h"
#include "base/base_writer.h"
#include "base/start_ctx.h"
#include "base/video_enc.h"
#include "common/books.h"
#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"
#include "meru/movie_info.h"

class Snapshot;

/// Owns the packet writer of a recording.
class MovieBase {
 public:
  /// @param writer  owned from here on; null makes a plain BaseWriter
  explicit MovieBase(BaseWriter* writer);
  virtual ~MovieBase();
  MovieBase(const MovieBase&) = delete;
  MovieBase& operator=(const MovieBase&) = delete;

 protected:
  std::unique_ptr<BaseWriter> m_writer;
};

/// Turns frames into one output: chooses the container, sets up streams and encoders, opens the output and the side
/// index, encodes, and closes everything in order.
///
/// Frames come from one thread for each stream; start and stop from one thread. Flags cross the threads as atomics;
/// everything that the start creates is handed over by clearing `m_blocked`.
class MovieMuxer : public MovieBase {
 public:
  explicit MovieMuxer(BaseWriter* writer);
  ~MovieMuxer() override;

  /// Starts the output; the outcome arrives through `cb`, which may be null.
  /// @param async      open the output on a thread of its own and return at once
  /// @param keep_user  keeps `user` alive as long as the start may call back
  /// @return 0
  int start(const MovieInfo& info, MovieStatusCallback cb, void* user, bool async,
            std::shared_ptr<void> keep_user = nullptr);

  /// Encodes what is pending and closes the output. While the start still runs it only tells it to give up: the start
  /// then closes what it opened. @return 1
  int stop();

  /// Before the start: with a side index, a killed process is to lose little more than this much of what was pushed,
  /// whatever the preset and the frame rate. 0, as without a call, leaves the encoder its delay.
  void limit_encoder_delay(int64_t usec) { m_delay_limit_usec = usec; }

  /// Hands the muxer's destruction to a start routine that stop() has found running.
  /// @return false when there is none, or it has ended meanwhile; `destroy` is not kept then
  bool leave_to_start(std::function<void()> destroy);

  /// Encodes one frame; null drains the encoder. `tb` is the time base of the frame's stamp, null when it is the
  /// encoder's. Video stamps must rise. @return the encoder's result, 0 when the frame was dropped
  /// @param taken  the caller's account of this frame, settled here; null when the frame is yet to be counted
  int write_video_frame(AVFrame* frame, const AVRational* tb, MR::Taken* taken = nullptr);
  int write_audio_frame(AVFrame* frame, const AVRational* tb);
  /// As write_audio_frame, for samples that the books count as taken already.
  int encode_audio_frame(AVFrame* frame, const AVRational* tb);

  /// @return false when there is no such encoder; the filter is not taken then
  bool add_audio_filter(FilterBase* filter);
  bool add_video_filter(FilterBase* filter);

  AVFrame* get_testing_vframe(const AVRational& tb);
  AVFrame* get_testing_aframe(const AVRational& tb);

  /// The encoders' input frames; null before the start has succeeded or without the stream.
  AVFrame* audio_dst_frame() const;
  AVFrame* video_dst_frame() const;
  /// Time of the last encoded audio frame, else of the last video frame, in microseconds; negative when there is none.
  int64_t last_usec_pts() const;

  MR::CaptureBooks& books() { return m_books; }

  void flushEncoder(AVFormatContext* oc);
  void close_stream(AVFormatContext* oc, OutputStream* ost);

  /// Creates a stream of `oc` with an encoder that is set up from `info`, but not open. Values of `info` that the
  /// encoder does not support are replaced. Ends the process with status 1 when there is no encoder or no stream.
  void add_stream(OutputStream* ost, AVFormatContext* oc, const AVCodec** codec, AVCodecID codec_id, MovieInfo* info);

 protected:
  /// The record as given to start(), and from "start OK" on with what the encoders made of it.
  MovieInfo info_copy() const;
  /// Gives what the conversion still holds when the recording ends, frame by frame, then null. To be set before
  /// start().
  void set_audio_rest(std::function<AVFrame*()> next) { m_audio_rest = std::move(next); }
  bool no_video() const { return m_no_video; }
  bool no_audio() const { return m_no_audio; }

 private:
  friend struct StartCtx;

  struct OpenedStreams {
    std::unique_ptr<VideoEnc> video;
    std::unique_ptr<AudioEnc> audio;
  };

  void start_thread_running(MovieInfo info, StartCtx* ctx);
  static void check_record(const MovieInfo& info);
  void make_context(const MovieInfo& info);
  void set_network_options(const MovieInfo& info);
  OpenedStreams create_streams(MovieInfo* info);
  void open_streams(OpenedStreams opened, const MovieInfo& info);
  [[noreturn]] static void throw_exited();
  void open_io(const MovieInfo& info);
  void open_snapshot(const MovieInfo& info);
  void write_header(const MovieInfo& info);
  void accept_frames(const MovieInfo& info, StartCtx* ctx);
  int encode_video(AVFrame* frame, const AVRational* tb, MR::Taken* taken);
  void close_output();
  void publish_books() const;
  void limit_outputs();
  void encode_audio_rest(AVFormatContext* oc);
  int encode_counted(AVFormatContext* oc, AVFrame* frame);

  MR::CaptureBooks m_books;
  std::function<AVFrame*()> m_audio_rest;
  std::unique_ptr<AudioEnc> m_audio_enc;
  std::unique_ptr<VideoEnc> m_video_enc;
  OutputStream m_video_st;
  OutputStream m_audio_st;
  std::unique_ptr<meru_compat::OutputFormatCopy> m_oformat;
  FormatContextPtr m_oc;
  const AVCodec* m_audio_codec = nullptr;
  const AVCodec* m_video_codec = nullptr;
  int m_have_video = 0;
  int m_have_audio = 0;
  int m_encode_video = 0;
  int m_encode_audio = 0;
  DictionaryPtr m_opt;
  MovieInfo m_info{};  // guarded by m_info_mutex
  mutable std::mutex m_info_mutex;
  bool m_no_video = false;  // of the record, constant once the start has begun
  bool m_no_audio = false;
  std::atomic<bool> m_blocked{true};
  std::atomic<int64_t> m_last_v_pts{-1};
  std::atomic<int64_t> m_last_a_pts{-1};
  int64_t m_delay_limit_usec = 0;
  bool m_network = false;  // an output is a live stream, so FFmpeg's networking is in use
  std::shared_ptr<StartCtx> m_start_ctx;
  std::unique_ptr<Snapshot> m_snapshot;
};

/// Whether a side index is asked for, and can be had.
bool has_side_index(const MovieInfo& info);

/// The container for an output: "flv" for RTMP, "rtsp" for RTSP, else what the file name says, else "mp4". A private
/// copy, because the start changes its default codecs. Throws MR::MRException (12) when there is none.
std::unique_ptr<meru_compat::OutputFormatCopy> guess_format(const MovieInfo& info);

#pragma once

#include <cstdint>

#include "base/base_writer.h"
#include "meru/movie_info.h"
#include "meru/recording.h"

/// A stream of the output with its encoder and the frames that feed it.
struct OutputStream {
  AVStream* st = nullptr;  ///< owned by the output context
  CodecContextPtr enc;     ///< our own; copied to the stream's parameters once it is open
  int64_t next_pts = 0;    ///< test frames (video) or samples (audio) made so far
  FramePtr frame;          ///< a frame in the encoder's format, shared with the converters
  FramePtr tmp_frame;      ///< the test source's frame
};

/// What one call of an encoder gave.
struct EncodeResult {
  int error = 0;            ///< negative FFmpeg error
  bool got_packet = false;  ///< `packet` holds one
  bool accepted = false;    ///< the encoder has taken the frame
};

/// Result of writing a frame: the writer refused the packet.
constexpr int kPacketRefused = -3;

/// What the audio and the video encoder share.
class EncBase {
 public:
  explicit EncBase(BaseWriter* writer);
  virtual ~EncBase() = default;
  EncBase(const EncBase&) = delete;
  EncBase& operator=(const EncBase&) = delete;

 protected:
  /// Opens the encoder of `ost` with a copy of `opts` and copies its parameters to the stream.
  /// @return 0 or a negative FFmpeg error
  static int open_encoder(const AVCodec* codec, OutputStream* ost, const AVDictionary* opts);
  /// Gives the encoder one frame, or null to drain it, and takes one packet at most, which may be an earlier frame's.
  static EncodeResult encode(AVCodecContext* enc, const AVFrame* frame, AVPacket* packet);

  MovieInfo m_info{};
  BaseWriter* m_writer;  // owned by the muxer
};

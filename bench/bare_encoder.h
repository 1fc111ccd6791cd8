#pragma once

#include <string>

#include "common/ffmpeg_handles.h"
#include "settings.h"

namespace meru_bench {

/// FFmpeg's encoder and muxer with nothing around them: each frame is sent, the packets that come are written, all on
/// one thread. Every failure throws std::runtime_error.
class BareEncoder {
 public:
  BareEncoder(const std::string& path, const Settings& settings);
  ~BareEncoder();
  BareEncoder(const BareEncoder&) = delete;
  BareEncoder& operator=(const BareEncoder&) = delete;

  /// Null ends the stream.
  void push(const AVFrame* frame);
  /// Completes the movie.
  void finish();

 private:
  void open_encoder(const Settings& settings);

  FormatContextPtr m_output;
  CodecContextPtr m_encoder;
  PacketPtr m_packet;
};

}  // namespace meru_bench

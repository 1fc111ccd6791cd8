#pragma once

#include "common/ffmpeg_handles.h"

/// Sends the last frames of AAC on their way over RTSP.
///
/// FFmpeg packs several frames of AAC into one RTP packet, and sends it when a further frame no longer fits or comes
/// too late for it; what waits when the stream ends is never sent. So a frame that is far too late is written behind
/// the last one, and is what stays behind.
class RtspTail {
 public:
  /// @param ctx  an output, not owned; nothing is done for one that is not RTSP
  explicit RtspTail(AVFormatContext* ctx);

  /// Remembers a packet that is about to be written.
  void note(const AVPacket* packet);
  /// Call behind the last packet. @return 0 or a negative error
  int push_out();

 private:
  AVFormatContext* m_ctx;  // null when nothing is to be done
  PacketPtr m_last;
};

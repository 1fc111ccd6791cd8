#pragma once

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

/// Watches the seeks of an output while its trailer is written. Muxers go back to fill in sizes and do not look at
/// whether they got there: what follows would be written over packets, or at the end, and the movie be called complete.
/// Behind a seek that failed nothing more is written, and the output has that error.
///
/// One at a time on a thread, which must be the one that writes: FFmpeg's functions are told apart by nothing else, as
/// what they are given belongs to FFmpeg.
class CheckedSeeks {
 public:
  /// @param io  stays its owner's and must outlive this; nothing is done for null and for an output that cannot seek
  explicit CheckedSeeks(AVIOContext* io);
  ~CheckedSeeks();
  CheckedSeeks(const CheckedSeeks&) = delete;
  CheckedSeeks& operator=(const CheckedSeeks&) = delete;

 private:
  static int64_t seek(void* opaque, int64_t offset, int whence);
  static int write(void* opaque, meru_compat::WrittenByte* bytes, int size);

  static thread_local CheckedSeeks* s_current;

  AVIOContext* m_io;  // null when nothing is done
  decltype(AVIOContext::seek) m_seek = nullptr;
  decltype(AVIOContext::write_packet) m_write = nullptr;
  int64_t m_error = 0;  // of the first seek that failed
};

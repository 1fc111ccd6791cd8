#pragma once

#include <cstdint>

#include "common/ffmpeg_handles.h"

/// Has the file system set room aside for a file that grows, up to 32 MiB ahead. Left alone it looks for room at each
/// write, which takes nearly as long as copying the bytes. The file's size stays that of what is written, and what was
/// set aside in vain is given back at the end, or as soon as the disk has little left.
///
/// One thread, the one that writes. Nothing happens for outputs that are no regular file, for those that stay below
/// 32 MiB, and where the system or the file system has no such thing.
class RoomAhead {
 public:
  /// @param output  with its I/O open until this is destroyed, not owned; may be null
  explicit RoomAhead(const AVFormatContext* output);
  ~RoomAhead();
  RoomAhead(const RoomAhead&) = delete;
  RoomAhead& operator=(const RoomAhead&) = delete;

  /// To be called now and then, as the output is written.
  void follow();

#ifdef __linux__
 private:
  bool open_again();
  bool disk_has_plenty() const;
  void set_aside(int64_t written);
  void give_back();

  const AVFormatContext* m_output;  // null: there is nothing more to be set aside
  // Of our own, since FFmpeg keeps its to itself. Closed at the end alone: others may watch the file for that.
  int m_fd = -1;
  int64_t m_end = 0;  // of what is set aside; 0 when nothing is
#endif
};

#pragma once

#include <string>

#include "common/ffmpeg_handles.h"

namespace meru_bench {

/// A file of YUV420P images without gaps, one after another.
class YuvFile {
 public:
  /// Throws std::runtime_error when the file cannot be opened.
  YuvFile(const std::string& path, int width, int height);

  /// @return the next image, its `pts` counted from 0; valid until the next call. Null at the end
  AVFrame* next();

 private:
  bool read_plane(int plane, int width, int height);

  FilePtr m_file;
  FramePtr m_frame;
  int64_t m_count = 0;
};

}  // namespace meru_bench

#pragma once

#include "common/ffmpeg_handles.h"

/// Keeps libswscale inside a host's image. Its loops read up to a vector beyond the end of a row, which is harmless in
/// all rows but the last: a host's buffer may end there, at a page that cannot be read.
class PaddedSource {
 public:
  /// @param dst_width  of the image that `src` is converted to
  /// @return `src` where it can be read safely, otherwise a copy with padded rows, valid until the next call. Null when
  ///         out of memory
  const AVFrame* readable(const AVFrame* src, int dst_width);

 private:
  bool copy(const AVFrame* src);

  FramePtr m_copy;
};

#pragma once

#include <memory>
#include <vector>

#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavcodec/bsf.h>
}

namespace MR {

/// Puts parameter sets into the key frames of an output that stores none apart from its packets, where the encoder
/// keeps them apart because another output wants them so. One thread.
class InBandExtradata {
 public:
  /// @param ctx  with its header written; not owned; null does nothing
  explicit InBandExtradata(const AVFormatContext* ctx);

  /// @return 0 or a negative FFmpeg error
  int add_to(AVPacket* packet);

 private:
  using FilterPtr = std::unique_ptr<AVBSFContext, FreeBy<av_bsf_free>>;
  static FilterPtr make_filter(const AVStream* st);

  std::vector<FilterPtr> m_filters;  // by stream; null where nothing is added
};

}  // namespace MR

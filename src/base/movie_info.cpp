#include "meru/movie_info.h"

#include "base/stream_url.h"

bool MovieInfo_::hasRtmpStream() const {
  if (MR::isRtmpStream(url)) return true;
  for (const char* other : other_urls) {
    if (other == nullptr) return false;
    if (MR::isRtmpStream(other)) return true;
  }
  return false;
}

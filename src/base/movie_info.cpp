#include "meru/movie_info.h"

#include "base/MR_AVWriter.h"

bool MovieInfo_::hasRtmpStream() const {
  if (MR::isRtmpStream(url)) return true;
  for (const char* other : other_urls) {
    if (other == nullptr) return false;
    if (MR::isRtmpStream(other)) return true;
  }
  return false;
}

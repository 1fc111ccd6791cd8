#include "raw_packets/adts.h"

#include <cstring>

extern "C" {
#include <libavcodec/adts_parser.h>
#include <libavcodec/avcodec.h>
}

namespace {

/// After so many pushes of whole frames, one that is none is damage and not part of a frame.
constexpr int64_t kConvincing = 3;

}  // namespace

bool is_adts_header(const uint8_t* bytes, size_t count) {
  if (count < AV_AAC_ADTS_HEADER_SIZE || bytes[0] != 0xff) return false;
  // Some versions of the parser look at a few bytes behind the header.
  uint8_t header[AV_AAC_ADTS_HEADER_SIZE + AV_INPUT_BUFFER_PADDING_SIZE] = {};
  std::memcpy(header, bytes, AV_AAC_ADTS_HEADER_SIZE);
  uint32_t samples = 0;
  uint8_t blocks = 0;
  return av_adts_header_parse(header, &samples, &blocks) >= 0;
}

int adts_frame_size(const uint8_t* header) { return (header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5; }

void AdtsGuard::check(uint8_t* data, size_t size) {
  if (m_parts) return;
  size_t at = 0;
  size_t last = 0;  // where the last frame begins whose length was believed
  while (at < size && is_adts_header(data + at, size - at)) {
    last = at;
    const auto length = static_cast<size_t>(adts_frame_size(data + at));
    if (length < AV_AAC_ADTS_HEADER_SIZE || length > size - at) break;
    at += length;
  }
  if (at == size) {
    ++m_whole;
    return;
  }
  if (m_whole < kConvincing) {
    m_parts = true;
    return;
  }
  std::memset(data + last, 0, size - last);
}

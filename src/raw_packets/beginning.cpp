#include "raw_packets/beginning.h"

#include <cstring>

extern "C" {
#include <libavcodec/adts_parser.h>
#include <libavcodec/avcodec.h>
}

namespace {

bool is_frame_header(const uint8_t* bytes, size_t count) {
  if (count < AV_AAC_ADTS_HEADER_SIZE || bytes[0] != 0xff) return false;
  // Some versions of the parser look at a few bytes behind the header.
  uint8_t header[AV_AAC_ADTS_HEADER_SIZE + AV_INPUT_BUFFER_PADDING_SIZE] = {};
  std::memcpy(header, bytes, AV_AAC_ADTS_HEADER_SIZE);
  uint32_t samples = 0;
  uint8_t blocks = 0;
  return av_adts_header_parse(header, &samples, &blocks) >= 0;
}

}  // namespace

Beginning::Beginning(const char* format) : m_medium(Medium::kUnknown) {
  if (std::strcmp(format, "h264") == 0) m_medium = Medium::kPictures;
  if (std::strcmp(format, "aac") == 0) m_medium = Medium::kSound;
}

void Beginning::read(const uint8_t* bytes, size_t count) {
  const auto found = [&](size_t i) {
    return m_medium == Medium::kSound ? is_frame_header(bytes + i, count - i) : read_picture(bytes[i]);
  };
  if (m_medium == Medium::kUnknown) return;
  for (size_t i = 0; i < count && m_medium != Medium::kNone; ++i) {
    if (found(i)) m_medium = Medium::kNone;
  }
}

/// @return whether a picture begins behind its parameter sets
bool Beginning::read_picture(uint8_t byte) {
  m_last = m_last << 8 | byte;
  if (m_last >> 8 != 1) return false;  // no start code before this byte
  const int type = byte & 0x1f;
  m_sequence_set = m_sequence_set || type == 7;
  m_picture_set = m_picture_set || type == 8;
  return (type == 1 || type == 5) && m_sequence_set && m_picture_set;
}

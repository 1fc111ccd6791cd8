#include "raw_packets/beginning.h"

#include <cstring>

#include "raw_packets/adts.h"

Beginning::Beginning(const char* format) : m_medium(Medium::kUnknown) {
  if (std::strcmp(format, "h264") == 0) m_medium = Medium::kPictures;
  if (std::strcmp(format, "aac") == 0) m_medium = Medium::kSound;
}

void Beginning::read(const uint8_t* bytes, size_t count) {
  const auto found = [&](size_t i) {
    return m_medium == Medium::kSound ? is_adts_header(bytes + i, count - i) : read_picture(bytes[i]);
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

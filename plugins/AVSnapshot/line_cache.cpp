#include "AVSnapshot/line_cache.h"

#include <charconv>
#include <system_error>

void LineCache::write_int64(long long value, char sep) {
  char* const end = m_text.data() + kCapacity - 1;  // the last byte is the terminator's
  char* at = m_text.data() + m_size;
  if (value != 0) {
    const std::to_chars_result written = std::to_chars(at, end, value);
    if (written.ec == std::errc()) at = written.ptr;
  }
  if (at < end) *at++ = sep;
  *at = '\0';
  m_size = static_cast<size_t>(at - m_text.data());
}

void LineCache::reset() {
  m_size = 0;
  m_text[0] = '\0';
}

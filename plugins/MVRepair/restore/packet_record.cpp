#include "MVRepair/restore/packet_record.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kFields = 7;
using Fields = std::array<int64_t, kFields>;

/// Reads a decimal number. @return the text behind it; null when there is none, or none of 64 bits
const char* read_number(const char* text, int64_t* value) {
  char* end = nullptr;
  errno = 0;
  *value = strtoll(text, &end, 10);
  return end != text && errno == 0 ? end : nullptr;
}

bool is_int(int64_t value) { return value >= INT_MIN && value <= INT_MAX; }

bool to_record(const Fields& fields, PacketRecord* record) {
  if (!is_int(fields[0]) || !is_int(fields[2]) || !is_int(fields[6])) return false;
  record->stream_index = static_cast<int>(fields[0]);
  record->position = fields[1];
  record->size = static_cast<int>(fields[2]);
  record->pts_delta = fields[3];
  record->dts_delta = fields[4];
  record->duration = fields[5];
  record->key_flag = static_cast<int>(fields[6]);
  return true;
}

bool ends_line(char c) { return c == '\0' || c == '\n' || c == '\r'; }

char separator_of(size_t field) { return field + 1 < kFields ? ',' : ';'; }

}  // namespace

bool RecordReader::next(PacketRecord* record) {
  if (ends_line(*m_next)) return false;
  const bool parsed = m_version == 1 ? parse_v1(record) : parse_v2(record);
  if (!parsed) m_damaged = m_next;
  const char* end = parsed ? strchr(m_next, ';') : nullptr;
  m_next = end != nullptr ? end + 1 : m_next + strlen(m_next);
  return parsed;
}

/// Every field is written; a record of which only the first fields can be read counts, with zeros for the others.
bool RecordReader::parse_v1(PacketRecord* record) const {
  Fields fields{};
  const char* at = m_next;
  size_t read = 0;
  while (read < kFields) {
    at = read_number(at, &fields[read]);
    if (at == nullptr) {
      fields[read] = 0;
      break;
    }
    if (*at++ != separator_of(read++)) break;
  }
  return read > 0 && to_record(fields, record);
}

/// A field of value 0 is empty. A record that ends before its last field was cut and does not count; one that lacks
/// nothing but the closing semicolon does.
bool RecordReader::parse_v2(PacketRecord* record) const {
  Fields fields{};
  const char* at = m_next;
  for (size_t i = 0; i < kFields; ++i, ++at) {
    if (*at == separator_of(i)) continue;
    if (ends_line(*at)) return false;  // also because reading a number would skip a line feed
    at = read_number(at, &fields[i]);
    if (at == nullptr) return false;
    if (i + 1 == kFields && ends_line(*at)) break;
    if (*at != separator_of(i)) return false;
  }
  return to_record(fields, record);
}

#include "raw_packets/start_codes.h"

#include "common/extradata.h"

namespace {

constexpr size_t kLengthSize = 4;
constexpr uint8_t kLastNalType = 23;

bool begins_with_start_code(const uint8_t* data, size_t size) {
  size_t zeros = 0;
  while (zeros < size && data[zeros] == 0) ++zeros;
  return zeros >= 2 && zeros < size && data[zeros] == 1;
}

/// An avcC record: version, profile, compatibility, level, then bits that are all set.
bool is_parameter_record(const uint8_t* data, size_t size) {
  return size >= 7 && data[0] == 1 && (data[4] & 0xfc) == 0xfc && (data[5] & 0xe0) == 0xe0;
}

/// @return whether the lengths lead from one NAL unit to the next and to the end
bool lengths_fit(const uint8_t* data, size_t size) {
  size_t at = 0;
  while (size - at > kLengthSize) {
    size_t length = 0;
    for (size_t i = 0; i < kLengthSize; ++i) length = length << 8 | data[at + i];
    at += kLengthSize;
    const uint8_t header = data[at];
    const uint8_t type = header & 0x1f;
    if ((header & 0x80) != 0 || type == 0 || type > kLastNalType) return false;
    if (length == 0 || length > size - at) return false;
    at += length;
  }
  return at == size && size > 0;
}

}  // namespace

std::string with_long_start_codes(const std::string& annex_b) {
  const std::string code("\0\0\1", 3);
  std::string out;
  size_t copied = 0;
  for (size_t at = annex_b.find(code); at != std::string::npos; at = annex_b.find(code, at + code.size())) {
    out.append(annex_b, copied, at - copied);
    if (at == 0 || annex_b[at - 1] != '\0') out.push_back('\0');
    copied = at;
  }
  return out.append(annex_b, copied, std::string::npos);
}

int lengthen_start_codes(AVCodecParameters* par) {
  const bool annex_b = par->codec_id == AV_CODEC_ID_H264 && par->extradata_size > 3 && par->extradata[0] == 0;
  if (!annex_b) return 0;
  const std::string longer =
      with_long_start_codes({reinterpret_cast<const char*>(par->extradata), static_cast<size_t>(par->extradata_size)});
  return set_extradata(par, longer);
}

bool looks_length_prefixed(const uint8_t* data, size_t size) {
  if (begins_with_start_code(data, size)) return false;
  return is_parameter_record(data, size) || lengths_fit(data, size);
}

bool begins_sequence(const uint8_t* data, size_t size) {
  uint32_t last = ~uint32_t{0};
  for (size_t i = 0; i < size; ++i) {
    last = last << 8 | data[i];
    if (last >> 8 != 1) continue;  // no start code before this byte
    const uint32_t type = last & 0x1f;
    if (type == 1 || type == 5) return type == 5;
  }
  return false;
}

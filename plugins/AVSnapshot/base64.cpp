#include "AVSnapshot/base64.h"

#include <cstdint>

bool Base64::Encode(const std::string& in, std::string& out) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out.clear();
  out.reserve(EncodedLength(in.size()));
  for (size_t i = 0; i < in.size(); i += 3) {
    const size_t left = in.size() - i;
    const auto byte = [&](size_t k) { return k < left ? static_cast<uint32_t>(static_cast<uint8_t>(in[i + k])) : 0U; };
    const uint32_t group = byte(0) << 16 | byte(1) << 8 | byte(2);
    out += kAlphabet[group >> 18];
    out += kAlphabet[group >> 12 & 63];
    out += left > 1 ? kAlphabet[group >> 6 & 63] : '=';
    out += left > 2 ? kAlphabet[group & 63] : '=';
  }
  return true;
}

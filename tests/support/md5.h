#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

namespace meru_test {

/// The MD5 of some bytes as lower-case digits, to be compared with what ffprobe prints.
inline std::string md5(std::string bytes) {
  const uint64_t bits = bytes.size() * 8;
  bytes += '\x80';
  while (bytes.size() % 64 != 56) bytes += '\0';
  for (unsigned i = 0; i < 8; ++i) bytes += static_cast<char>(bits >> (8 * i) & 0xff);

  static const auto table = [] {
    std::array<uint32_t, 64> values{};
    for (size_t i = 0; i < 64; ++i) {
      values[i] = static_cast<uint32_t>(std::floor(std::fabs(std::sin(static_cast<double>(i + 1))) * 4294967296.0));
    }
    return values;
  }();
  static constexpr unsigned kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  std::array<uint32_t, 4> sum = {0x67452301U, 0xefcdab89U, 0x98badcfeU, 0x10325476U};
  for (size_t at = 0; at < bytes.size(); at += 64) {
    std::array<uint32_t, 16> block{};
    for (size_t i = 0; i < 64; ++i) block[i / 4] |= uint32_t{static_cast<uint8_t>(bytes[at + i])} << (8 * (i % 4));
    auto [a, b, c, d] = sum;
    for (size_t i = 0; i < 64; ++i) {
      const size_t round = i / 16;
      const uint32_t mixed[] = {(b & c) | (~b & d), (d & b) | (~d & c), b ^ c ^ d, c ^ (b | ~d)};
      const size_t word[] = {i, 5 * i + 1, 3 * i + 5, 7 * i};
      const uint32_t turned = a + mixed[round] + table[i] + block[word[round] % 16];
      const unsigned shift = kShift[round][i % 4];
      a = d;
      d = c;
      c = b;
      b += turned << shift | turned >> (32 - shift);
    }
    sum = {sum[0] + a, sum[1] + b, sum[2] + c, sum[3] + d};
  }
  std::string digits;
  for (const uint32_t word : sum) {
    for (unsigned i = 0; i < 4; ++i) {
      char text[3];
      std::snprintf(text, sizeof(text), "%02x", word >> (8 * i) & 0xff);
      digits += text;
    }
  }
  return digits;
}

}  // namespace meru_test

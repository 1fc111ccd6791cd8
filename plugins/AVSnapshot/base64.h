#pragma once

#include <cstddef>
#include <string>

/// Base64 as RFC 4648 has it, padded, without line breaks.
class Base64 {
 public:
  /// Replaces `out` by the encoding of `in`. @return true
  static bool Encode(const std::string& in, std::string& out);
  /// The length of the encoding of `n` bytes.
  static size_t EncodedLength(size_t n) { return (n + 2) / 3 * 4; }
};

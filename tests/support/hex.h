#pragma once

#include <cstdio>
#include <string>

namespace meru_test {

/// The bytes as lower-case digits.
inline std::string hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char digits[3];
    snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

}  // namespace meru_test

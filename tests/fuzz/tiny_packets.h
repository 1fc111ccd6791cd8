#pragma once

#include <string>

namespace meru_fuzz {

/// A grey picture of 16x16, as an access unit with its parameter sets.
inline std::string picture() {
  static constexpr char kBytes[] =
      "\0\0\0\1\x09\x10\0\0\0\1\x67\x42\xc0\x0a\xda\x7b\x01\x10\0\0\x03\0\x10\0\0\x03\x01\x40\xf1\x22\x6a"
      "\0\0\0\1\x68\xce\x0f\xc8\0\0\1\x65\x88\x84\x3a\x26\x28\x0e";
  return {kBytes, sizeof(kBytes) - 1};
}

/// A frame of silence with its ADTS header.
inline std::string silence() {
  static constexpr char kBytes[] = "\xff\xf1\x4c\x40\x01\x7f\xfc\x01\x18\x20\x07";
  return {kBytes, sizeof(kBytes) - 1};
}

}  // namespace meru_fuzz

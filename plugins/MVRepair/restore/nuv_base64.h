#pragma once

#include <string>

namespace nuv {

/// Base64 on the repair's side, where what is decoded comes from a file that may be damaged.
class Base64 {
 public:
  static std::string encode(const std::string& in);
  /// @return the decoded bytes; nothing when the input is not Base64
  static std::string decode(const std::string& in);
};

}  // namespace nuv

namespace pri_ {

/// Decodes the terminated text `in` into at most `out_size` bytes. @return the bytes written, negative on invalid input
int av_base64_decode(unsigned char* out, const char* in, int out_size);

}  // namespace pri_

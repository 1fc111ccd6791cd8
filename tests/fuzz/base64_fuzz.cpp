// The Base64 decoder on any text and into buffers of any size, and what the encoder makes of any bytes.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "AVSnapshot/base64.h"
#include "MVRepair/restore/nuv_base64.h"
#include "fuzz/fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  meru_fuzz::require(nuv::Base64::decode(bytes).size() <= 3 * size / 4, "no more comes out than goes in");

  // A buffer on its own, so that a byte too many is seen.
  const size_t room = size > 0 ? data[0] : 0;
  std::vector<uint8_t> out(room);
  const int written = pri_::av_base64_decode(out.data(), bytes.c_str(), static_cast<int>(room));
  meru_fuzz::require(written <= static_cast<int>(room), "the buffer is kept to");

  const std::string text = nuv::Base64::encode(bytes);
  meru_fuzz::require(text.size() == Base64::EncodedLength(size), "the length is the one announced");
  meru_fuzz::require(nuv::Base64::decode(text) == bytes, "bytes come back");
  return 0;
}

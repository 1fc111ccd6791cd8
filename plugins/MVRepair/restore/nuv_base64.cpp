#include "MVRepair/restore/nuv_base64.h"

#include <climits>

#include "AVSnapshot/base64.h"

extern "C" {
#include <libavutil/base64.h>
}

namespace pri_ {

int av_base64_decode(unsigned char* out, const char* in, int out_size) { return ::av_base64_decode(out, in, out_size); }

}  // namespace pri_

namespace nuv {

std::string Base64::encode(const std::string& in) {
  std::string out;
  ::Base64::Encode(in, out);
  return out;
}

std::string Base64::decode(const std::string& in) {
  if (in.size() > INT_MAX / 3) return {};
  std::string out(3 * in.size() / 4, '\0');
  const int size =
      pri_::av_base64_decode(reinterpret_cast<unsigned char*>(out.data()), in.c_str(), static_cast<int>(out.size()));
  out.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return out;
}

}  // namespace nuv

#include "raw_packets/start_codes.h"

#include "common/extradata.h"

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

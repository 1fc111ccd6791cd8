#include "common/extradata.h"

#include <algorithm>
#include <array>

int set_extradata(AVCodecParameters* par, const std::string& bytes) {
  if (bytes.empty()) return 0;
  auto* copy = static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (copy == nullptr) return AVERROR(ENOMEM);
  std::copy(bytes.begin(), bytes.end(), copy);
  av_freep(&par->extradata);
  par->extradata = copy;
  par->extradata_size = static_cast<int>(bytes.size());
  return 0;
}

std::string aac_config(int sample_rate, int channels) {
  static constexpr std::array<int, 13> kRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                 22050, 16000, 12000, 11025, 8000,  7350};
  constexpr unsigned kLowComplexity = 2;
  constexpr unsigned kExplicitRate = 15;
  const bool expressible = (channels >= 1 && channels <= 6) || channels == 8;
  if (!expressible) return {};
  const auto layout = static_cast<unsigned>(channels == 8 ? 7 : channels);
  unsigned rate_index = 0;
  while (rate_index < kRates.size() && kRates[rate_index] != sample_rate) ++rate_index;
  const bool listed = rate_index < kRates.size();

  // 5 bits object type, 4 bits rate, 24 bits of the rate itself when it is not listed, 4 bits channels, 3 bits zero.
  uint64_t bits = kLowComplexity;
  bits = bits << 4 | (listed ? rate_index : kExplicitRate);
  if (!listed) bits = bits << 24 | (static_cast<unsigned>(sample_rate) & 0xffffff);
  bits = (bits << 4 | layout) << 3;
  std::string config;
  for (int shift = listed ? 8 : 32; shift >= 0; shift -= 8) config.push_back(static_cast<char>(bits >> shift & 0xff));
  return config;
}

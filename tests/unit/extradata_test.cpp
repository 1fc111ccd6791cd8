#include "common/extradata.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/hex.h"

namespace {

using meru_test::hex;

struct ConfigCase {
  int rate, channels;
  const char* config;
};

class AacConfig : public testing::TestWithParam<ConfigCase> {};

TEST_P(AacConfig, NamesRateAndChannels) {
  EXPECT_EQ(hex(aac_config(GetParam().rate, GetParam().channels)), GetParam().config);
}

INSTANTIATE_TEST_SUITE_P(Known, AacConfig,
                         testing::Values(ConfigCase{48000, 2, "1190"}, ConfigCase{44100, 2, "1210"},
                                         ConfigCase{48000, 1, "1188"}, ConfigCase{44100, 1, "1208"},
                                         ConfigCase{96000, 1, "1008"}, ConfigCase{7350, 1, "1608"},
                                         ConfigCase{16000, 6, "1430"}, ConfigCase{48000, 8, "11b8"}));
INSTANTIATE_TEST_SUITE_P(RateInFull, AacConfig, testing::Values(ConfigCase{48001, 2, "17805dc090"}));
INSTANTIATE_TEST_SUITE_P(Inexpressible, AacConfig,
                         testing::Values(ConfigCase{48000, 0, ""}, ConfigCase{48000, 7, ""}, ConfigCase{48000, -1, ""},
                                         ConfigCase{48000, 9, ""}));

struct FreeParameters {
  void operator()(AVCodecParameters* par) const noexcept { avcodec_parameters_free(&par); }
};

std::string extradata_of(const AVCodecParameters& par) {
  return {reinterpret_cast<const char*>(par.extradata), static_cast<size_t>(par.extradata_size)};
}

TEST(SetExtradata, ReplacesWhatWasThere) {
  const std::unique_ptr<AVCodecParameters, FreeParameters> par(avcodec_parameters_alloc());
  ASSERT_EQ(set_extradata(par.get(), "first"), 0);
  ASSERT_EQ(set_extradata(par.get(), std::string("\0\1", 2)), 0);
  EXPECT_EQ(extradata_of(*par), std::string("\0\1", 2));
  ASSERT_EQ(set_extradata(par.get(), ""), 0);
  EXPECT_EQ(extradata_of(*par), std::string("\0\1", 2));
}

}  // namespace

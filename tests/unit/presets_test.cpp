#include "base/presets.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "support/case_name.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace {

struct TextCase {
  int value;
  const char* text;
};

// One table for the enumeration's values and their texts, in the order of the values.
constexpr TextCase kPresets[] = {{QUALITY_ULTRAFAST, "ultrafast"}, {QUALITY_SUPERFAST, "superfast"},
                                 {QUALITY_VERYFAST, "veryfast"},   {QUALITY_FASTER, "faster"},
                                 {QUALITY_FAST, "fast"},           {QUALITY_MEDIUM, "medium"},
                                 {QUALITY_SLOW, "slow"},           {QUALITY_SLOWER, "slower"},
                                 {QUALITY_VERYSLOW, "veryslow"},   {QUALITY_PLACEBO, "placebo"}};
constexpr TextCase kProfiles[] = {{PROFILE_BASELINE, "baseline"}, {PROFILE_MAIN, "main"},
                                  {PROFILE_HIGH, "high"},         {PROFILE_HIGH10, "high10"},
                                  {PROFILE_HIGH422, "high422"},   {PROFILE_HIGH444, "high444"}};
constexpr TextCase kTunes[] = {{TUNE_FILM, "film"},
                               {TUNE_ANIMATION, "animation"},
                               {TUNE_GRAIN, "grain"},
                               {TUNE_STILLIMAGE, "stillimage"},
                               {TUNE_PSNR, "psnr"},
                               {TUNE_SSIM, "ssim"},
                               {TUNE_FASTDECODE, "fastdecode"},
                               {TUNE_ZEROLATENCY, "zerolatency"}};

class PresetText : public testing::TestWithParam<TextCase> {};
class ProfileText : public testing::TestWithParam<TextCase> {};
class TuneText : public testing::TestWithParam<TextCase> {};

TEST_P(PresetText, ConvertsBothWays) {
  EXPECT_STREQ(preset_to_str(static_cast<Quality_Level>(GetParam().value)), GetParam().text);
  EXPECT_EQ(preset_from_str(GetParam().text), GetParam().value);
}
TEST_P(ProfileText, ConvertsBothWays) {
  EXPECT_STREQ(profile_to_str(static_cast<Profile_Level>(GetParam().value)), GetParam().text);
  EXPECT_EQ(profile_from_str(GetParam().text), GetParam().value);
}
TEST_P(TuneText, ConvertsBothWays) {
  EXPECT_STREQ(tune_to_str(static_cast<Tune_Level>(GetParam().value)), GetParam().text);
  EXPECT_EQ(tune_from_str(GetParam().text), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Table, PresetText, testing::ValuesIn(kPresets));
INSTANTIATE_TEST_SUITE_P(Table, ProfileText, testing::ValuesIn(kProfiles));
INSTANTIATE_TEST_SUITE_P(Table, TuneText, testing::ValuesIn(kTunes));

TEST(Presets, ValuesAreCountedFromZero) {
  for (size_t i = 0; i < std::size(kPresets); ++i) EXPECT_EQ(kPresets[i].value, static_cast<int>(i));
  for (size_t i = 0; i < std::size(kProfiles); ++i) EXPECT_EQ(kProfiles[i].value, static_cast<int>(i));
  for (size_t i = 0; i < std::size(kTunes); ++i) EXPECT_EQ(kTunes[i].value, static_cast<int>(i));
  EXPECT_EQ(QUALITY_NONE, 10);
  EXPECT_EQ(PROFILE_NONE, 6);
  EXPECT_EQ(TUNE_NONE, 8);
}

TEST(Presets, LastValueIsAnEmptyText) {
  EXPECT_STREQ(preset_to_str(QUALITY_NONE), "");
  EXPECT_STREQ(profile_to_str(PROFILE_NONE), "");
  EXPECT_STREQ(tune_to_str(TUNE_NONE), "");
}

class OutsideTheTables : public testing::TestWithParam<int> {};

// A host's record can hold any number; it must not be used as an index unseen.
TEST_P(OutsideTheTables, IsAnEmptyText) {
  EXPECT_STREQ(preset_to_str(static_cast<Quality_Level>(GetParam())), "");
  EXPECT_STREQ(profile_to_str(static_cast<Profile_Level>(GetParam())), "");
  EXPECT_STREQ(tune_to_str(static_cast<Tune_Level>(GetParam())), "");
}

INSTANTIATE_TEST_SUITE_P(Values, OutsideTheTables, testing::Values(-1, 11, 12, 1000000, -1000000));

struct UnknownCase {
  const char* name;
  const char* text;
};

class UnknownText : public testing::TestWithParam<UnknownCase> {};

TEST_P(UnknownText, GivesTheFallback) {
  EXPECT_EQ(preset_from_str(GetParam().text), QUALITY_VERYFAST);
  EXPECT_EQ(profile_from_str(GetParam().text), PROFILE_BASELINE);
  EXPECT_EQ(tune_from_str(GetParam().text), TUNE_ZEROLATENCY);
}

INSTANTIATE_TEST_SUITE_P(Texts, UnknownText,
                         testing::Values(UnknownCase{"Capital", "Medium"}, UnknownCase{"CapitalProfile", "Main"},
                                         UnknownCase{"CapitalTune", "Film"}, UnknownCase{"Empty", ""},
                                         UnknownCase{"Null", nullptr}, UnknownCase{"Cut", "ultra"},
                                         UnknownCase{"Longer", "medium "}, UnknownCase{"Word", "whatever"}),
                         meru_test::CaseName());

CodecContextPtr context(const char* encoder) {
  return CodecContextPtr(avcodec_alloc_context3(avcodec_find_encoder_by_name(encoder)));
}

std::string option(AVCodecContext* ctx, const char* name) {
  uint8_t* text = nullptr;
  if (av_opt_get(ctx->priv_data, name, AV_OPT_ALLOW_NULL, &text) < 0) return "no such option";
  const std::string value = text != nullptr ? reinterpret_cast<const char*>(text) : "unset";
  av_free(text);
  return value;
}

TEST(FastRealTime, SetsTheThreeOptions) {
  const CodecContextPtr ctx = context("libx264");
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(fastRealTime(ctx.get(), QUALITY_SLOW, PROFILE_HIGH, TUNE_GRAIN), 0);
  EXPECT_EQ(option(ctx.get(), "preset"), "slow");
  EXPECT_EQ(option(ctx.get(), "profile"), "high");
  EXPECT_EQ(option(ctx.get(), "tune"), "grain");
}

TEST(FastRealTime, SetsEmptyTexts) {
  const CodecContextPtr ctx = context("libx264");
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(fastRealTime(ctx.get(), QUALITY_NONE, PROFILE_NONE, TUNE_NONE), 0);
  EXPECT_EQ(option(ctx.get(), "preset"), "");
  EXPECT_EQ(option(ctx.get(), "profile"), "");
  EXPECT_EQ(option(ctx.get(), "tune"), "");
}

TEST(FastRealTime, ReportsAnEncoderWithoutTheLastOption) {
  for (const char* encoder : {"aac", "mpeg2video", "pcm_s16le"}) {
    const CodecContextPtr ctx = context(encoder);
    ASSERT_NE(ctx, nullptr) << encoder;
    EXPECT_EQ(fastRealTime(ctx.get(), QUALITY_SLOW, PROFILE_MAIN, TUNE_FILM), AVERROR_OPTION_NOT_FOUND) << encoder;
  }
}

TEST(UnsetEmptyPresets, UnsetsOnlyEmptyTexts) {
  const CodecContextPtr ctx = context("libx264");
  ASSERT_NE(ctx, nullptr);
  fastRealTime(ctx.get(), QUALITY_NONE, PROFILE_MAIN, TUNE_NONE);
  unset_empty_presets(ctx.get());
  EXPECT_EQ(option(ctx.get(), "preset"), "unset");
  EXPECT_EQ(option(ctx.get(), "profile"), "main");
  EXPECT_EQ(option(ctx.get(), "tune"), "unset");
}

TEST(UnsetEmptyPresets, LetsTheEncoderOpenWithNothingAskedFor) {
  const CodecContextPtr ctx = context("libx264");
  ASSERT_NE(ctx, nullptr);
  ctx->width = 64;
  ctx->height = 48;
  ctx->time_base = {1, 25};
  ctx->pix_fmt = AV_PIX_FMT_YUV420P;
  fastRealTime(ctx.get(), QUALITY_NONE, PROFILE_NONE, TUNE_NONE);
  unset_empty_presets(ctx.get());
  EXPECT_EQ(avcodec_open2(ctx.get(), ctx->codec, nullptr), 0);
}

TEST(UnsetEmptyPresets, LeavesEncodersWithoutOptionsAlone) {
  const CodecContextPtr ctx = context("pcm_s16le");
  ASSERT_NE(ctx, nullptr);
  unset_empty_presets(ctx.get());
  EXPECT_EQ(ctx->codec->priv_class, nullptr);
}

}  // namespace

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/case_name.h"
#include "support/log_capture.h"
#include "support/stream_setup.h"

namespace {

using meru_test::LogCapture;
using meru_test::StreamSetup;
using meru_test::usual_record;

constexpr char kStereoPrinted[] = "layout = 3\n";

TEST(StreamSetupAudio, FillsTheEncoderFromTheRecord) {
  LogCapture log;
  MovieInfo info = usual_record();
  StreamSetup setup;
  EXPECT_EQ(setup.add(AV_CODEC_ID_AAC, &info), kStereoPrinted);
  const AVCodecContext* enc = setup.enc();
  EXPECT_EQ(setup.codec()->id, AV_CODEC_ID_AAC);
  EXPECT_EQ(enc->bit_rate, 128000);
  EXPECT_EQ(enc->sample_rate, 48000);
  EXPECT_EQ(av_cmp_q(enc->time_base, AVRational{1, 48000}), 0);
  EXPECT_EQ(av_cmp_q(setup.stream()->time_base, AVRational{1, 48000}), 0);
  EXPECT_EQ(setup.stream()->id, 0);
  EXPECT_TRUE(log.lines().empty());
}

struct FormatCase {
  const char* name;
  AVCodecID codec;
  AVSampleFormat wanted, used;
};

class SampleFormat : public testing::TestWithParam<FormatCase> {};

TEST_P(SampleFormat, IsTheOneAskedForOrTheFirstListed) {
  MovieInfo info = usual_record();
  info.sample_fmt = GetParam().wanted;
  StreamSetup setup;
  setup.add(GetParam().codec, &info);
  EXPECT_EQ(setup.enc()->sample_fmt, GetParam().used);
  EXPECT_EQ(info.sample_fmt, GetParam().wanted) << "the record stays";
}

INSTANTIATE_TEST_SUITE_P(
    Formats, SampleFormat,
    testing::Values(FormatCase{"PlanarFloatInstead", AV_CODEC_ID_AAC, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP},
                    FormatCase{"Listed", AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLTP},
                    FormatCase{"SecondListed", AV_CODEC_ID_FLAC, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_S32},
                    FormatCase{"FirstListedInstead", AV_CODEC_ID_FLAC, AV_SAMPLE_FMT_DBLP, AV_SAMPLE_FMT_S16}),
    meru_test::CaseName());

struct SampleRateCase {
  const char* name;
  const char* url;
  AVCodecID codec;
  int wanted, used;
};

class SampleRate : public testing::TestWithParam<SampleRateCase> {};

TEST_P(SampleRate, IsOneThatTheEncoderLists) {
  const SampleRateCase& row = GetParam();
  LogCapture log;
  MovieInfo info = usual_record();
  std::strcpy(info.url, row.url);
  info.sample_rate_dst = row.wanted;
  StreamSetup setup;
  setup.add(row.codec, &info);
  EXPECT_EQ(setup.enc()->sample_rate, row.used);
  EXPECT_EQ(info.sample_rate_dst, row.used);
  EXPECT_EQ(info.sample_rate_src, 48000);
  EXPECT_EQ(av_cmp_q(setup.enc()->time_base, AVRational{1, row.used}), 0);
  EXPECT_EQ(av_cmp_q(setup.stream()->time_base, AVRational{1, row.used}), 0);
  const std::string line =
      "-->reset sample_rate_dst: " + std::to_string(row.wanted) + " --> " + std::to_string(row.used);
  EXPECT_EQ(log.count(2, line), row.wanted != row.used ? 1 : 0);
  EXPECT_EQ(log.lines().size(), row.wanted != row.used ? 1U : 0U);
}

// The first rate of the AAC encoder is 96000.
INSTANTIATE_TEST_SUITE_P(
    Rates, SampleRate,
    testing::Values(SampleRateCase{"Listed", "a.mp4", AV_CODEC_ID_AAC, 44100, 44100},
                    SampleRateCase{"LastListed", "a.mp4", AV_CODEC_ID_AAC, 7350, 7350},
                    SampleRateCase{"NotListed", "a.mp4", AV_CODEC_ID_AAC, 44000, 96000},
                    SampleRateCase{"Zero", "a.mp4", AV_CODEC_ID_AAC, 0, 96000},
                    SampleRateCase{"NoList", "a.wav", AV_CODEC_ID_PCM_S16LE, 44000, 44000},
                    SampleRateCase{"FlvFile", "a.flv", AV_CODEC_ID_AAC, 44100, 96000},
                    SampleRateCase{"FlvInUpperCase", "/folder/MOVIE.FLV", AV_CODEC_ID_AAC, 44100, 96000},
                    SampleRateCase{"FlvInMixedCase", "a.fLv", AV_CODEC_ID_AAC, 44100, 96000},
                    SampleRateCase{"FlvAndNothingElse", ".flv", AV_CODEC_ID_AAC, 44100, 96000},
                    SampleRateCase{"FlvAtTheFirstRate", "a.flv", AV_CODEC_ID_AAC, 96000, 96000},
                    SampleRateCase{"FlvWithoutAList", "a.flv", AV_CODEC_ID_PCM_S16LE, 44000, 44000},
                    SampleRateCase{"TooShortForFlv", "flv", AV_CODEC_ID_AAC, 44100, 44100},
                    SampleRateCase{"FlvWithoutADot", "a_flv", AV_CODEC_ID_AAC, 44100, 44100},
                    SampleRateCase{"FlvNotAtTheEnd", "a.flv.mp4", AV_CODEC_ID_AAC, 44100, 44100},
                    SampleRateCase{"LiveStream", "rtmp://h/a/k", AV_CODEC_ID_AAC, 44100, 44100},
                    SampleRateCase{"Empty", "", AV_CODEC_ID_AAC, 44100, 44100}),
    meru_test::CaseName());

TEST(SampleRateOfALongAddress, LooksAtTheLastFourOf511Characters) {
  MovieInfo info = usual_record();
  std::memset(info.url, 'a', sizeof(info.url) - 1);
  std::memcpy(info.url + sizeof(info.url) - 5, ".FLV", 5);
  info.sample_rate_dst = 44100;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_AAC, &info);
  EXPECT_EQ(info.sample_rate_dst, 96000);
}

TEST(SampleRateOfALongAddress, ReadsNoFurtherThanTheField) {
  MovieInfo info = usual_record();
  std::memset(info.url, 'a', sizeof(info.url));
  std::strcpy(info.snapshot_path, ".flv");
  info.sample_rate_dst = 44100;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_AAC, &info);
  EXPECT_EQ(info.sample_rate_dst, 44100);
}

class ChannelsOfTheRecord : public testing::TestWithParam<int> {};

TEST_P(ChannelsOfTheRecord, DoNotChangeTheEncodedLayout) {
  MovieInfo info = usual_record();
  info.channels = GetParam();
  StreamSetup setup;
  EXPECT_EQ(setup.add(AV_CODEC_ID_AAC, &info), kStereoPrinted);
  EXPECT_EQ(meru_compat::channels_of(setup.enc()), 2);
  EXPECT_EQ(meru_compat::layout_of(setup.enc()), static_cast<uint64_t>(AV_CH_LAYOUT_STEREO));
  EXPECT_EQ(info.channels, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Counts, ChannelsOfTheRecord, testing::Values(1, 2, 6));

TEST(ChannelLayout, IsTheFirstListedWithoutStereo) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  // An encoder that takes mono alone, at any rate, and says so in every version.
  EXPECT_EQ(setup.add(AV_CODEC_ID_ADPCM_G722, &info), "layout = 4\n");
  EXPECT_EQ(meru_compat::channels_of(setup.enc()), 1);
}

TEST(StreamSetupAudio, AppliesThePresetsToEncodersThatLackThem) {
  MovieInfo info = usual_record();
  info.preset = QUALITY_NONE;
  info.profile = PROFILE_NONE;
  info.tune = TUNE_NONE;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_AAC, &info);
  EXPECT_EQ(setup.option("preset"), "no such option");
  EXPECT_EQ(avcodec_open2(setup.enc(), setup.codec(), nullptr), 0);
}

TEST(StreamSetupAudio, IgnoresTheVideoSettings) {
  MovieInfo info = usual_record();
  info.use_hardware = true;
  info.rate_control = RATE_CONTROL_CBR;
  LogCapture log;
  StreamSetup setup;
  EXPECT_EQ(setup.add(AV_CODEC_ID_AAC, &info), kStereoPrinted);
  EXPECT_TRUE(info.use_hardware);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace

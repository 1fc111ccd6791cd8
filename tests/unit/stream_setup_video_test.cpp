#include <gtest/gtest.h>

#include <string>

#include "base/hardware_enc.h"
#include "support/case_name.h"
#include "support/log_capture.h"
#include "support/stream_setup.h"

namespace {

using meru_test::LogCapture;
using meru_test::StreamSetup;
using meru_test::usual_record;

struct RateCase {
  const char* name;
  int rate_control, v_bitrate, crf, qp;
  const char* printed;
  int64_t bit_rate, min_rate, max_rate;
  int tolerance, buffer, occupancy;  // 0: as it was
  bool fixed_quality;
  const char* crf_option;
  const char* qp_option;
};

class RateControl : public testing::TestWithParam<RateCase> {};

TEST_P(RateControl, SetsTheNumbersAndPrintsItsName) {
  const RateCase& row = GetParam();
  MovieInfo info = usual_record();
  info.rate_control = row.rate_control;
  info.v_bitrate = row.v_bitrate;
  info.crf = row.crf;
  info.qp = row.qp;
  StreamSetup setup;
  EXPECT_EQ(setup.add(AV_CODEC_ID_H264, &info), row.printed);
  ASSERT_STREQ(setup.codec()->name, "libx264");
  const CodecContextPtr untouched(avcodec_alloc_context3(setup.codec()));
  const AVCodecContext* enc = setup.enc();
  EXPECT_EQ(enc->bit_rate, row.bit_rate);
  EXPECT_EQ(enc->rc_min_rate, row.min_rate);
  EXPECT_EQ(enc->rc_max_rate, row.max_rate);
  EXPECT_EQ(enc->bit_rate_tolerance, row.tolerance != 0 ? row.tolerance : untouched->bit_rate_tolerance);
  EXPECT_EQ(enc->rc_buffer_size, row.buffer);
  EXPECT_EQ(enc->rc_initial_buffer_occupancy,
            row.occupancy != 0 ? row.occupancy : untouched->rc_initial_buffer_occupancy);
  EXPECT_EQ((enc->flags & AV_CODEC_FLAG_QSCALE) != 0, row.fixed_quality);
  EXPECT_EQ(setup.option("crf"), row.crf_option);
  EXPECT_EQ(setup.option("qp"), row.qp_option);
}

constexpr char kNoCrf[] = "-1.000000";
constexpr char kNoQp[] = "-1";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Modes, RateControl, testing::Values(
    RateCase{"Abr", 0, 1000, 20, 20, "ABR\n", 1000000, 0, 0, 0, 0, 0, false, kNoCrf, kNoQp},
    RateCase{"AbrAutomatic", 0, 0, 0, 0, "[auto] v_bitrate=0\nABR\n", 0, 0, 0, 0, 0, 0, false, kNoCrf, kNoQp},
    RateCase{"AbrLarge", 0, 3000000, 0, 0, "ABR\n", 3000000000, 0, 0, 0, 0, 0, false, kNoCrf, kNoQp},
    RateCase{"Cbr", 1, 1000, 0, 20, "CBR\n", 1000000, 1000000, 1000000, 1000000, 1000000, 750000, false, kNoCrf, kNoQp},
    RateCase{"CbrCrf1", 1, 1000, 1, 0, "CBR\nCBR,  crf=1\n", 1000000, 1000000, 1000000, 1000000, 1000000, 750000, false,
             "1.000000", kNoQp},
    RateCase{"CbrCrf51", 1, 1000, 51, 0, "CBR\nCBR,  crf=51\n", 1000000, 1000000, 1000000, 1000000, 1000000, 750000,
             false, "51.000000", kNoQp},
    RateCase{"CbrCrf52", 1, 1000, 52, 0, "CBR\n", 1000000, 1000000, 1000000, 1000000, 1000000, 750000, false, kNoCrf,
             kNoQp},
    RateCase{"CbrCrfNegative", 1, 1000, -1, 0, "CBR\n", 1000000, 1000000, 1000000, 1000000, 1000000, 750000, false,
             kNoCrf, kNoQp},
    RateCase{"Cqp51", 3, 500, 20, 51, "CQP\nCQP,  qp=51\n", 500000, 0, 0, 0, 0, 0, false, kNoCrf, "51"},
    RateCase{"Cqp1", 3, 500, 0, 1, "CQP\nCQP,  qp=1\n", 500000, 0, 0, 0, 0, 0, false, kNoCrf, "1"},
    RateCase{"Cqp0", 3, 500, 0, 0, "CQP\n", 500000, 0, 0, 0, 0, 0, false, kNoCrf, kNoQp},
    RateCase{"Cqp52", 3, 500, 0, 52, "CQP\n", 500000, 0, 0, 0, 0, 0, false, kNoCrf, kNoQp},
    RateCase{"Vbr150", 2, 150, 20, 20, "VBR\n", 150000, 10000, 160000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"Vbr210", 2, 210, 0, 0, "VBR\n", 210000, 10000, 220000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"Vbr211", 2, 211, 0, 0, "VBR\n", 211000, 11000, 221000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"Vbr4000", 2, 4000, 0, 0, "VBR\n", 4000000, 3800000, 4010000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"VbrAutomatic", 2, 0, 0, 0, "[auto] v_bitrate=0\nVBR\n", 0, 10000, 10000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"AnyOtherIsVbr", 77, 150, 0, 0, "VBR\n", 150000, 10000, 160000, 0, 0, 0, true, kNoCrf, kNoQp},
    RateCase{"NegativeIsVbr", -1, 150, 0, 0, "VBR\n", 150000, 10000, 160000, 0, 0, 0, true, kNoCrf, kNoQp}),
    meru_test::CaseName());
// clang-format on

struct AutoCase {
  const char* name;
  int width, height, fps, expected;
};

class AutomaticRate : public testing::TestWithParam<AutoCase> {};

TEST_P(AutomaticRate, IsAboutATenthOfABitPerPixel) {
  MovieInfo info = usual_record();
  info.v_bitrate = 0;
  info.width = GetParam().width;
  info.height = GetParam().height;
  info.fps = GetParam().fps;
  StreamSetup setup;
  const std::string expected = std::to_string(GetParam().expected);
  EXPECT_EQ(setup.add(AV_CODEC_ID_MPEG4, &info), "[auto] v_bitrate=" + expected + "\nABR\n");
  EXPECT_EQ(setup.enc()->bit_rate, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Sizes, AutomaticRate,
                         testing::Values(AutoCase{"FullHd", 1920, 1080, 30, 5971968},
                                         AutoCase{"Small", 64, 48, 25, 7372},
                                         AutoCase{"BeyondThe32BitsOfTheProduct", 7680, 4320, 60, 191102976}),
                         meru_test::CaseName());

TEST(StreamSetupVideo, FillsTheEncoderFromTheRecord) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  const AVCodecContext* enc = setup.enc();
  EXPECT_EQ(enc->width, 1920);
  EXPECT_EQ(enc->height, 1080);
  EXPECT_EQ(enc->gop_size, 12);
  EXPECT_EQ(enc->pix_fmt, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(enc->max_b_frames, 0);
  EXPECT_EQ(av_cmp_q(enc->framerate, AVRational{30, 1}), 0);
  EXPECT_EQ(av_cmp_q(enc->time_base, AVRational{1, 30}), 0);
  EXPECT_EQ(av_cmp_q(setup.stream()->time_base, AVRational{1, 30}), 0);
  EXPECT_EQ(setup.option("preset"), "ultrafast");
  EXPECT_EQ(setup.option("profile"), "baseline");
  EXPECT_EQ(setup.option("tune"), "zerolatency");
  EXPECT_EQ(setup.stream()->id, 0);
}

TEST(StreamSetupVideo, NumbersItsStreams) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  for (int i = 0; i < 3; ++i) {
    setup.add(AV_CODEC_ID_H264, &info);
    EXPECT_EQ(setup.stream()->id, i);
    EXPECT_EQ(setup.context()->nb_streams, static_cast<unsigned>(i + 1));
  }
}

struct HeaderCase {
  const char* name;
  const char* container;
  bool global;
};

class GlobalHeader : public testing::TestWithParam<HeaderCase> {};

TEST_P(GlobalHeader, FollowsTheContainer) {
  for (const AVCodecID codec : {AV_CODEC_ID_H264, AV_CODEC_ID_AAC}) {
    MovieInfo info = usual_record();
    StreamSetup setup(GetParam().container);
    setup.add(codec, &info);
    EXPECT_EQ((setup.enc()->flags & AV_CODEC_FLAG_GLOBAL_HEADER) != 0, GetParam().global);
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, GlobalHeader,
                         testing::Values(HeaderCase{"Mp4", "mp4", true}, HeaderCase{"Flv", "flv", true},
                                         HeaderCase{"MpegTs", "mpegts", false}, HeaderCase{"Avi", "avi", false}),
                         meru_test::CaseName());

struct FpsCase {
  const char* name;
  AVCodecID codec;
  int fps, used;
  AVRational rate;
};

class FrameRate : public testing::TestWithParam<FpsCase> {};

TEST_P(FrameRate, IsTheNearestThatTheEncoderLists) {
  const FpsCase& row = GetParam();
  LogCapture log;
  MovieInfo info = usual_record();
  info.fps = row.fps;
  StreamSetup setup;
  setup.add(row.codec, &info);
  EXPECT_EQ(info.fps, row.used);
  EXPECT_EQ(av_cmp_q(setup.enc()->framerate, row.rate), 0);
  EXPECT_EQ(av_cmp_q(setup.enc()->time_base, AVRational{1, row.used}), 0);
  EXPECT_EQ(av_cmp_q(setup.stream()->time_base, AVRational{1, row.used}), 0);
  const std::string line = "-->reset fps: " + std::to_string(row.fps) + " --> " + std::to_string(row.used);
  EXPECT_EQ(log.count(2, line), row.fps != row.used ? 1 : 0);
  EXPECT_EQ(log.lines().size(), row.fps != row.used ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Encoders, FrameRate,
                         testing::Values(FpsCase{"NoList", AV_CODEC_ID_H264, 17, 17, {17, 1}},
                                         FpsCase{"Mpeg1Listed", AV_CODEC_ID_MPEG1VIDEO, 25, 25, {25, 1}},
                                         FpsCase{"Mpeg2Listed", AV_CODEC_ID_MPEG2VIDEO, 30, 30, {30, 1}},
                                         FpsCase{"Mpeg1Nearest", AV_CODEC_ID_MPEG1VIDEO, 27, 25, {25, 1}},
                                         FpsCase{"Mpeg1Above", AV_CODEC_ID_MPEG1VIDEO, 1000, 60, {60, 1}},
                                         FpsCase{"Mpeg2Fraction", AV_CODEC_ID_MPEG2VIDEO, 29, 30000, {30000, 1001}}),
                         meru_test::CaseName());

struct CodecCase {
  const char* name;
  AVCodecID codec;
  int b_frames, mb_decision;
};

class CodecQuirk : public testing::TestWithParam<CodecCase> {};

TEST_P(CodecQuirk, IsSetForThatCodecOnly) {
  MovieInfo info = usual_record();
  info.fps = 25;
  StreamSetup setup;
  setup.add(GetParam().codec, &info);
  EXPECT_EQ(setup.codec()->id, GetParam().codec);
  EXPECT_EQ(setup.enc()->max_b_frames, GetParam().b_frames);
  EXPECT_EQ(setup.enc()->mb_decision, GetParam().mb_decision);
}

INSTANTIATE_TEST_SUITE_P(Codecs, CodecQuirk,
                         testing::Values(CodecCase{"H264", AV_CODEC_ID_H264, 0, 0},
                                         CodecCase{"Mpeg1", AV_CODEC_ID_MPEG1VIDEO, 0, 2},
                                         CodecCase{"Mpeg2", AV_CODEC_ID_MPEG2VIDEO, 2, 0},
                                         CodecCase{"Mpeg4", AV_CODEC_ID_MPEG4, 0, 0}),
                         meru_test::CaseName());

struct PixelCase {
  const char* name;
  AVCodecID codec;
  AVPixelFormat wanted, used;
};

class PixelFormat : public testing::TestWithParam<PixelCase> {};

TEST_P(PixelFormat, IsTheOneAskedForOrTheFirstListed) {
  MovieInfo info = usual_record();
  info.pix_fmt = GetParam().wanted;
  StreamSetup setup;
  setup.add(GetParam().codec, &info);
  EXPECT_EQ(setup.enc()->pix_fmt, GetParam().used);
  EXPECT_EQ(info.pix_fmt, GetParam().wanted) << "the record stays";
}

INSTANTIATE_TEST_SUITE_P(Formats, PixelFormat,
                         testing::Values(PixelCase{"Listed", AV_CODEC_ID_H264, AV_PIX_FMT_NV12, AV_PIX_FMT_NV12},
                                         PixelCase{"FirstListed", AV_CODEC_ID_H264, AV_PIX_FMT_YUV420P,
                                                   AV_PIX_FMT_YUV420P},
                                         PixelCase{"NotListed", AV_CODEC_ID_H264, AV_PIX_FMT_PAL8, AV_PIX_FMT_YUV420P},
                                         PixelCase{"NoList", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_PAL8, AV_PIX_FMT_PAL8}),
                         meru_test::CaseName());

TEST(Colours, AreCopiedWhenTheySaySomething) {
  MovieInfo info = usual_record();
  info.color_primaries = AVCOL_PRI_BT709;
  info.color_trc = AVCOL_TRC_IEC61966_2_1;
  info.colorspace = AVCOL_SPC_BT470BG;
  info.color_range = AVCOL_RANGE_JPEG;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_EQ(setup.enc()->color_primaries, AVCOL_PRI_BT709);
  EXPECT_EQ(setup.enc()->color_trc, AVCOL_TRC_IEC61966_2_1);
  EXPECT_EQ(setup.enc()->colorspace, AVCOL_SPC_BT470BG);
  EXPECT_EQ(setup.enc()->color_range, AVCOL_RANGE_JPEG);
}

TEST(Colours, StayTheEncodersWhenTheySayNothing) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_EQ(setup.enc()->color_primaries, AVCOL_PRI_UNSPECIFIED);
  EXPECT_EQ(setup.enc()->color_trc, AVCOL_TRC_UNSPECIFIED);
  EXPECT_EQ(setup.enc()->colorspace, AVCOL_SPC_UNSPECIFIED);
  EXPECT_EQ(setup.enc()->color_range, AVCOL_RANGE_UNSPECIFIED);
}

TEST(Colours, ColourSpaceZeroMeansRgb) {
  MovieInfo info = usual_record();
  info.colorspace = AVCOL_SPC_RGB;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_EQ(setup.enc()->colorspace, AVCOL_SPC_RGB);
}

// The probe's answer for a size stands for every name, so a first question settles what the setup will find.

TEST(HardwareChoice, IsRevokedWhenNoneIsUsable) {
  MovieInfo info = usual_record();
  info.use_hardware = true;
  ASSERT_FALSE(isHardwareEnable("no_such_encoder", info.width, info.height, AV_PIX_FMT_NV12));
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_STREQ(setup.codec()->name, "libx264");
  EXPECT_FALSE(info.use_hardware);
  EXPECT_EQ(info.pix_fmt, AV_PIX_FMT_YUV420P);
}

TEST(HardwareChoice, AsksForTheFirstEncoderFirst) {
  MovieInfo info = usual_record();
  info.use_hardware = true;
  LogCapture log;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_EQ(log.count(2, "=== 硬件编码器 'h264_nvenc' enable = " + std::to_string(info.use_hardware ? 1 : 0)), 1);
  EXPECT_EQ(log.lines().size(), info.use_hardware ? 1U : 2U);
}

TEST(HardwareChoice, TakesTheFirstUsable) {
  MovieInfo info = usual_record();
  info.use_hardware = true;
  info.v_bitrate = 0;
  ASSERT_TRUE(isHardwareEnable("libx264", info.width, info.height, AV_PIX_FMT_NV12));
  StreamSetup setup;
  const std::string printed = setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_TRUE(info.use_hardware);
  EXPECT_EQ(info.pix_fmt, AV_PIX_FMT_NV12);
  if (avcodec_find_encoder_by_name("h264_nvenc") != nullptr) {
    EXPECT_STREQ(setup.codec()->name, "h264_nvenc");
    EXPECT_EQ(printed, "[auto] v_bitrate=5971968\nABR\n");
  } else {  // the answer came from another encoder: the default one, which counts as software, takes its place
    EXPECT_STREQ(setup.codec()->name, "libx264");
    EXPECT_EQ(printed, "[auto] v_bitrate=0\nABR\n");
  }
}

TEST(HardwareChoice, IsOnlyForH264) {
  MovieInfo info = usual_record();
  info.use_hardware = true;
  ASSERT_TRUE(isHardwareEnable("libx264", info.width, info.height, AV_PIX_FMT_NV12));
  LogCapture log;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_MPEG4, &info);
  EXPECT_EQ(setup.codec()->id, AV_CODEC_ID_MPEG4);
  EXPECT_TRUE(info.use_hardware);
  EXPECT_EQ(info.pix_fmt, AV_PIX_FMT_YUV420P);
  EXPECT_TRUE(log.lines().empty());
}

TEST(HardwareChoice, IsNotMadeUnasked) {
  MovieInfo info = usual_record();
  LogCapture log;
  StreamSetup setup;
  setup.add(AV_CODEC_ID_H264, &info);
  EXPECT_STREQ(setup.codec()->name, "libx264");
  EXPECT_TRUE(log.lines().empty());
}

TEST(StreamSetupDeathTest, EndsTheProcessWithoutAnEncoder) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  EXPECT_EXIT(setup.add_uncaptured(AV_CODEC_ID_VP5, &info), testing::ExitedWithCode(1),
              "\"Could not find encoder for 'vp5'\"\n");
}

TEST(StreamSetupDeathTest, EndsTheProcessWithoutAStream) {
  MovieInfo info = usual_record();
  StreamSetup setup;
  setup.context()->max_streams = 0;
  EXPECT_EXIT(setup.add_uncaptured(AV_CODEC_ID_H264, &info), testing::ExitedWithCode(1),
              "\"Could not allocate stream\"\n");
}

}  // namespace

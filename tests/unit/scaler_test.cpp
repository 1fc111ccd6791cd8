#include "common/scaler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "common/ffmpeg_compat.h"
#include "support/case_name.h"
#include "support/media_frames.h"

namespace {

using meru_test::make_picture;
using meru_test::pixels;

constexpr int kWidth = 32;
constexpr int kHeight = 16;

struct Details {
  int matrix;
  int full;
};

/// What libswscale itself makes of `src`, with the details of both sides when they are given.
std::vector<uint8_t> scaled_by_hand(const AVFrame* src, AVPixelFormat format, int w, int h, const Details* in,
                                    const Details* out) {
  const SwsPtr sws(sws_getContext(src->width, src->height, static_cast<AVPixelFormat>(src->format), w, h, format,
                                  SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (in != nullptr) {
    EXPECT_GE(sws_setColorspaceDetails(sws.get(), sws_getCoefficients(in->matrix), in->full,
                                       sws_getCoefficients(out->matrix), out->full, 0, 1 << 16, 1 << 16),
              0);
  }
  const FramePtr dst = make_picture(format, w, h);
  sws_scale(sws.get(), src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
  return pixels(dst.get());
}

std::vector<uint8_t> scaled(const AVFrame* src, AVPixelFormat format, int w, int h, int colorspace, int range) {
  const SwsPtr sws = make_scaler({src->width, src->height, src->format}, {w, h, format}, colorspace, range);
  if (sws == nullptr) return {};
  const FramePtr dst = make_picture(format, w, h);
  meru_compat::scale(sws.get(), src, dst.get());
  return pixels(dst.get());
}

/// Large enough for several threads.
class LargeImages : public testing::TestWithParam<ImageFormat> {};

TEST_P(LargeImages, PixelsAreThoseOfOneThread) {
  const auto [w, h, format] = GetParam();
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 1281, 723);
  std::minstd_rand random(1);
  std::generate_n(src->data[0], static_cast<ptrdiff_t>(src->linesize[0]) * src->height,
                  [&] { return static_cast<uint8_t>(random() >> 8); });
  const Details screen{SWS_CS_DEFAULT, 1}, movie{SWS_CS_ITU709, 1};
  const auto pixel_format = static_cast<AVPixelFormat>(format);
  EXPECT_EQ(scaled(src.get(), pixel_format, w, h, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG),
            scaled_by_hand(src.get(), pixel_format, w, h, &screen, &movie));
}

INSTANTIATE_TEST_SUITE_P(All, LargeImages,
                         testing::Values(ImageFormat{852, 480, AV_PIX_FMT_YUV420P},
                                         ImageFormat{853, 479, AV_PIX_FMT_NV12},
                                         ImageFormat{1280, 722, AV_PIX_FMT_YUV422P},
                                         ImageFormat{1281, 723, AV_PIX_FMT_YUV444P}));

TEST(ScalerTest, ImagesInTheHostsMemoryAreReadWhereTheyAre) {
  const FramePtr owner = make_picture(AV_PIX_FMT_BGRA, 1280, 720);
  const FramePtr src(av_frame_alloc());
  src->width = owner->width;
  src->height = owner->height;
  src->format = owner->format;
  src->data[0] = owner->data[0];
  src->linesize[0] = owner->linesize[0];
  EXPECT_EQ(scaled(src.get(), AV_PIX_FMT_YUV420P, 640, 360, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED),
            scaled(owner.get(), AV_PIX_FMT_YUV420P, 640, 360, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED));
  EXPECT_EQ(src->buf[0], nullptr);
}

TEST(ScalerTest, NothingNamedMeansTheDefaults) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  EXPECT_EQ(scaled(src.get(), AV_PIX_FMT_YUV420P, 20, 12, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED),
            scaled_by_hand(src.get(), AV_PIX_FMT_YUV420P, 20, 12, nullptr, nullptr));
}

struct NamedCase {
  const char* name;
  int colorspace;
  int range;
  Details expected;
};

class NamedColours : public testing::TestWithParam<NamedCase> {};

TEST_P(NamedColours, PixelsAreThoseOfTheTags) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  const Details rgb{SWS_CS_DEFAULT, 1};
  EXPECT_EQ(scaled(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, GetParam().colorspace, GetParam().range),
            scaled_by_hand(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, &rgb, &GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Tags, NamedColours,
    testing::Values(NamedCase{"Bt709", AVCOL_SPC_BT709, AVCOL_RANGE_MPEG, {SWS_CS_ITU709, 0}},
                    NamedCase{"Bt709Full", AVCOL_SPC_BT709, AVCOL_RANGE_JPEG, {SWS_CS_ITU709, 1}},
                    NamedCase{"Bt709NoRange", AVCOL_SPC_BT709, AVCOL_RANGE_UNSPECIFIED, {SWS_CS_ITU709, 0}},
                    NamedCase{"Bt601", AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG, {SWS_CS_SMPTE170M, 0}},
                    NamedCase{"Bt2020Full", AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_JPEG, {SWS_CS_BT2020, 1}},
                    NamedCase{"FullOnly", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_JPEG, {SWS_CS_DEFAULT, 1}}),
    meru_test::CaseName());

TEST(ScalerTest, MatricesGiveDifferentPixels) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  const auto bt601 = scaled(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG);
  const auto bt709 = scaled(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG);
  const auto full = scaled(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG);
  EXPECT_NE(bt601, bt709);
  EXPECT_NE(bt709, full);
}

TEST(ScalerTest, YuvImagesKeepTheirValues) {
  const FramePtr src = make_picture(AV_PIX_FMT_NV12, kWidth, kHeight);
  EXPECT_EQ(scaled(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG),
            scaled_by_hand(src.get(), AV_PIX_FMT_YUV420P, kWidth, kHeight, nullptr, nullptr));
}

TEST(ScalerTest, RgbTargetIgnoresTheTags) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  EXPECT_EQ(scaled(src.get(), AV_PIX_FMT_RGB24, kWidth, kHeight, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG),
            scaled_by_hand(src.get(), AV_PIX_FMT_RGB24, kWidth, kHeight, nullptr, nullptr));
}

struct RefusedCase {
  const char* name;
  ImageFormat src, dst;
};

class RefusedScaler : public testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedScaler, GivesNull) {
  EXPECT_EQ(make_scaler(GetParam().src, GetParam().dst, AVCOL_SPC_UNSPECIFIED, 0), nullptr);
}

constexpr ImageFormat kGood{16, 16, AV_PIX_FMT_YUV420P};
INSTANTIATE_TEST_SUITE_P(Formats, RefusedScaler,
                         testing::Values(RefusedCase{"NoWidth", {0, 16, AV_PIX_FMT_BGRA}, kGood},
                                         RefusedCase{"NegativeHeight", {16, -1, AV_PIX_FMT_BGRA}, kGood},
                                         RefusedCase{"NoFormat", {16, 16, AV_PIX_FMT_NONE}, kGood},
                                         RefusedCase{"UnknownFormat", {16, 16, 100000}, kGood},
                                         RefusedCase{"HardwareFormat", {16, 16, AV_PIX_FMT_VAAPI}, kGood},
                                         RefusedCase{"NoTargetHeight", kGood, {16, 0, AV_PIX_FMT_BGRA}},
                                         RefusedCase{"InputOnlyTarget", kGood, {16, 16, AV_PIX_FMT_BAYER_BGGR8}},
                                         RefusedCase{"NegativeTarget", kGood, {16, 16, -7}}),
                         meru_test::CaseName());

TEST(FreeBuffersTest, UnsharedBuffersStay) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  const uint8_t* before = frame->data[0];
  int sharers = 1;
  EXPECT_TRUE(make_buffers_free(frame.get(), &sharers));
  EXPECT_EQ(frame->data[0], before);
}

TEST(FreeBuffersTest, UsualSharersDoNotCount) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  const FramePtr usual(av_frame_clone(frame.get()));
  const uint8_t* before = frame->data[0];
  int sharers = 2;
  EXPECT_TRUE(make_buffers_free(frame.get(), &sharers));
  EXPECT_EQ(frame->data[0], before);
  EXPECT_EQ(sharers, 2);
}

TEST(FreeBuffersTest, HeldBuffersAreLeftToTheirHolder) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  frame->pts = 42;
  frame->colorspace = AVCOL_SPC_BT709;
  frame->color_range = AVCOL_RANGE_JPEG;
  const FramePtr holder(av_frame_clone(frame.get()));
  const auto held = pixels(holder.get());
  int sharers = 1;
  ASSERT_TRUE(make_buffers_free(frame.get(), &sharers));
  EXPECT_NE(frame->data[0], holder->data[0]);
  EXPECT_EQ(sharers, 1);
  EXPECT_EQ(frame->width, kWidth);
  EXPECT_EQ(frame->height, kHeight);
  EXPECT_EQ(frame->format, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(frame->pts, 42);
  EXPECT_EQ(frame->colorspace, AVCOL_SPC_BT709);
  EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
  std::fill_n(frame->data[0], frame->linesize[0], uint8_t{1});
  EXPECT_EQ(pixels(holder.get()), held);
}

TEST(FreeBuffersTest, SamplesGetBuffersOfTheSameDescription) {
  const FramePtr frame = meru_test::make_samples(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 48000, 1024);
  const FramePtr holder(av_frame_clone(frame.get()));
  int sharers = 1;
  ASSERT_TRUE(make_buffers_free(frame.get(), &sharers));
  EXPECT_NE(frame->data[1], holder->data[1]);
  EXPECT_EQ(frame->nb_samples, 1024);
  EXPECT_EQ(frame->sample_rate, 48000);
  EXPECT_EQ(meru_compat::layout_of(frame.get()), static_cast<uint64_t>(AV_CH_LAYOUT_STEREO));
}

TEST(FreeBuffersTest, FrameWithoutBuffersIsLeftAlone) {
  const FramePtr frame(av_frame_alloc());
  int sharers = 0;
  EXPECT_TRUE(make_buffers_free(frame.get(), &sharers));
  EXPECT_EQ(frame->buf[0], nullptr);
}

}  // namespace

#include <gtest/gtest.h>

#include <string>

#include "ReSample/qv_resample.h"
#include "support/case_name.h"
#include "support/media_frames.h"

namespace {

using meru_test::make_picture;
using meru_test::pixels;

constexpr AVRational kUsec{1, 1000000};

std::vector<uint8_t> plainly_scaled(const AVFrame* src, AVPixelFormat format, int w, int h, int matrix = -1,
                                    int full = 0) {
  const SwsPtr sws(sws_getContext(src->width, src->height, static_cast<AVPixelFormat>(src->format), w, h, format,
                                  SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (matrix >= 0) {
    sws_setColorspaceDetails(sws.get(), sws_getCoefficients(SWS_CS_DEFAULT), 1, sws_getCoefficients(matrix), full, 0,
                             1 << 16, 1 << 16);
  }
  const FramePtr dst = make_picture(format, w, h);
  sws_scale(sws.get(), src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
  return pixels(dst.get());
}

/// By a rescaler of its own.
std::vector<uint8_t> converted(AVFrame* src, const AVFrame* dst) {
  MR::QVRescale rescale;
  EXPECT_EQ(rescale.qv_config_frame(dst, src, {1, 25}), 0);
  const AVFrame* out = rescale.qv_convert_frame(src, &kUsec);
  return out != nullptr ? pixels(out) : std::vector<uint8_t>();
}

TEST(QVRescaleTest, EqualFormatPassesTheVeryFrameThrough) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48, 1);
  const FramePtr src = make_picture(AV_PIX_FMT_YUV420P, 64, 48, 2);
  const auto before = pixels(src.get());
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), 0);
  src->pts = 40000;
  EXPECT_EQ(rescale.qv_convert_frame(src.get(), &kUsec), src.get());
  EXPECT_EQ(src->pts, 1);
  EXPECT_EQ(pixels(src.get()), before);
}

TEST(QVRescaleTest, NullGivesNull) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), dst.get(), {1, 25}), 0);
  EXPECT_EQ(rescale.qv_convert_frame(nullptr, &kUsec), nullptr);
}

TEST(QVRescaleTest, ImagesAreScaledBicubicallyIntoTheEncodersFrame) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 1280, 720);
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 1920, 1080, 3);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), 0);
  src->pts = 80000;
  const AVFrame* out = rescale.qv_convert_frame(src.get(), &kUsec);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->data[0], dst->data[0]);
  EXPECT_EQ(out->pts, 2);
  EXPECT_EQ(src->pts, 80000);
  EXPECT_EQ(pixels(out), plainly_scaled(src.get(), AV_PIX_FMT_YUV420P, 1280, 720));
}

struct StampCase {
  const char* name;
  int64_t pts;
  AVRational tb;
  AVRational out_tb;
  int64_t expected;
};

class RescaledStamp : public testing::TestWithParam<StampCase> {};

TEST_P(RescaledStamp, IsRoundedToTheNearest) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, 16, 16);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(frame.get(), frame.get(), GetParam().out_tb), 0);
  frame->pts = GetParam().pts;
  ASSERT_NE(rescale.qv_convert_frame(frame.get(), &GetParam().tb), nullptr);
  EXPECT_EQ(frame->pts, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Stamps, RescaledStamp,
    testing::Values(StampCase{"OneFrame", 40000, kUsec, {1, 25}, 1}, StampCase{"Zero", 0, kUsec, {1, 25}, 0},
                    StampCase{"LessThanHalf", 19999, kUsec, {1, 25}, 0}, StampCase{"Half", 20000, kUsec, {1, 25}, 1},
                    StampCase{"Negative", -40000, kUsec, {1, 25}, -1}, StampCase{"FinerBase", 7, {1, 30}, {1, 60}, 14},
                    StampCase{"TwoHours", 7200000000, kUsec, {1, 25}, 180000}),
    meru_test::CaseName());

struct TagCase {
  const char* name;
  AVColorSpace space;
  AVColorRange range;
  int matrix;
  int full;
};

class TaggedEncoder : public testing::TestWithParam<TagCase> {};

TEST_P(TaggedEncoder, GetsPixelsThatMatchItsTags) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  dst->colorspace = GetParam().space;
  dst->color_range = GetParam().range;
  // The second is converted by loops of our own, which round in other places.
  for (const auto& [format, rounding] : {std::pair(AV_PIX_FMT_ARGB, 0), std::pair(AV_PIX_FMT_BGRA, 2)}) {
    const FramePtr src = make_picture(format, 64, 48, 5);
    const auto found = converted(src.get(), dst.get());
    const auto wanted = plainly_scaled(src.get(), AV_PIX_FMT_YUV420P, 64, 48, GetParam().matrix, GetParam().full);
    ASSERT_EQ(found.size(), wanted.size());
    for (size_t i = 0; i < found.size(); ++i) ASSERT_NEAR(found[i], wanted[i], rounding) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Tags, TaggedEncoder,
                         testing::Values(TagCase{"Nothing", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED, -1, 0},
                                         TagCase{"Bt709", AVCOL_SPC_BT709, AVCOL_RANGE_MPEG, SWS_CS_ITU709, 0},
                                         TagCase{"Bt709Full", AVCOL_SPC_BT709, AVCOL_RANGE_JPEG, SWS_CS_ITU709, 1},
                                         TagCase{"RangeOnly", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_JPEG, SWS_CS_DEFAULT,
                                                 1}),
                         meru_test::CaseName());

TEST(QVRescaleTest, ImpossibleConversionIsReported) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  const FramePtr src(av_frame_alloc());
  src->width = 64;
  src->height = 48;
  src->format = AV_PIX_FMT_VAAPI;
  MR::QVRescale rescale;
  testing::internal::CaptureStderr();
  EXPECT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Could not initialize the conversion context\n");
}

TEST(QVRescaleTest, ImageOfAnotherSizeThanConfiguredIsRefused) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 64, 48);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), 0);
  EXPECT_EQ(rescale.qv_convert_frame(make_picture(AV_PIX_FMT_BGRA, 32, 48).get(), &kUsec), nullptr);
  EXPECT_EQ(rescale.qv_convert_frame(make_picture(AV_PIX_FMT_RGB24, 64, 48).get(), &kUsec), nullptr);
  EXPECT_NE(rescale.qv_convert_frame(src.get(), &kUsec), nullptr);
}

TEST(QVRescaleTest, HeldFrameNeverChanges) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), make_picture(AV_PIX_FMT_BGRA, 64, 48).get(), {1, 25}), 0);
  std::vector<FramePtr> held;
  std::vector<std::vector<uint8_t>> expected;
  for (int i = 0; i < 5; ++i) {
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 64, 48, i);
    const AVFrame* out = rescale.qv_convert_frame(src.get(), &kUsec);
    ASSERT_NE(out, nullptr);
    held.emplace_back(av_frame_clone(out));
    expected.push_back(converted(src.get(), make_picture(AV_PIX_FMT_YUV420P, 64, 48).get()));
  }
  for (size_t i = 0; i < held.size(); ++i) EXPECT_EQ(pixels(held[i].get()), expected[i]) << i;
}

TEST(QVRescaleTest, BuffersAreReusedOnceNobodyHoldsThem) {
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 64, 48);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), 0);
  FramePtr held(av_frame_clone(rescale.qv_convert_frame(src.get(), &kUsec)));
  const uint8_t* fresh = rescale.qv_convert_frame(src.get(), &kUsec)->data[0];
  held.reset();
  EXPECT_EQ(rescale.qv_convert_frame(src.get(), &kUsec)->data[0], fresh);
}

}  // namespace

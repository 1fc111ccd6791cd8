#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "base/video_enc.h"
#include "support/fake_writer.h"
#include "support/media_frames.h"
#include "support/small_movie.h"

namespace {

using meru_test::make_picture;
using meru_test::pixels;

constexpr AVRational kUsec{1, 1000000};
constexpr int kWidth = 64;
constexpr int kHeight = 48;

class VideoTestPattern : public testing::Test {
 protected:
  void open(AVPixelFormat src_format, int src_width = kWidth, int src_height = kHeight) {
    MovieInfo info = meru_test::small_movie("x.mkv");
    info.pix_fmt_src = src_format;
    info.width_src = src_width;
    info.height_src = src_height;
    const AVCodec* codec = avcodec_find_encoder_by_name("mpeg4");
    AVFormatContext* oc = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "matroska", nullptr), 0);
    m_oc.reset(oc);
    m_ost.st = avformat_new_stream(oc, nullptr);
    m_ost.enc.reset(avcodec_alloc_context3(codec));
    m_ost.enc->width = kWidth;
    m_ost.enc->height = kHeight;
    m_ost.enc->pix_fmt = AV_PIX_FMT_YUV420P;
    m_ost.enc->time_base = {1, 25};
    m_enc.open_video(oc, codec, &m_ost, nullptr, info);
  }
  AVFrame* next() { return m_enc.get_video_frame_test(&m_ost, kUsec); }

  FormatContextPtr m_oc;
  OutputStream m_ost;
  meru_test::FakeWriter m_writer;
  VideoEnc m_enc{&m_writer};
};

void expect_plane(const AVFrame* frame, int plane, int w, int h, const std::function<int(int, int)>& formula) {
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      ASSERT_EQ(frame->data[plane][y * frame->linesize[plane] + x], formula(x, y) & 0xff)
          << "plane " << plane << " at " << x << ", " << y;
    }
  }
}

void expect_pattern(const AVFrame* frame, int i, int w, int h) {
  expect_plane(frame, 0, w, h, [i](int x, int y) { return x + y + 3 * i; });
  expect_plane(frame, 1, w / 2, h / 2, [i](int, int y) { return 128 + y + 2 * i; });
  expect_plane(frame, 2, w / 2, h / 2, [i](int x, int) { return 64 + x + 5 * i; });
}

class YuvImage : public testing::TestWithParam<int> {};

TEST_P(YuvImage, FollowsTheFormulaPixelByPixel) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, 300, 270);  // every value wraps
  VideoEnc::fill_yuv_image(frame.get(), GetParam(), 300, 270);
  expect_pattern(frame.get(), GetParam(), 300, 270);
}

INSTANTIATE_TEST_SUITE_P(Indexes, YuvImage, testing::Values(0, 1, 50, 1000));

TEST(YuvImageTest, SharedPictureIsNotPaintedOver) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight, 3);
  const FramePtr other(av_frame_clone(frame.get()));
  const auto before = pixels(other.get());
  VideoEnc::fill_yuv_image(frame.get(), 1, kWidth, kHeight);
  EXPECT_EQ(pixels(other.get()), before);
  expect_pattern(frame.get(), 1, kWidth, kHeight);
}

TEST(YuvImageTest, PaintStaysInsideASmallerPicture) {
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, 32, 16);
  VideoEnc::fill_yuv_image(frame.get(), 2, 1000, 1000);
  expect_pattern(frame.get(), 2, 32, 16);
}

TEST_F(VideoTestPattern, PicturesFollowEachOtherAtTheFrameRate) {
  open(AV_PIX_FMT_YUV420P);
  for (int i = 0; i < 5; ++i) {
    const AVFrame* frame = next();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame, m_ost.tmp_frame.get());
    EXPECT_EQ(frame->pts, i * 40000);
    EXPECT_EQ(m_ost.next_pts, i + 1);
    expect_pattern(frame, i, kWidth, kHeight);
  }
}

TEST_F(VideoTestPattern, StartsAnewEveryTenSeconds) {
  open(AV_PIX_FMT_YUV420P);
  for (int i = 0; i < 251; ++i) ASSERT_NE(next(), nullptr);
  expect_pattern(m_ost.tmp_frame.get(), 0, kWidth, kHeight);  // picture 250, at ten seconds
  next();
  expect_pattern(m_ost.tmp_frame.get(), 1, kWidth, kHeight);
  for (int i = 252; i < 501; ++i) next();
  expect_pattern(m_ost.tmp_frame.get(), 0, kWidth, kHeight);
}

TEST_F(VideoTestPattern, IsConvertedToTheHostsFormat) {
  open(AV_PIX_FMT_BGRA, 96, 80);
  const FramePtr yuv = make_picture(AV_PIX_FMT_YUV420P, 96, 80);
  const FramePtr expected = make_picture(AV_PIX_FMT_BGRA, 96, 80);
  const SwsPtr sws(
      sws_getContext(96, 80, AV_PIX_FMT_YUV420P, 96, 80, AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr));
  for (int i = 0; i < 3; ++i) {
    const AVFrame* frame = next();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->format, AV_PIX_FMT_BGRA);
    EXPECT_EQ(frame->width, 96);
    EXPECT_EQ(frame->height, 80);
    VideoEnc::fill_yuv_image(yuv.get(), i, 96, 80);
    sws_scale(sws.get(), yuv->data, yuv->linesize, 0, 80, expected->data, expected->linesize);
    EXPECT_EQ(pixels(frame), pixels(expected.get())) << i;
  }
}

TEST_F(VideoTestPattern, PictureWithoutASizeIsRefused) {
  open(AV_PIX_FMT_BGRA, 0, 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Could not allocate frame data.\nCould not allocate temporary picture\n");
}

using VideoTestPatternDeathTest = VideoTestPattern;

TEST_F(VideoTestPatternDeathTest, FormatThatCannotBeMadeEndsTheProcess) {
  open(AV_PIX_FMT_BAYER_BGGR8);
  EXPECT_EXIT(next(), testing::ExitedWithCode(1), "Could not initialize the conversion context\n");
}

TEST_F(VideoTestPatternDeathTest, PictureThatCannotBeWrittenEndsTheProcess) {
  const FramePtr frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  EXPECT_EXIT(VideoEnc::fill_yuv_image(frame.get(), 0, 16, 16), testing::ExitedWithCode(1), "");
}

}  // namespace

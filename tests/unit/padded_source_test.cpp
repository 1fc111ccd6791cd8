#include "common/padded_source.h"

#include <gtest/gtest.h>

#include <string>

#include "ReSample/qv_resample.h"
#include "support/guarded_image.h"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace {

using meru_test::GuardedImage;
using meru_test::GuardedMemory;

constexpr AVRational kUsec{1, 1000000};

FramePtr blank(AVPixelFormat format, int width, int height) {
  FramePtr frame(av_frame_alloc());
  frame->format = format;
  frame->width = width;
  frame->height = height;
  if (av_frame_get_buffer(frame.get(), 0) < 0) return nullptr;
  std::array<ptrdiff_t, 4> stride{};
  std::copy_n(frame->linesize, 4, stride.begin());
  std::array<size_t, 4> size{};
  av_image_fill_plane_sizes(size.data(), format, height, stride.data());
  for (size_t i = 0; i < 4 && frame->data[i] != nullptr; ++i) memset(frame->data[i], static_cast<int>(80 + i), size[i]);
  return frame;
}

struct Target {
  AVPixelFormat format;
  int scale, more;  ///< of the source's width and height: scale / 3 + more
};
constexpr Target kTargets[]{
    {AV_PIX_FMT_YUV420P, 3, 0}, {AV_PIX_FMT_NV12, 3, 0}, {AV_PIX_FMT_YUV420P, 2, 9}, {AV_PIX_FMT_YUV444P10, 5, 4}};

/// Converts an image that ends at a page which cannot be read.
void convert(const AVFrame* image, const Target& target, int padding, GuardedMemory::Guard guard) {
  const GuardedImage source(image, padding, guard);
  const FramePtr dst = blank(target.format, image->width * target.scale / 3 + target.more,
                             image->height * target.scale / 3 + target.more);
  MR::QVRescale rescale;
  if (dst == nullptr || rescale.qv_config_frame(dst.get(), source.frame(), {1, 25}) != 0) return;
  ASSERT_NE(rescale.qv_convert_frame(source.frame(), &kUsec), nullptr);
}

void convert_all(AVPixelFormat format, const std::vector<int>& widths) {
  for (const int width : widths) {
    for (const int height : {1, 2, 5}) {
      const FramePtr image = blank(format, width, height);
      if (image == nullptr) continue;
      for (const Target& target : kTargets) {
        for (const int padding : {0, 13}) {
          convert(image.get(), target, padding, GuardedMemory::Guard::kBehind);
          convert(image.get(), target, padding, GuardedMemory::Guard::kInFront);
        }
      }
    }
  }
}

class HostImages : public testing::TestWithParam<AVPixelFormat> {};

TEST_P(HostImages, AreNotReadBeyondTheirLastRow) {
  std::vector<int> widths;
  for (int width = 1; width <= 40; ++width) widths.push_back(width);
  for (int width = 126; width <= 164; ++width) widths.push_back(width);
  convert_all(GetParam(), widths);
}

/// Wide enough for several threads.
TEST_P(HostImages, AreNotReadBeyondTheirLastRowByThreads) {
  for (const int width : {641, 642, 672, 1366, 1920}) {
    const FramePtr image = blank(GetParam(), width, 361);
    for (const Target& target : kTargets) convert(image.get(), target, 0, GuardedMemory::Guard::kBehind);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, HostImages,
                         testing::Values(AV_PIX_FMT_BGRA, AV_PIX_FMT_RGBA, AV_PIX_FMT_ARGB, AV_PIX_FMT_BGR0,
                                         AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_RGB565, AV_PIX_FMT_RGBA64,
                                         AV_PIX_FMT_NV12, AV_PIX_FMT_NV21, AV_PIX_FMT_P010, AV_PIX_FMT_YUV420P,
                                         AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV444P,
                                         AV_PIX_FMT_YUV420P10, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUYV422,
                                         AV_PIX_FMT_UYVY422, AV_PIX_FMT_GRAY8, AV_PIX_FMT_PAL8, AV_PIX_FMT_GBRP,
                                         AV_PIX_FMT_MONOBLACK),
                         [](const auto& format) { return std::string(av_get_pix_fmt_name(format.param)); });

TEST(HostImages, OfAnyFormatAreNotReadBeyondTheirLastRow) {
  const AVPixFmtDescriptor* desc = nullptr;
  while ((desc = av_pix_fmt_desc_next(desc)) != nullptr) {
    const AVPixelFormat format = av_pix_fmt_desc_get_id(desc);
    if (sws_isSupportedInput(format) > 0) convert_all(format, {1, 7, 18, 31, 130, 141, 160});
  }
}

/// Of the pixel that libswscale reads behind a row of an odd width, which is no part of the image.
TEST(PaddedSource, RepeatsTheLastPixelOfEachRow) {
  const FramePtr image = blank(AV_PIX_FMT_RGB24, 5, 3);
  for (int y = 0; y < 3; ++y) memset(image->data[0] + static_cast<ptrdiff_t>(y) * image->linesize[0], 10 * y + 1, 15);
  const GuardedImage source(image.get(), 0, GuardedMemory::Guard::kBehind);
  PaddedSource padded;
  const AVFrame* copy = padded.readable(source.frame(), 5);
  ASSERT_NE(copy, nullptr);
  ASSERT_NE(copy, source.frame());
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 18; ++x) {
      EXPECT_EQ(copy->data[0][static_cast<ptrdiff_t>(y) * copy->linesize[0] + x], 10 * y + 1) << x << ", " << y;
    }
  }
}

TEST(PaddedSource, ImagesWithRoomBehindThemAreReadWhereTheyAre) {
  const FramePtr image = blank(AV_PIX_FMT_RGB24, 51, 33);
  PaddedSource padded;
  EXPECT_EQ(padded.readable(image.get(), 51), image.get());
}

/// What screens and cameras give costs no copy.
TEST(PaddedSource, UsualImagesAreReadWhereTheyAre) {
  for (const auto& [format, width] :
       {std::pair(AV_PIX_FMT_BGRA, 1366), std::pair(AV_PIX_FMT_RGBA, 1080), std::pair(AV_PIX_FMT_NV12, 1920),
        std::pair(AV_PIX_FMT_YUYV422, 1280), std::pair(AV_PIX_FMT_YUV420P, 640)}) {
    const FramePtr image = blank(format, width, 48);
    const GuardedImage source(image.get(), 0, GuardedMemory::Guard::kBehind);
    PaddedSource padded;
    EXPECT_EQ(padded.readable(source.frame(), width), source.frame()) << av_get_pix_fmt_name(format);
  }
}

}  // namespace

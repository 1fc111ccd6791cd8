#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "IO_Cvt/io_cvt.h"
#include "capture/movie_capture2.h"
#include "support/case_name.h"
#include "support/fake_writer.h"
#include "support/guarded_image.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace {

using meru_test::GuardedMemory;

constexpr AVRational kUsec{1, 1000000};

struct StrideCase {
  const char* name;
  AVPixelFormat format;
  int width, linesize;
  std::vector<int> others;
};

class PlaneStrides : public testing::TestWithParam<StrideCase> {};

TEST_P(PlaneStrides, FollowFromTheFirst) {
  MovieInfo info{};
  info.pix_fmt_src = GetParam().format;
  info.width_src = GetParam().width;
  info.height_src = 4;
  const FramePtr image = IOCvt::alloc_video_bgra_frame(&info, GetParam().linesize);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->linesize[0], GetParam().linesize);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(image->linesize[i + 1], i < GetParam().others.size() ? GetParam().others[i] : 0) << "plane " << i + 1;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, PlaneStrides,
                         testing::Values(StrideCase{"Yuv420Even", AV_PIX_FMT_YUV420P, 6, 6, {3, 3}},
                                         StrideCase{"Yuv420EvenPadded", AV_PIX_FMT_YUV420P, 6, 32, {16, 16}},
                                         StrideCase{"Yuv420Odd", AV_PIX_FMT_YUV420P, 5, 5, {3, 3}},
                                         StrideCase{"Yuv420OddPadded", AV_PIX_FMT_YUV420P, 5, 32, {16, 16}},
                                         StrideCase{"Yuv420OddPaddedToOdd", AV_PIX_FMT_YUV420P, 5, 9, {5, 5}},
                                         StrideCase{"Yuv420WideOddPadded", AV_PIX_FMT_YUV420P, 641, 672, {336, 336}},
                                         StrideCase{"Yuva420OddPadded", AV_PIX_FMT_YUVA420P, 5, 32, {16, 16, 32}},
                                         StrideCase{"Yuv422Odd", AV_PIX_FMT_YUV422P, 5, 5, {3, 3}},
                                         StrideCase{"Yuv422OddPadded", AV_PIX_FMT_YUV422P, 5, 8, {4, 4}},
                                         StrideCase{"Yuv444OddPadded", AV_PIX_FMT_YUV444P, 5, 8, {8, 8}},
                                         StrideCase{"Yuv411Odd", AV_PIX_FMT_YUV411P, 5, 5, {2, 2}},
                                         StrideCase{"Yuv411OddPadded", AV_PIX_FMT_YUV411P, 5, 16, {4, 4}},
                                         StrideCase{"Yuv420TenBitOdd", AV_PIX_FMT_YUV420P10, 5, 10, {6, 6}},
                                         StrideCase{"Yuv420TenBitOddPadded", AV_PIX_FMT_YUV420P10, 5, 32, {16, 16}},
                                         StrideCase{"Nv12Odd", AV_PIX_FMT_NV12, 5, 5, {6}},
                                         StrideCase{"Nv12OddPadded", AV_PIX_FMT_NV12, 5, 32, {32}},
                                         StrideCase{"Nv21EvenPadded", AV_PIX_FMT_NV21, 6, 8, {8}},
                                         StrideCase{"P010Odd", AV_PIX_FMT_P010, 5, 10, {12}},
                                         StrideCase{"P010OddPadded", AV_PIX_FMT_P010, 5, 64, {64}},
                                         StrideCase{"GbrpPadded", AV_PIX_FMT_GBRP, 5, 8, {8, 8}},
                                         StrideCase{"Bgra", AV_PIX_FMT_BGRA, 5, 20, {}},
                                         StrideCase{"Mono", AV_PIX_FMT_MONOBLACK, 11, 4, {}}),
                         meru_test::CaseName());

/// As hosts lay them out: rows of `align` bytes in the first plane, proportionally shorter ones in the others, planes
/// one after the other, and nothing after the last row.
struct HostImage {
  std::vector<uint8_t> bytes;
  int linesize;
};

HostImage lay_out(const AVFrame* image, int align) {
  const auto format = static_cast<AVPixelFormat>(image->format);
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
  std::array<int, 4> steps{};
  av_image_fill_max_pixsteps(steps.data(), nullptr, desc);
  const int columns = (image->width + align - 1) / align * align;
  HostImage out{{}, columns * steps[0]};
  size_t end = 0;
  for (size_t i = 0; i < 4 && image->data[i] != nullptr; ++i) {
    const bool chroma = i == 1 || i == 2;
    const int row_bytes = av_image_get_linesize(format, image->width, static_cast<int>(i));
    const int stride = (chroma ? AV_CEIL_RSHIFT(columns, desc->log2_chroma_w) : columns) * steps[i];
    const int rows = chroma ? AV_CEIL_RSHIFT(image->height, desc->log2_chroma_h) : image->height;
    const size_t first = out.bytes.size();
    out.bytes.resize(first + static_cast<size_t>(stride) * static_cast<size_t>(rows), 0xEE);
    for (int y = 0; y < rows; ++y) {
      const size_t row = first + static_cast<size_t>(y) * static_cast<size_t>(stride);
      std::memcpy(&out.bytes[row], image->data[i] + static_cast<ptrdiff_t>(y) * image->linesize[i],
                  static_cast<size_t>(row_bytes));
      end = row + static_cast<size_t>(row_bytes);
    }
  }
  out.bytes.resize(end);
  return out;
}

/// Keeps what the encoder would get.
class KeepingCvt : public IOCvt {
 public:
  using IOCvt::IOCvt;
  bool out_frame(bool video, AVFrame* frame, AVRational* tb) override {
    pixels = meru_test::pixels(frame);
    return IOCvt::out_frame(video, frame, tb);
  }
  std::vector<uint8_t> pixels;
};

class HostImageTest : public testing::TestWithParam<AVPixelFormat> {
 protected:
  void start(int width, int height) {
    MovieInfo info = meru_test::small_movie(m_dir.file("a.mp4"));
    info.pix_fmt_src = GetParam();
    info.width_src = width;
    info.height_src = height;
    m_session = std::make_unique<MovieCapture2>(new meru_test::FakeWriter);
    m_session->start(info, nullptr, nullptr, false);
  }

  meru_test::TempDir m_dir;
  std::unique_ptr<MovieCapture2> m_session;
};

TEST_P(HostImageTest, IsReadInWhateverWayItsRowsArePadded) {
  for (const int width : {33, 34, 61, 64}) {
    const FramePtr image = meru_test::make_picture(GetParam(), width, 48, 3);
    std::vector<uint8_t> tight;
    for (const int align : {1, 8, 32, 64}) {
      SCOPED_TRACE(std::to_string(width) + " aligned to " + std::to_string(align));
      start(width, 48);
      const HostImage host = lay_out(image.get(), align);
      const GuardedMemory memory(host.bytes.size(), GuardedMemory::Guard::kBehind);
      std::memcpy(memory.data(), host.bytes.data(), host.bytes.size());
      KeepingCvt cvt(m_session.get());
      ASSERT_EQ(cvt.fill_video_bgra(memory.data(), 1, 0, host.linesize), 1);
      if (tight.empty()) tight = cvt.pixels;
      EXPECT_EQ(cvt.pixels, tight);
    }
    KeepingCvt from_frame(m_session.get());
    image->pts = 1000000;
    ASSERT_EQ(from_frame.fill_video_frame(image.get(), &kUsec), 1);
    ASSERT_EQ(from_frame.pixels.size(), tight.size());
    if (width % 2 == 0) {
      EXPECT_EQ(from_frame.pixels, tight);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, HostImageTest,
                         testing::Values(AV_PIX_FMT_BGRA, AV_PIX_FMT_RGB24, AV_PIX_FMT_NV12, AV_PIX_FMT_NV21,
                                         AV_PIX_FMT_YUV420P, AV_PIX_FMT_P010, AV_PIX_FMT_YUV420P10),
                         [](const auto& format) { return std::string(av_get_pix_fmt_name(format.param)); });

}  // namespace

#include "ReSample/rgb_to_yuv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <tuple>

#include "ReSample/qv_resample.h"
#include "support/case_name.h"
#include "support/media_frames.h"

namespace {

using meru_test::make_picture;
using meru_test::pixels;
using MR::RgbToYuv;

using Paint = std::function<void(AVFrame*)>;

uint8_t* pixel(AVFrame* frame, int x, int y) {
  return frame->data[0] + static_cast<ptrdiff_t>(y) * frame->linesize[0] + static_cast<ptrdiff_t>(x) * 4;
}

void paint_each(AVFrame* frame, const std::function<int(int x, int y, int byte)>& value) {
  for (int y = 0; y < frame->height; ++y) {
    for (int x = 0; x < frame->width; ++x) {
      for (int byte = 0; byte < 4; ++byte) pixel(frame, x, y)[byte] = static_cast<uint8_t>(value(x, y, byte));
    }
  }
}

void paint_noise(AVFrame* frame) {
  std::minstd_rand random(1);
  paint_each(frame, [&](int, int, int) { return static_cast<int>(random() >> 8) & 255; });
}

void paint_gradients(AVFrame* frame) {
  const int w = frame->width, h = frame->height;
  paint_each(frame, [&](int x, int y, int byte) {
    if (byte == 0) return 255 * x / w;
    return byte == 1 ? 255 * y / h : 255 * (x + y) / (w + h);
  });
}

/// Strokes a pixel wide, dark on light, some of them coloured: the hardest edges that a screen shows.
void paint_text(AVFrame* frame) {
  std::minstd_rand random(2);
  paint_each(frame, [](int, int, int) { return 250; });
  for (int letter = 0; letter < frame->width * frame->height / 40; ++letter) {
    const int x = static_cast<int>(random() % static_cast<unsigned>(frame->width));
    const int y = static_cast<int>(random() % static_cast<unsigned>(frame->height));
    const bool upright = random() % 2 == 0;
    const auto colour = static_cast<unsigned>(random() % 4 == 0 ? random() : 0);
    for (int i = 0; i < 7; ++i) {
      const int px = upright ? x : x + i, py = upright ? y + i : y;
      if (px >= frame->width || py >= frame->height) break;
      for (int byte = 0; byte < 3; ++byte) pixel(frame, px, py)[byte] = static_cast<uint8_t>(colour >> (8 * byte));
    }
  }
}

/// Smooth areas with the grain of a camera.
void paint_photograph(AVFrame* frame) {
  std::minstd_rand random(3);
  paint_each(frame, [&](int x, int y, int byte) {
    const double light = 120 + 70 * std::sin(x * 0.031 + byte) + 50 * std::cos(y * 0.047 - byte * 0.7);
    return std::clamp(static_cast<int>(light) + static_cast<int>(random() % 9) - 4, 0, 255);
  });
}

struct Material {
  const char* name;
  void (*paint)(AVFrame*);
};
void PrintTo(const Material& m, std::ostream* out) { *out << m.name; }

struct Colours {
  const char* name;
  int colorspace, range;
};
void PrintTo(const Colours& c, std::ostream* out) { *out << c.name; }

struct Difference {
  int most = 0;
  double above_one = 0, mean = 0;  ///< share of samples; signed
};

Difference difference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, size_t from, size_t to) {
  Difference d;
  long long sum = 0, above = 0;
  for (size_t i = from; i < to; ++i) {
    const int one = static_cast<int>(a[i]) - static_cast<int>(b[i]);
    d.most = std::max(d.most, std::abs(one));
    above += std::abs(one) > 1 ? 1 : 0;
    sum += one;
  }
  const auto count = static_cast<double>(to - from);
  d.above_one = static_cast<double>(above) / count;
  d.mean = static_cast<double>(sum) / count;
  return d;
}

/// Luma apart from chroma, so that neither hides the other.
void expect_alike(const std::vector<uint8_t>& ours, const std::vector<uint8_t>& theirs, size_t luma) {
  ASSERT_EQ(ours.size(), theirs.size());
  for (const auto& [from, to] : {std::pair(size_t{0}, luma), std::pair(luma, ours.size())}) {
    const Difference d = difference(ours, theirs, from, to);
    const char* what = from == 0 ? "luma" : "chroma";
    EXPECT_LE(d.most, 2) << what;
    EXPECT_LE(d.above_one, 0.001) << what;
    EXPECT_LT(std::abs(d.mean), 0.1) << what;
  }
}

std::vector<uint8_t> scaled(const AVFrame* src, AVPixelFormat format, const Colours& colours) {
  const FramePtr dst = make_picture(format, src->width, src->height);
  const SwsPtr sws = make_scaler({src->width, src->height, src->format}, {src->width, src->height, format},
                                 colours.colorspace, colours.range);
  sws_scale(sws.get(), src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
  return pixels(dst.get());
}

std::vector<uint8_t> converted(const AVFrame* src, AVPixelFormat format, const Colours& colours,
                               RgbToYuv::Vectors vectors) {
  const ImageFormat from{src->width, src->height, src->format}, to{src->width, src->height, format};
  const auto conversion = RgbToYuv::make(from, to, colours.colorspace, colours.range, vectors);
  if (conversion == nullptr) return {};
  const FramePtr dst = make_picture(format, src->width, src->height);
  conversion->convert(src->data[0], src->linesize[0], dst->data, dst->linesize);
  return pixels(dst.get());
}

constexpr Colours kPlain{"Plain", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED};
constexpr Colours kColours[] = {
    kPlain,
    {"PlainLimited", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_MPEG},
    {"PlainFull", AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_JPEG},
    {"Rgb", AVCOL_SPC_RGB, AVCOL_RANGE_UNSPECIFIED},
    {"Bt709", AVCOL_SPC_BT709, AVCOL_RANGE_UNSPECIFIED},
    {"Bt709Full", AVCOL_SPC_BT709, AVCOL_RANGE_JPEG},
    {"Fcc", AVCOL_SPC_FCC, AVCOL_RANGE_MPEG},
    {"Bt470bgFull", AVCOL_SPC_BT470BG, AVCOL_RANGE_JPEG},
    {"Smpte170m", AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG},
    {"Smpte240m", AVCOL_SPC_SMPTE240M, AVCOL_RANGE_MPEG},
    {"Smpte240mFull", AVCOL_SPC_SMPTE240M, AVCOL_RANGE_JPEG},
    {"YCgCo", AVCOL_SPC_YCGCO, AVCOL_RANGE_UNSPECIFIED},
    {"Bt2020", AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_MPEG},
    {"Bt2020Full", AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_JPEG},
};

constexpr Material kMaterials[] = {
    {"Noise", paint_noise}, {"Gradients", paint_gradients}, {"Text", paint_text}, {"Photograph", paint_photograph}};

class RgbToYuvColours : public testing::TestWithParam<std::tuple<Material, Colours, RgbToYuv::Vectors>> {};

TEST_P(RgbToYuvColours, PixelsAreThoseOfTheScaler) {
  const auto& [material, colours, vectors] = GetParam();
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 322, 182);  // not a multiple of any vector
  material.paint(src.get());
  expect_alike(converted(src.get(), AV_PIX_FMT_YUV420P, colours, vectors),
               scaled(src.get(), AV_PIX_FMT_YUV420P, colours), size_t{322} * 182);
}

INSTANTIATE_TEST_SUITE_P(All, RgbToYuvColours,
                         testing::Combine(testing::ValuesIn(kMaterials), testing::ValuesIn(kColours),
                                          testing::Values(RgbToYuv::Vectors::kBest, RgbToYuv::Vectors::kBaseline)),
                         [](const auto& test) {
                           const bool best = std::get<2>(test.param) == RgbToYuv::Vectors::kBest;
                           return std::string(std::get<0>(test.param).name) + std::get<1>(test.param).name +
                                  (best ? "" : "Baseline");
                         });

struct FormatCase {
  const char* name;
  AVPixelFormat from, to;
};
class RgbToYuvFormats : public testing::TestWithParam<FormatCase> {};

TEST_P(RgbToYuvFormats, PixelsAreThoseOfTheScaler) {
  for (const Material& material : kMaterials) {
    SCOPED_TRACE(material.name);
    const FramePtr src = make_picture(GetParam().from, 322, 182);
    material.paint(src.get());
    expect_alike(converted(src.get(), GetParam().to, kPlain, RgbToYuv::Vectors::kBest),
                 scaled(src.get(), GetParam().to, kPlain), size_t{322} * 182);
  }
}

INSTANTIATE_TEST_SUITE_P(All, RgbToYuvFormats,
                         testing::Values(FormatCase{"BgraPlanar", AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV420P},
                                         FormatCase{"Bgr0Planar", AV_PIX_FMT_BGR0, AV_PIX_FMT_YUV420P},
                                         FormatCase{"RgbaPlanar", AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P},
                                         FormatCase{"Rgb0Planar", AV_PIX_FMT_RGB0, AV_PIX_FMT_YUV420P},
                                         FormatCase{"BgraNv12", AV_PIX_FMT_BGRA, AV_PIX_FMT_NV12},
                                         FormatCase{"Bgr0Nv12", AV_PIX_FMT_BGR0, AV_PIX_FMT_NV12},
                                         FormatCase{"RgbaNv12", AV_PIX_FMT_RGBA, AV_PIX_FMT_NV12},
                                         FormatCase{"Rgb0Nv12", AV_PIX_FMT_RGB0, AV_PIX_FMT_NV12}),
                         meru_test::CaseName());

struct SizeCase {
  const char* name;
  int width, height;
  bool own;
};
class RgbToYuvSizes : public testing::TestWithParam<SizeCase> {};

/// Through the rescaler, which leaves to libswscale what is not its own.
TEST_P(RgbToYuvSizes, PixelsAreThoseOfTheScaler) {
  const auto [name, width, height, own] = GetParam();
  for (const Material& material : kMaterials) {
    SCOPED_TRACE(material.name);
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, width, height);
    material.paint(src.get());
    EXPECT_EQ(converted(src.get(), AV_PIX_FMT_YUV420P, kPlain, RgbToYuv::Vectors::kBest).empty(), !own);
    const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, width, height);
    MR::QVRescale rescale;
    ASSERT_EQ(rescale.qv_config_frame(dst.get(), src.get(), {1, 25}), 0);
    const AVRational usec{1, 1000000};
    const AVFrame* out = rescale.qv_convert_frame(src.get(), &usec);
    ASSERT_NE(out, nullptr);
    expect_alike(pixels(out), scaled(src.get(), AV_PIX_FMT_YUV420P, kPlain),
                 static_cast<size_t>(width) * static_cast<size_t>(height));
  }
}

INSTANTIATE_TEST_SUITE_P(All, RgbToYuvSizes,
                         testing::Values(SizeCase{"Smallest", 64, 48, true}, SizeCase{"Narrow", 62, 64, false},
                                         SizeCase{"Low", 640, 46, false}, SizeCase{"FewPixels", 2, 2, false},
                                         SizeCase{"OddWidth", 65, 48, false}, SizeCase{"OddHeight", 64, 47, false},
                                         SizeCase{"Odd", 65, 47, false}, SizeCase{"NotOfSixteen", 854, 480, true},
                                         SizeCase{"FullHd", 1920, 1080, true}),
                         meru_test::CaseName());

TEST(RgbToYuvTest, RowsMayBeStoredBottomUpAndWithGaps) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 66, 50);
  paint_noise(src.get());
  std::vector<uint8_t> stored(size_t{50} * 300);
  for (int y = 0; y < 50; ++y) std::copy_n(pixel(src.get(), 0, y), 66 * 4, &stored[static_cast<size_t>(49 - y) * 300]);
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, 66, 50);
  const auto conversion =
      RgbToYuv::make({66, 50, AV_PIX_FMT_BGRA}, {66, 50, AV_PIX_FMT_YUV420P}, kPlain.colorspace, kPlain.range);
  ASSERT_NE(conversion, nullptr);
  conversion->convert(&stored[size_t{49} * 300], -300, dst->data, dst->linesize);
  EXPECT_EQ(pixels(dst.get()), converted(src.get(), AV_PIX_FMT_YUV420P, kPlain, RgbToYuv::Vectors::kBest));
}

/// Rows that end within a vector of any length, and images of one band, of two and of many.
TEST(RgbToYuvTest, VectorsOfEveryKindGiveTheSamePixels) {
  for (const auto& [width, height] : {std::pair(64, 48), std::pair(66, 238), std::pair(78, 240), std::pair(642, 362),
                                      std::pair(94, 1082), std::pair(126, 1440)}) {
    SCOPED_TRACE(width);
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, width, height);
    paint_noise(src.get());
    for (const Colours& colours : kColours) {
      for (const AVPixelFormat format : {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P}) {
        EXPECT_EQ(converted(src.get(), format, colours, RgbToYuv::Vectors::kBest),
                  converted(src.get(), format, colours, RgbToYuv::Vectors::kBaseline))
            << colours.name;
      }
    }
  }
}

TEST(RgbToYuvTest, BandsLeaveNoSeam) {
  const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 64, 1082);
  paint_noise(src.get());
  expect_alike(converted(src.get(), AV_PIX_FMT_YUV420P, kPlain, RgbToYuv::Vectors::kBest),
               scaled(src.get(), AV_PIX_FMT_YUV420P, kPlain), size_t{64} * 1082);
}

TEST(RgbToYuvTest, GreyHasNoColourAndTheEndsAreReached) {
  for (const auto& [value, limited, full] : {std::tuple(0, 16, 0), std::tuple(255, 235, 255)}) {
    const int grey = value;
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, 64, 48);
    paint_each(src.get(), [grey](int, int, int) { return grey; });
    for (const Colours& colours : kColours) {
      const auto out = converted(src.get(), AV_PIX_FMT_YUV420P, colours, RgbToYuv::Vectors::kBest);
      ASSERT_EQ(out.size(), 64U * 48U * 3U / 2U);
      EXPECT_EQ(out.front(), colours.range == AVCOL_RANGE_JPEG ? full : limited) << colours.name;
      EXPECT_EQ(out.back(), 128) << colours.name;
    }
  }
}

TEST(RgbToYuvTest, OtherConversionsAreNotItsOwn) {
  const auto made = [](const ImageFormat& from, const ImageFormat& to) {
    return RgbToYuv::make(from, to, AVCOL_SPC_UNSPECIFIED, 0) != nullptr;
  };
  EXPECT_TRUE(made({64, 48, AV_PIX_FMT_BGRA}, {64, 48, AV_PIX_FMT_YUV420P}));
  EXPECT_FALSE(made({64, 48, AV_PIX_FMT_BGRA}, {32, 24, AV_PIX_FMT_YUV420P}));
  EXPECT_FALSE(made({64, 48, AV_PIX_FMT_BGRA}, {64, 48, AV_PIX_FMT_YUV444P}));
  EXPECT_FALSE(made({64, 48, AV_PIX_FMT_ARGB}, {64, 48, AV_PIX_FMT_YUV420P}));
  EXPECT_FALSE(made({64, 48, AV_PIX_FMT_BGR24}, {64, 48, AV_PIX_FMT_YUV420P}));
  EXPECT_FALSE(made({0, 0, AV_PIX_FMT_BGRA}, {0, 0, AV_PIX_FMT_YUV420P}));
}

}  // namespace

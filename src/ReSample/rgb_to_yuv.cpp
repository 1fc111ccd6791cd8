#include "ReSample/rgb_to_yuv.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ReSample/rgb_to_yuv_loops.h"

namespace MR {

using namespace rgb_to_yuv;

namespace {

constexpr int kMinWidth = 64;
constexpr int kMinHeight = 48;
// Small enough that threads which share an image end together, large enough that the rows that two bands need do not
// count.
constexpr int kBandRows = 120;

constexpr RgbToYuv::Loops kPlainLoops{
    [](const uint8_t* p, int n, const RgbToYuv::Matrix& m, uint8_t* out) { luma_loop(p, n, m, out); },
    [](const uint8_t* p, int n, const RgbToYuv::Matrix& m, int16_t* u, int16_t* v) { chroma_loop(p, n, m, u, v); },
    [](const int16_t* const* rows, int n, uint8_t* out) { filter_loop(rows, n, out); },
    [](const uint8_t* u, const uint8_t* v, int n, uint8_t* out) { interleave_loop(u, v, n, out); }};

const RgbToYuv::Loops& choose_loops(RgbToYuv::Vectors vectors) {
  const RgbToYuv::Loops* const best = vectors == RgbToYuv::Vectors::kBest ? avx2_loops() : nullptr;
  return best != nullptr ? *best : kPlainLoops;
}

/// `red_first` tells the order of the bytes.
RgbToYuv::Weights weights(bool red_first, double red, double green, double blue, double scale) {
  const auto fixed = [scale](double weight) {
    return static_cast<int>(std::lrint(weight * scale * (1 << kWeightBits)));
  };
  if (red_first) return {{fixed(red), fixed(green), fixed(blue)}};
  return {{fixed(blue), fixed(green), fixed(red)}};
}

RgbToYuv::Matrix make_matrix(bool red_first, int colorspace, int color_range) {
  // What of red and blue a YUV image of limited range is multiplied with, in 1/65536: 2 * (1 - weight) * 255 / 224.
  const bool named = colorspace != AVCOL_SPC_UNSPECIFIED && colorspace != AVCOL_SPC_RGB;
  const int* table = sws_getCoefficients(named ? colorspace : SWS_CS_DEFAULT);
  const auto weight = [](int factor) { return 1 - factor / 65536.0 * 224 / 510; };
  const double red = weight(table[0]), blue = weight(table[1]), green = 1 - red - blue;

  const bool full = color_range == AVCOL_RANGE_JPEG;
  const double luma = full ? 1 : 219.0 / 255, chroma = full ? 1 : 224.0 / 255;
  const double u = chroma / (2 * (1 - blue)), v = chroma / (2 * (1 - red));
  RgbToYuv::Matrix matrix{};
  matrix.y = weights(red_first, red, green, blue, luma);
  matrix.u = weights(red_first, -red, -green, 1 - blue, u);
  matrix.v = weights(red_first, 1 - red, -green, -blue, v);
  // A grey has no colour, so its weights must cancel each other out whatever the rounding did.
  for (RgbToYuv::Weights* w : {&matrix.u, &matrix.v}) w->byte[1] = -w->byte[0] - w->byte[2];
  matrix.y_offset = ((full ? 0 : 16) << kWeightBits) + (1 << (kWeightBits - 1));
  return matrix;
}

bool is_little_endian() {
  const uint16_t one = 1;
  uint8_t first;
  std::memcpy(&first, &one, 1);
  return first == 1;
}

}  // namespace

std::unique_ptr<RgbToYuv> RgbToYuv::make(const ImageFormat& src, const ImageFormat& dst, int colorspace,
                                         int color_range, Vectors vectors) {
  const bool blue_first = src.format == AV_PIX_FMT_BGRA || src.format == AV_PIX_FMT_BGR0;
  const bool red_first = src.format == AV_PIX_FMT_RGBA || src.format == AV_PIX_FMT_RGB0;
  const bool interleaved = dst.format == AV_PIX_FMT_NV12;
  if (!blue_first && !red_first) return nullptr;
  if (!interleaved && dst.format != AV_PIX_FMT_YUV420P) return nullptr;
  if (src.width != dst.width || src.height != dst.height) return nullptr;
  // Where rows do not come in pairs libswscale's filter is another one for each row; and small images are not worth it.
  if (src.width < kMinWidth || src.height < kMinHeight || src.width % 2 != 0 || src.height % 2 != 0) return nullptr;
  if (!is_little_endian()) return nullptr;
  return std::unique_ptr<RgbToYuv>(
      new RgbToYuv(src, interleaved, make_matrix(red_first, colorspace, color_range), choose_loops(vectors)));
}

RgbToYuv::RgbToYuv(const ImageFormat& image, bool interleaved, const Matrix& matrix, const Loops& loops)
    : m_width(image.width),
      m_height(image.height),
      m_interleaved(interleaved),
      m_matrix(matrix),
      m_loops(loops),
      m_bands(std::max(1, m_height / kBandRows)),
      m_work(m_bands == 1 ? 1 : SharedWork::usual_threads()),
      m_rows(static_cast<size_t>(m_work.threads())) {
  const auto half = static_cast<size_t>(m_width) / 2;
  for (Rows& rows : m_rows) {
    rows.u.resize(half * kTaps);
    rows.v.resize(half * kTaps);
    if (!m_interleaved) continue;
    for (auto& row : rows.pair) row.resize(half);
  }
}

void RgbToYuv::convert(const uint8_t* src, int src_linesize, uint8_t* const* planes, const int* linesizes) {
  const Image image{src, src_linesize, planes, linesizes};
  m_work.run(m_bands, [&](int band, int thread) { convert_band(image, band, &m_rows[static_cast<size_t>(thread)]); });
}

void RgbToYuv::convert_band(const Image& image, int band, Rows* rows) const {
  const int half = m_width / 2;
  const int first = m_height / 2 * band / m_bands, end = m_height / 2 * (band + 1) / m_bands;  // rows of chroma
  // A row of chroma needs some of the image before and behind its own two, which the bands beside this one own.
  constexpr int kBefore = kTaps / 2 - 1, kBehind = kTaps / 2;
  int next = first;
  for (int row = std::max(2 * first - kBefore, 0); row < std::min(2 * end + kBehind - 1, m_height); ++row) {
    const uint8_t* pixels = image.src + static_cast<ptrdiff_t>(row) * image.src_linesize;
    if (row >= 2 * first && row < 2 * end) {
      m_loops.luma(pixels, m_width, m_matrix, image.planes[0] + static_cast<ptrdiff_t>(row) * image.linesizes[0]);
    }
    const auto slot = static_cast<size_t>(row % kTaps) * static_cast<size_t>(half);
    m_loops.chroma(pixels, half, m_matrix, &rows->u[slot], &rows->v[slot]);
    if (row == 2 * next + kBehind) write_chroma(image, next++, rows);
  }
  while (next < end) write_chroma(image, next++, rows);
}

void RgbToYuv::write_chroma(const Image& image, int row, Rows* rows) const {
  const int half = m_width / 2;
  const int16_t* u[kTaps];
  const int16_t* v[kTaps];
  for (int tap = 0; tap < kTaps; ++tap) {
    // Beyond the edges the outermost rows go on.
    const int source = std::clamp(2 * row + 1 - kTaps / 2 + tap, 0, m_height - 1);
    const auto slot = static_cast<size_t>(source % kTaps) * static_cast<size_t>(half);
    u[tap] = &rows->u[slot];
    v[tap] = &rows->v[slot];
  }
  const auto out = [&](int plane) {
    return image.planes[plane] + static_cast<ptrdiff_t>(row) * image.linesizes[plane];
  };
  m_loops.filter(u, half, m_interleaved ? rows->pair[0].data() : out(1));
  m_loops.filter(v, half, m_interleaved ? rows->pair[1].data() : out(2));
  if (m_interleaved) m_loops.interleave(rows->pair[0].data(), rows->pair[1].data(), half, out(1));
}

}  // namespace MR

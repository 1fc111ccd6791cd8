#include "ReSample/rgb_to_yuv.h"

#include <algorithm>
#include <cmath>
#include <cstring>

// The loops are written so that the compiler vectorises them; this file is compiled with -O3 for that. On x86-64 they
// are compiled twice, for what every processor has and for AVX2, and chosen when the conversion is made.
#if defined(__x86_64__)
#define MERU_HAS_AVX2 1
#endif
#define MERU_INLINE inline __attribute__((always_inline))

namespace MR {
namespace {

constexpr int kMinWidth = 64;
constexpr int kMinHeight = 48;
constexpr int kWeightBits = 15;
constexpr int kChromaBits = 6;   // fraction of a row of chroma between the two passes
constexpr int kFilterBits = 12;  // fraction of the filter's weights
/// Half of the bicubic filter that libswscale halves rows with, from the middle outwards; the other half mirrors it.
constexpr int kFilter[4] = {1786, 493, -173, -58};
static_assert(2 * (kFilter[0] + kFilter[1] + kFilter[2] + kFilter[3]) == 1 << kFilterBits);

MERU_INLINE int byte_of(uint32_t pixel, int place) { return static_cast<int>((pixel >> (8 * place)) & 0xff); }

MERU_INLINE uint32_t load(const uint8_t* pixels, int place) {
  uint32_t pixel;
  std::memcpy(&pixel, pixels + static_cast<ptrdiff_t>(place) * 4, sizeof(pixel));
  return pixel;
}

MERU_INLINE void luma_loop(const uint8_t* pixels, int width, const RgbToYuv::Matrix& matrix, uint8_t* out) {
  const int w0 = matrix.y.byte[0], w1 = matrix.y.byte[1], w2 = matrix.y.byte[2], offset = matrix.y_offset;
  for (int i = 0; i < width; ++i) {
    const uint32_t p = load(pixels, i);
    out[i] =
        static_cast<uint8_t>((byte_of(p, 0) * w0 + byte_of(p, 1) * w1 + byte_of(p, 2) * w2 + offset) >> kWeightBits);
  }
}

MERU_INLINE int16_t weighted(const int* sums, const RgbToYuv::Weights& weights) {
  constexpr int kShift = kWeightBits + 1 - kChromaBits;
  const int sum = sums[0] * weights.byte[0] + sums[1] * weights.byte[1] + sums[2] * weights.byte[2];
  return static_cast<int16_t>((sum + (1 << (kShift - 1))) >> kShift);
}

MERU_INLINE void chroma_loop(const uint8_t* pixels, int width, const RgbToYuv::Matrix& matrix, int16_t* u, int16_t* v) {
  const RgbToYuv::Weights of_u = matrix.u, of_v = matrix.v;
  for (int i = 0; i < width; ++i) {
    const uint32_t p = load(pixels, 2 * i), q = load(pixels, 2 * i + 1);
    const int sums[] = {byte_of(p, 0) + byte_of(q, 0), byte_of(p, 1) + byte_of(q, 1), byte_of(p, 2) + byte_of(q, 2)};
    u[i] = weighted(sums, of_u);
    v[i] = weighted(sums, of_v);
  }
}

MERU_INLINE void filter_loop(const int16_t* const* rows, int width, uint8_t* out) {
  constexpr int kShift = kFilterBits + kChromaBits;
  constexpr int kMiddle = (128 << kShift) + (1 << (kShift - 1));
  const int16_t *a = rows[0], *b = rows[1], *c = rows[2], *d = rows[3];
  const int16_t *e = rows[4], *f = rows[5], *g = rows[6], *h = rows[7];
  for (int i = 0; i < width; ++i) {
    const int sum = (d[i] + e[i]) * kFilter[0] + (c[i] + f[i]) * kFilter[1] + (b[i] + g[i]) * kFilter[2] +
                    (a[i] + h[i]) * kFilter[3] + kMiddle;
    out[i] = static_cast<uint8_t>(std::clamp(sum >> kShift, 0, 255));
  }
}

MERU_INLINE void interleave_loop(const uint8_t* u, const uint8_t* v, int width, uint8_t* out) {
  for (ptrdiff_t i = 0; i < width; ++i) {
    out[2 * i] = u[i];
    out[2 * i + 1] = v[i];
  }
}

// An attribute does not stand in parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define MERU_LOOPS(NAME, TARGET)                                                                                 \
  namespace NAME {                                                                                               \
  TARGET void luma(const uint8_t* p, int n, const RgbToYuv::Matrix& m, uint8_t* o) { luma_loop(p, n, m, o); }    \
  TARGET void chroma(const uint8_t* p, int n, const RgbToYuv::Matrix& m, int16_t* u, int16_t* v) {               \
    chroma_loop(p, n, m, u, v);                                                                                  \
  }                                                                                                              \
  TARGET void filter(const int16_t* const* rows, int n, uint8_t* o) { filter_loop(rows, n, o); }                 \
  TARGET void interleave(const uint8_t* u, const uint8_t* v, int n, uint8_t* o) { interleave_loop(u, v, n, o); } \
  constexpr RgbToYuv::Loops kLoops{luma, chroma, filter, interleave};                                            \
  }
// NOLINTEND(bugprone-macro-parentheses)

MERU_LOOPS(baseline, )
#ifdef MERU_HAS_AVX2
MERU_LOOPS(avx2, __attribute__((target("avx2"))))
#endif

const RgbToYuv::Loops& choose_loops(RgbToYuv::Vectors vectors) {
#ifdef MERU_HAS_AVX2
  if (vectors == RgbToYuv::Vectors::kBest && __builtin_cpu_supports("avx2") != 0) return avx2::kLoops;
#endif
  (void)vectors;
  return baseline::kLoops;
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
    : m_width(image.width), m_height(image.height), m_interleaved(interleaved), m_matrix(matrix), m_loops(loops) {
  const auto half = static_cast<size_t>(m_width) / 2;
  m_u.resize(half * kTaps);
  m_v.resize(half * kTaps);
  if (m_interleaved) {
    for (auto& row : m_pair) row.resize(half);
  }
}

void RgbToYuv::convert(const uint8_t* src, int src_linesize, uint8_t* const* planes, const int* linesizes) {
  const int half = m_width / 2;
  for (int row = 0; row < m_height; ++row) {
    const uint8_t* pixels = src + static_cast<ptrdiff_t>(row) * src_linesize;
    const auto slot = static_cast<size_t>(row % kTaps) * static_cast<size_t>(half);
    m_loops.luma(pixels, m_width, m_matrix, planes[0] + static_cast<ptrdiff_t>(row) * linesizes[0]);
    m_loops.chroma(pixels, half, m_matrix, &m_u[slot], &m_v[slot]);
    // As soon as the last row that it is made of is there.
    if (row >= kTaps / 2 && row % 2 == 0) write_chroma(row / 2 - kTaps / 4, planes, linesizes);
  }
  for (int row = (m_height - 1 - kTaps / 2) / 2 + 1; row < m_height / 2; ++row) write_chroma(row, planes, linesizes);
}

void RgbToYuv::write_chroma(int row, uint8_t* const* planes, const int* linesizes) {
  const int half = m_width / 2;
  const int16_t* u[kTaps];
  const int16_t* v[kTaps];
  for (int tap = 0; tap < kTaps; ++tap) {
    // Beyond the edges the outermost rows go on.
    const int source = std::clamp(2 * row + 1 - kTaps / 2 + tap, 0, m_height - 1);
    const auto slot = static_cast<size_t>(source % kTaps) * static_cast<size_t>(half);
    u[tap] = &m_u[slot];
    v[tap] = &m_v[slot];
  }
  const auto out = [&](int plane) { return planes[plane] + static_cast<ptrdiff_t>(row) * linesizes[plane]; };
  m_loops.filter(u, half, m_interleaved ? m_pair[0].data() : out(1));
  m_loops.filter(v, half, m_interleaved ? m_pair[1].data() : out(2));
  if (m_interleaved) m_loops.interleave(m_pair[0].data(), m_pair[1].data(), half, out(1));
}

}  // namespace MR

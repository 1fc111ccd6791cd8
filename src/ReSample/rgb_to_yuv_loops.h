#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ReSample/rgb_to_yuv.h"

#define MERU_INLINE inline __attribute__((always_inline))

// The loops of RgbToYuv, written so that the compiler vectorises them: always inlined, so that it does so for what the
// calling function is compiled for. The files that include this are compiled with -O3.
namespace MR::rgb_to_yuv {

constexpr int kWeightBits = 15;
constexpr int kChromaBits = 6;                               // fraction of a row of chroma between the two passes
constexpr int kChromaShift = kWeightBits + 1 - kChromaBits;  // from the sum of two pixels
constexpr int kFilterBits = 12;                              // fraction of the filter's weights
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
  const int sum = sums[0] * weights.byte[0] + sums[1] * weights.byte[1] + sums[2] * weights.byte[2];
  return static_cast<int16_t>((sum + (1 << (kChromaShift - 1))) >> kChromaShift);
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

/// The loops for processors with AVX2, null where this one has it not.
const RgbToYuv::Loops* avx2_loops();

}  // namespace MR::rgb_to_yuv

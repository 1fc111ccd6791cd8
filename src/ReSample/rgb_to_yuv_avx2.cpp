#include "ReSample/rgb_to_yuv_loops.h"

#if defined(__x86_64__)

#include <immintrin.h>

#define MERU_AVX2 __attribute__((target("avx2")))

// Two of the loops are written by hand: the processor multiplies pairs of 16 bits and adds them up in one instruction,
// which the compiler does not find. A pixel's bytes, every second one at a time, are such pairs. The rest of a row that
// does not fill the vectors is left to the plain loops.
namespace MR::rgb_to_yuv {
namespace {

constexpr int kPixels = 8;  // in a vector
constexpr int kPixelBytes = 4;

MERU_AVX2 MERU_INLINE __m256i load_pixels(const uint8_t* pixels) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pixels));
}

MERU_AVX2 MERU_INLINE void store(void* to, __m256i vector) { _mm256_storeu_si256(static_cast<__m256i*>(to), vector); }

/// The four bytes of a pixel as two pairs: the first with the third, the second with the fourth.
struct Pairs {
  __m256i even, odd;
};

MERU_AVX2 MERU_INLINE Pairs pairs_of(__m256i pixels) {
  return {_mm256_and_si256(pixels, _mm256_set1_epi16(0xff)), _mm256_srli_epi16(pixels, 8)};
}

MERU_AVX2 MERU_INLINE __m256i weight_pair(int low, int high) {
  return _mm256_set1_epi32((low & 0xffff) | (high * 0x10000));
}

/// The fourth byte counts for nothing.
MERU_AVX2 MERU_INLINE Pairs pairs_of(const RgbToYuv::Weights& weights) {
  return {weight_pair(weights.byte[0], weights.byte[2]), weight_pair(weights.byte[1], 0)};
}

MERU_AVX2 MERU_INLINE __m256i weighted_sum(const Pairs& values, const Pairs& weights, __m256i offset) {
  return _mm256_add_epi32(_mm256_add_epi32(_mm256_madd_epi16(values.even, weights.even), offset),
                          _mm256_madd_epi16(values.odd, weights.odd));
}

/// Packing works on the halves of a vector; this puts its groups of four bytes into the order of the pixels.
MERU_AVX2 MERU_INLINE __m256i in_order(__m256i packed) {
  return _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

MERU_AVX2 void luma(const uint8_t* pixels, int width, const RgbToYuv::Matrix& matrix, uint8_t* out) {
  const Pairs weights = pairs_of(matrix.y);
  const __m256i offset = _mm256_set1_epi32(matrix.y_offset);
  int done = 0;
  for (; done + 4 * kPixels <= width; done += 4 * kPixels) {
    __m256i y[4];
    for (ptrdiff_t i = 0; i < 4; ++i) {
      const Pairs values = pairs_of(load_pixels(pixels + (done + i * kPixels) * kPixelBytes));
      y[i] = _mm256_srli_epi32(weighted_sum(values, weights, offset), kWeightBits);
    }
    store(out + done, in_order(_mm256_packus_epi16(_mm256_packs_epi32(y[0], y[1]), _mm256_packs_epi32(y[2], y[3]))));
  }
  luma_loop(pixels + static_cast<ptrdiff_t>(done) * kPixelBytes, width - done, matrix, out + done);
}

/// The sums of two neighbours in a row, of eight pairs of pixels: the first, second, fifth, sixth, third, ... .
MERU_AVX2 MERU_INLINE Pairs sums_of_neighbours(const uint8_t* pixels) {
  const __m256 a = _mm256_castsi256_ps(load_pixels(pixels));
  const __m256 b = _mm256_castsi256_ps(load_pixels(pixels + ptrdiff_t{kPixels} * kPixelBytes));
  const Pairs left = pairs_of(_mm256_castps_si256(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))));
  const Pairs right = pairs_of(_mm256_castps_si256(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
  return {_mm256_add_epi16(left.even, right.even), _mm256_add_epi16(left.odd, right.odd)};
}

MERU_AVX2 void chroma(const uint8_t* pixels, int width, const RgbToYuv::Matrix& matrix, int16_t* u, int16_t* v) {
  const Pairs of_u = pairs_of(matrix.u), of_v = pairs_of(matrix.v);
  const __m256i half = _mm256_set1_epi32(1 << (kChromaShift - 1));
  int done = 0;
  for (; done + 2 * kPixels <= width; done += 2 * kPixels) {
    __m256i us[2], vs[2];
    for (ptrdiff_t i = 0; i < 2; ++i) {
      const Pairs sums = sums_of_neighbours(pixels + (done + i * kPixels) * 2 * kPixelBytes);
      us[i] = _mm256_srai_epi32(weighted_sum(sums, of_u, half), kChromaShift);
      vs[i] = _mm256_srai_epi32(weighted_sum(sums, of_v, half), kChromaShift);
    }
    store(u + done, in_order(_mm256_packs_epi32(us[0], us[1])));
    store(v + done, in_order(_mm256_packs_epi32(vs[0], vs[1])));
  }
  chroma_loop(pixels + static_cast<ptrdiff_t>(done) * 2 * kPixelBytes, width - done, matrix, u + done, v + done);
}

MERU_AVX2 void filter(const int16_t* const* rows, int width, uint8_t* out) { filter_loop(rows, width, out); }

MERU_AVX2 void interleave(const uint8_t* u, const uint8_t* v, int width, uint8_t* out) {
  interleave_loop(u, v, width, out);
}

constexpr RgbToYuv::Loops kLoops{luma, chroma, filter, interleave};

}  // namespace

const RgbToYuv::Loops* avx2_loops() { return __builtin_cpu_supports("avx2") != 0 ? &kLoops : nullptr; }

}  // namespace MR::rgb_to_yuv

#else

const MR::RgbToYuv::Loops* MR::rgb_to_yuv::avx2_loops() { return nullptr; }

#endif

#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "common/scaler.h"
#include "common/shared_work.h"

namespace MR {

/// Converts images of four bytes a pixel to 4:2:0 of the same size: what a screen recorder needs of every image, and in
/// a small part of the time that libswscale's general way takes. The pixels are those of libswscale with SWS_BICUBIC,
/// but for rounding: brightness pixel by pixel, colour as the mean of two neighbours in a row and by a bicubic filter
/// over eight rows. One image at a time, in bands of rows that a few threads share.
class RgbToYuv {
 public:
  /// What the loops are compiled for. kBest is what this processor can do.
  enum class Vectors { kBest, kBaseline };

  /// @param colorspace,color_range  as for make_scaler
  /// @return null when this is not such a conversion: BGRA, BGR0, RGBA or RGB0 to YUV420P or NV12, equal even sizes
  static std::unique_ptr<RgbToYuv> make(const ImageFormat& src, const ImageFormat& dst, int colorspace, int color_range,
                                        Vectors vectors = Vectors::kBest);

  /// @param src  first byte of the top row, `src_linesize` bytes from one row to the next
  /// @param planes,linesizes  those of an AVFrame of the other format
  void convert(const uint8_t* src, int src_linesize, uint8_t* const* planes, const int* linesizes);

  /// What the first three bytes of a pixel count for in one component, in 1/32768.
  struct Weights {
    int byte[3];
  };
  struct Matrix {
    Weights y, u, v;
    int y_offset;  ///< of black, rounding included
  };
  /// The loops over a row.
  struct Loops {
    void (*luma)(const uint8_t* pixels, int width, const Matrix& matrix, uint8_t* out);
    /// Signed, in 1/64, one of each for two pixels.
    void (*chroma)(const uint8_t* pixels, int width, const Matrix& matrix, int16_t* u, int16_t* v);
    void (*filter)(const int16_t* const* rows, int width, uint8_t* out);
    void (*interleave)(const uint8_t* u, const uint8_t* v, int width, uint8_t* out);
  };

 private:
  static constexpr int kTaps = 8;

  struct Image {
    const uint8_t* src;
    int src_linesize;
    uint8_t* const* planes;
    const int* linesizes;
  };
  /// What a thread keeps while it converts a band.
  struct Rows {
    std::vector<int16_t> u, v;     // the last kTaps rows; row n is at n % kTaps
    std::vector<uint8_t> pair[2];  // a row of each, before they are interleaved
  };

  RgbToYuv(const ImageFormat& image, bool interleaved, const Matrix& matrix, const Loops& loops);
  void convert_band(const Image& image, int band, Rows* rows) const;
  void write_chroma(const Image& image, int row, Rows* rows) const;

  const int m_width;
  const int m_height;
  const bool m_interleaved;
  const Matrix m_matrix;
  const Loops m_loops;
  const int m_bands;
  SharedWork m_work;
  std::vector<Rows> m_rows;  // one for each thread
};

}  // namespace MR

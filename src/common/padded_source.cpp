#include "common/padded_source.h"

#include <algorithm>
#include <array>
#include <cstring>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace {

constexpr int kPaddingBytes = 64;  // more than the longest vector that libswscale reads

struct Planes {
  std::array<int, 4> row_bytes{};
  std::array<int, 4> rows{};
};

Planes planes_of(const AVFrame& image) {
  Planes planes;
  const auto format = static_cast<AVPixelFormat>(image.format);
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
  if (desc == nullptr || av_image_fill_linesizes(planes.row_bytes.data(), format, image.width) < 0) return planes;
  for (size_t i = 0; i < 4; ++i) {
    const bool chroma = i == 1 || i == 2;
    planes.rows[i] = chroma ? AV_CEIL_RSHIFT(image.height, desc->log2_chroma_h) : image.height;
  }
  return planes;
}

/// The frame's own buffers go on behind its last rows.
bool has_padding(const AVFrame& image, const Planes& planes) {
  for (size_t i = 0; i < 4 && planes.row_bytes[i] > 0; ++i) {
    const AVBufferRef* buffer = nullptr;
    for (const AVBufferRef* candidate : image.buf) {
      if (candidate != nullptr && image.data[i] >= candidate->data &&
          image.data[i] < candidate->data + candidate->size) {
        buffer = candidate;
      }
    }
    if (buffer == nullptr) return false;
    const ptrdiff_t last_row = static_cast<ptrdiff_t>(planes.rows[i] - 1) * std::max(image.linesize[i], 0);
    const ptrdiff_t end = image.data[i] - buffer->data + last_row + planes.row_bytes[i] + kPaddingBytes;
    if (end > static_cast<ptrdiff_t>(buffer->size)) return false;
  }
  return true;
}

/// Formats and widths whose rows the vectors fill, so that nothing beyond them is read. With narrow images and strong
/// scaling, the filter alone is wider than a row.
bool fills_vectors(const AVFrame& image, int dst_width) {
  constexpr int kNarrow = 128, kStrongScaling = 8, kVectorPixels = 32;
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(image.format));
  if (desc == nullptr || image.width < kNarrow || image.width / kStrongScaling > dst_width) return false;
  switch (image.format) {
    case AV_PIX_FMT_BGRA:
    case AV_PIX_FMT_BGR0:
    case AV_PIX_FMT_RGBA:
    case AV_PIX_FMT_RGB0:
    case AV_PIX_FMT_ARGB:
    case AV_PIX_FMT_0RGB:
    case AV_PIX_FMT_ABGR:
    case AV_PIX_FMT_0BGR:
      return image.width % 2 == 0;
    case AV_PIX_FMT_NV12:
    case AV_PIX_FMT_NV21:
    case AV_PIX_FMT_P010:
    case AV_PIX_FMT_YUYV422:
    case AV_PIX_FMT_UYVY422:
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUV422P:
    case AV_PIX_FMT_YUV444P:
    case AV_PIX_FMT_YUV420P10:
      return image.width % kVectorPixels == 0;
    default:
      return false;
  }
}

/// libswscale refuses images that lack a plane, and says so.
bool lacks_plane(const AVFrame& image, const Planes& planes) {
  for (size_t i = 0; i < 4; ++i) {
    if (planes.row_bytes[i] > 0 && image.data[i] == nullptr) return true;
  }
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(image.format));
  return desc == nullptr || ((desc->flags & AV_PIX_FMT_FLAG_PAL) != 0 && image.data[1] == nullptr);
}

/// Pairs of pixels share their colour, so what lies behind a row of an odd width shows in its last pixel.
void repeat_last_pixels(AVFrame* image, const Planes& planes) {
  std::array<int, 4> steps{};
  av_image_fill_max_pixsteps(steps.data(), nullptr, av_pix_fmt_desc_get(static_cast<AVPixelFormat>(image->format)));
  for (size_t i = 0; i < 4 && planes.row_bytes[i] > 0; ++i) {
    const auto step = static_cast<size_t>(std::clamp(steps[i], 1, planes.row_bytes[i]));
    for (int y = 0; y < planes.rows[i]; ++y) {
      uint8_t* end = image->data[i] + static_cast<ptrdiff_t>(y) * image->linesize[i] + planes.row_bytes[i];
      for (size_t done = 0; done + step <= kPaddingBytes; done += step) std::memcpy(end + done, end - step, step);
    }
  }
}

}  // namespace

const AVFrame* PaddedSource::readable(const AVFrame* src, int dst_width) {
  const Planes planes = planes_of(*src);
  if (fills_vectors(*src, dst_width) || has_padding(*src, planes) || lacks_plane(*src, planes)) return src;
  return copy(src) ? m_copy.get() : nullptr;
}

bool PaddedSource::copy(const AVFrame* src) {
  if (m_copy == nullptr || m_copy->width != src->width || m_copy->height != src->height ||
      m_copy->format != src->format) {
    m_copy.reset(av_frame_alloc());
    if (m_copy == nullptr) return false;
    m_copy->format = src->format;
    m_copy->width = src->width + 8 * kPaddingBytes;  // in any plane of any format that many bytes at least
    m_copy->height = src->height;
    if (av_frame_get_buffer(m_copy.get(), 0) < 0) {
      m_copy.reset();
      return false;
    }
    m_copy->width = src->width;
  }
  const uint8_t* data[4] = {src->data[0], src->data[1], src->data[2], src->data[3]};
  av_image_copy(m_copy->data, m_copy->linesize, data, src->linesize, static_cast<AVPixelFormat>(src->format),
                src->width, src->height);
  repeat_last_pixels(m_copy.get(), planes_of(*src));
  return true;
}

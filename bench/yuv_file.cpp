#include "yuv_file.h"

#include <stdexcept>

namespace meru_bench {

YuvFile::YuvFile(const std::string& path, int width, int height)
    : m_file(std::fopen(path.c_str(), "rb")), m_frame(av_frame_alloc()) {
  if (m_file == nullptr) throw std::runtime_error("cannot open " + path);
  m_frame->format = AV_PIX_FMT_YUV420P;
  m_frame->width = width;
  m_frame->height = height;
  if (av_frame_get_buffer(m_frame.get(), 0) < 0) throw std::runtime_error("no memory for an image");
}

AVFrame* YuvFile::next() {
  // Whoever still reads the last image keeps it.
  if (av_frame_make_writable(m_frame.get()) < 0) throw std::runtime_error("no memory for an image");
  const int width = m_frame->width, height = m_frame->height;
  const int half_width = (width + 1) / 2, half_height = (height + 1) / 2;
  if (!read_plane(0, width, height) || !read_plane(1, half_width, half_height) ||
      !read_plane(2, half_width, half_height)) {
    return nullptr;
  }
  m_frame->pts = m_count++;
  return m_frame.get();
}

bool YuvFile::read_plane(int plane, int width, int height) {
  const auto bytes = static_cast<size_t>(width);
  for (int y = 0; y < height; ++y) {
    uint8_t* row = m_frame->data[plane] + static_cast<ptrdiff_t>(y) * m_frame->linesize[plane];
    if (std::fread(row, 1, bytes, m_file.get()) != bytes) return false;
  }
  return true;
}

}  // namespace meru_bench

#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace meru_test {

/// Memory between two pages that nobody can read: one byte too far, at either end, ends the process.
class GuardedMemory {
 public:
  enum class Guard { kBehind, kInFront };  ///< which of the two pages the memory touches

  GuardedMemory(size_t size, Guard guard) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t inner = (size + page - 1) / page * page;
    m_mapped = inner + 2 * page;
    void* mapped = mmap(nullptr, m_mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::runtime_error("no memory for an image");
    m_base = static_cast<uint8_t*>(mapped);
    if (mprotect(m_base, page, PROT_NONE) != 0 || mprotect(m_base + page + inner, page, PROT_NONE) != 0) {
      throw std::runtime_error("no guard pages");
    }
    m_data = m_base + page + (guard == Guard::kBehind ? inner - size : 0);
  }
  GuardedMemory(GuardedMemory&& other) noexcept : m_base(other.m_base), m_mapped(other.m_mapped), m_data(other.m_data) {
    other.m_base = nullptr;
  }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;
  GuardedMemory& operator=(GuardedMemory&&) = delete;
  ~GuardedMemory() {
    if (m_base != nullptr) munmap(m_base, m_mapped);
  }
  uint8_t* data() const { return m_data; }

 private:
  uint8_t* m_base = nullptr;
  size_t m_mapped = 0;
  uint8_t* m_data = nullptr;
};

/// A copy of an image each of whose planes lies in guarded memory of its own, which ends where its last row ends.
class GuardedImage {
 public:
  /// @param padding  bytes between the rows
  GuardedImage(const AVFrame* image, int padding, GuardedMemory::Guard guard) : m_view(av_frame_alloc()) {
    const auto format = static_cast<AVPixelFormat>(image->format);
    std::array<int, 4> row{};
    std::array<ptrdiff_t, 4> stride{};
    std::array<size_t, 4> size{};
    if (av_image_fill_linesizes(row.data(), format, image->width) < 0) throw std::runtime_error("no such image");
    for (size_t i = 0; i < 4; ++i) stride[i] = row[i] > 0 ? row[i] + padding : 0;
    if (av_image_fill_plane_sizes(size.data(), format, image->height, stride.data()) < 0) {
      throw std::runtime_error("no such image");
    }
    m_planes.reserve(4);
    for (size_t i = 0; i < 4 && size[i] > 0; ++i) {
      const auto unused = static_cast<size_t>(row[i] > 0 ? padding : 0);
      m_planes.emplace_back(size[i] - unused, guard);
      m_view->data[i] = m_planes.back().data();
      m_view->linesize[i] = static_cast<int>(stride[i]);
      if (row[i] == 0) {
        std::memcpy(m_view->data[i], image->data[i], size[i]);
        continue;
      }
      for (size_t y = 0; y < size[i] / static_cast<size_t>(stride[i]); ++y) {
        std::memcpy(m_view->data[i] + y * static_cast<size_t>(stride[i]),
                    image->data[i] + static_cast<ptrdiff_t>(y) * image->linesize[i], static_cast<size_t>(row[i]));
      }
    }
    m_view->format = image->format;
    m_view->width = image->width;
    m_view->height = image->height;
  }
  AVFrame* frame() const { return m_view.get(); }

 private:
  FramePtr m_view;
  std::vector<GuardedMemory> m_planes;
};

}  // namespace meru_test

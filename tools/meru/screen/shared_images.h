#pragma once

#include <xcb/shm.h>

#include <cstddef>
#include <cstdint>

namespace meru_tool {

/// Memory for images that an X server writes into. The system takes it back with the last process that has it, however
/// that ends.
class SharedImages {
 public:
  /// Throws a Failure when there is no memory or the server cannot have it.
  SharedImages(xcb_connection_t* connection, size_t image_bytes, size_t places);
  ~SharedImages();
  SharedImages(const SharedImages&) = delete;
  SharedImages& operator=(const SharedImages&) = delete;

  uint8_t* at(size_t place) const { return m_memory + offset(place); }
  /// Where a place begins in the segment.
  uint32_t offset(size_t place) const { return static_cast<uint32_t>(place * m_image_bytes); }
  xcb_shm_seg_t segment() const { return m_segment; }

 private:
  size_t m_image_bytes;
  uint8_t* m_memory = nullptr;
  xcb_shm_seg_t m_segment;
};

}  // namespace meru_tool

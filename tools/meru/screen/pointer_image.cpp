#include "screen/pointer_image.h"

#include <algorithm>
#include <cstddef>

namespace meru_tool {

namespace {

constexpr uint32_t kOpaque = 255;

void blend(uint32_t argb, uint8_t* bgra) {
  const uint32_t shine_through = kOpaque - (argb >> 24U);
  for (unsigned channel = 0; channel < 3; ++channel) {
    const uint32_t own = argb >> (channel * 8) & 0xFFU;
    const uint32_t mixed = own + (bgra[channel] * shine_through + kOpaque / 2) / kOpaque;
    bgra[channel] = static_cast<uint8_t>(std::min(mixed, kOpaque));
  }
}

}  // namespace

void draw_pointer(const PointerImage& pointer, const Region& region, uint8_t* image) {
  const Region seen = pointer.place.within(region);
  for (int y = seen.y; y < seen.y + seen.height; ++y) {
    const auto from = static_cast<ptrdiff_t>(y - pointer.place.y) * pointer.place.width + (seen.x - pointer.place.x);
    const auto to = static_cast<ptrdiff_t>(y - region.y) * region.width + (seen.x - region.x);
    for (int i = 0; i < seen.width; ++i) blend(pointer.argb[from + i], image + (to + i) * 4);
  }
}

}  // namespace meru_tool

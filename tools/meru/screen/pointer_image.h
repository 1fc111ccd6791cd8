#pragma once

#include <cstdint>

#include "screen/region.h"

namespace meru_tool {

/// The picture of the pointer: 32 bits a pixel, alpha uppermost, its colours already multiplied by it.
struct PointerImage {
  const uint32_t* argb = nullptr;
  Region place;  ///< where it lies on the screen
};

/// Draws the pointer over an image of a region of the screen, in BGRA without gaps between the rows. What lies beyond
/// the image is left out.
void draw_pointer(const PointerImage& pointer, const Region& region, uint8_t* image);

}  // namespace meru_tool

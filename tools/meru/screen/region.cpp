#include "screen/region.h"

#include <algorithm>

namespace meru_tool {

Region Region::within(const Region& other) const {
  const int left = std::max(x, other.x), top = std::max(y, other.y);
  const int right = std::min(x + width, other.x + other.width), bottom = std::min(y + height, other.y + other.height);
  return {left, top, std::max(right - left, 0), std::max(bottom - top, 0)};
}

bool Region::operator==(const Region& other) const {
  return x == other.x && y == other.y && width == other.width && height == other.height;
}

std::string Region::size_text() const { return std::to_string(width) + "x" + std::to_string(height); }

std::string Region::text() const { return size_text() + "+" + std::to_string(x) + "+" + std::to_string(y); }

}  // namespace meru_tool

#pragma once

#include <string>

namespace meru_tool {

/// A rectangle of a screen in pixels, counted from its left upper corner.
struct Region {
  int x = 0, y = 0, width = 0, height = 0;

  bool empty() const { return width <= 0 || height <= 0; }
  /// What both have in common; empty when that is nothing.
  Region within(const Region& other) const;
  /// Without the last column and row that an encoder, which takes even sizes alone, could not hold.
  Region even() const { return {x, y, width - width % 2, height - height % 2}; }
  bool operator==(const Region& other) const;
  bool operator!=(const Region& other) const { return !(*this == other); }
  /// "640x480+100+50"
  std::string text() const;
  /// "640x480"
  std::string size_text() const;
};

}  // namespace meru_tool

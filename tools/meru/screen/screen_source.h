#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "screen/region.h"

namespace meru_tool {

/// What of which screen is to be captured.
struct ScreenWish {
  std::string display;  ///< such as ":0"; empty for that of the environment
  Region region;        ///< empty for the whole screen
  bool pointer = true;  ///< whether the pointer is drawn into the images
  size_t places = 1;    ///< how many images are held at a time
};

/// Captures a screen as images of BGRA, 4 bytes a pixel, rows without gaps. Used by one thread, but for abandon() and
/// the places that it does not write.
class ScreenSource {
 public:
  virtual ~ScreenSource() = default;

  /// What is captured: as wished, of even width and height. It stays the same when the screen changes its size; what
  /// then lies beyond the screen is black.
  virtual Region region() const = 0;
  /// The screen as the last image found it.
  virtual Region screen() const = 0;
  /// Captures into a place. Throws a Failure when the display has gone, or gives no image.
  virtual void take(size_t place) = 0;
  virtual uint8_t* image(size_t place) = 0;
  int row_bytes() const { return region().width * 4; }
  int image_bytes() const { return row_bytes() * region().height; }
  /// Makes a take() that waits for the display give up, and every further one. From any thread.
  virtual void abandon() = 0;
};

/// Throws a Failure when there is no such display or it cannot be captured, and a UsageError when the region does not
/// fit.
std::unique_ptr<ScreenSource> open_screen(const ScreenWish& wish);

}  // namespace meru_tool

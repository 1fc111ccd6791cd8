#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/probe.h"

namespace meru_test {

/// What the pattern client draws, for it and for the tests that look for it: a number of sixteen bits as a row of
/// blocks, white for 1 and black for 0, the highest bit first, over four fields of colour.
struct Pattern {
  static constexpr int kBits = 16;
  static constexpr int kBlock = 16;                                                  ///< pixels, each way
  static constexpr int kPerSecond = 50;                                              ///< how often the number rises
  static constexpr uint32_t kColours[4] = {0x2040C0, 0xC04020, 0x20A040, 0xA0A030};  ///< red, green, blue

  /// The number in a picture of grey; -1 where there is none. @param x, y  where the row of blocks begins
  static int number_in(const uint8_t* grey, int width, int x, int y) {
    int number = 0;
    for (int bit = 0; bit < kBits; ++bit) {
      const int middle = grey[(y + kBlock / 2) * width + x + bit * kBlock + kBlock / 2];
      if (middle > 80 && middle < 175) return -1;
      number = number * 2 + (middle > 127 ? 1 : 0);
    }
    return number;
  }

  /// The numbers in a movie's pictures.
  static std::vector<int> numbers_in(const std::string& movie, int width, int height, int x = 0, int y = 0) {
    const std::string grey = decoded(movie, "-map 0:v -pix_fmt gray -f rawvideo " + every_picture());
    const size_t size = static_cast<size_t>(width) * static_cast<size_t>(height);
    std::vector<int> numbers;
    for (size_t at = 0; at + size <= grey.size(); at += size) {
      numbers.push_back(number_in(reinterpret_cast<const uint8_t*>(grey.data()) + at, width, x, y));
    }
    return numbers;
  }
};

}  // namespace meru_test

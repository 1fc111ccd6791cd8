#include "screen/pointer_image.h"

#include <gtest/gtest.h>

#include <vector>

namespace meru_test {
namespace {

using meru_tool::PointerImage;
using meru_tool::Region;

constexpr uint32_t kOpaqueRed = 0xFFFF0000, kNothing = 0, kHalfWhite = 0x80808080;

/// A grey image of 4 by 3 pixels of the screen, with a pointer drawn over it.
class DrawnPointer {
 public:
  DrawnPointer(const std::vector<uint32_t>& argb, Region place) {
    meru_tool::draw_pointer(PointerImage{argb.data(), place}, kRegion, m_image.data());
  }
  uint32_t at(int x, int y) const {
    const uint8_t* pixel = m_image.data() + (y * kRegion.width + x) * 4;
    return static_cast<uint32_t>(pixel[2] << 16 | pixel[1] << 8 | pixel[0]);
  }
  /// How many pixels are still as they were.
  int untouched() const {
    int count = 0;
    for (int i = 0; i < 12; ++i) count += at(i % 4, i / 4) == kGrey ? 1 : 0;
    return count;
  }

  static constexpr uint32_t kGrey = 0x646464;

 private:
  static constexpr Region kRegion{10, 20, 4, 3};

  std::vector<uint8_t> m_image = std::vector<uint8_t>(4 * 3 * 4, 100);
};

TEST(PointerImageTest, OpaquePixelsReplaceAndClearOnesLeaveWhatIsThere) {
  const DrawnPointer drawn({kOpaqueRed, kNothing}, {11, 21, 2, 1});
  EXPECT_EQ(drawn.at(1, 1), 0xFF0000U);
  EXPECT_EQ(drawn.untouched(), 11);
}

TEST(PointerImageTest, ColoursAreAlreadyMultipliedByTheirAlpha) {
  const DrawnPointer drawn({kHalfWhite}, {10, 20, 1, 1});
  EXPECT_EQ(drawn.at(0, 0), 0x808080U + 0x323232U);
}

TEST(PointerImageTest, ColoursBrighterThanTheirAlphaStayInRange) {
  const DrawnPointer drawn({0x00FFFFFF}, {10, 20, 1, 1});
  EXPECT_EQ(drawn.at(0, 0), 0xFFFFFFU);
}

struct EdgeCase {
  Region place;
  int touched;
};

class PointerEdgeTest : public testing::TestWithParam<EdgeCase> {};

TEST_P(PointerEdgeTest, WhatLiesBeyondTheImageIsLeftOut) {
  const Region& place = GetParam().place;
  const std::vector<uint32_t> argb(static_cast<size_t>(place.width * place.height), kOpaqueRed);
  EXPECT_EQ(DrawnPointer(argb, place).untouched(), 12 - GetParam().touched);
}

INSTANTIATE_TEST_SUITE_P(Edges, PointerEdgeTest,
                         testing::Values(EdgeCase{{9, 19, 2, 2}, 1}, EdgeCase{{13, 22, 2, 2}, 1},
                                         EdgeCase{{9, 19, 6, 5}, 12}, EdgeCase{{-20, 21, 16, 16}, 0},
                                         EdgeCase{{14, 20, 2, 2}, 0}, EdgeCase{{12, 23, 1, 1}, 0},
                                         EdgeCase{{9, 21, 3, 1}, 2}));

// Each pixel must come from its own place in the pointer, also when the pointer begins outside.
TEST(PointerImageTest, CutPointerKeepsItsPixelsInPlace) {
  const DrawnPointer drawn({0xFF000001, 0xFF000002, 0xFF000003, 0xFF000004}, {9, 19, 2, 2});
  EXPECT_EQ(drawn.at(0, 0), 4U);
}

}  // namespace
}  // namespace meru_test

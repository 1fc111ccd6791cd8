#include "screen/capture_grid.h"

#include <gtest/gtest.h>

namespace meru_test {
namespace {

using meru_tool::CaptureGrid;

constexpr int64_t kBegin = 1700000000000000;
constexpr int64_t kFrame = 40000;

TEST(CaptureGridTest, ImagesAreDueAtTheFrameRate) {
  const CaptureGrid grid(30, kBegin);
  EXPECT_EQ(grid.due(0), kBegin);
  EXPECT_EQ(grid.due(1), kBegin + 33333);
  EXPECT_EQ(grid.due(300), kBegin + 10000000);
  EXPECT_EQ(grid.due(30LL * 3600 * 24), kBegin + 86400000000);
}

struct NextCase {
  int64_t last, late_usec, next;
};

class CaptureGridNextTest : public testing::TestWithParam<NextCase> {};

TEST_P(CaptureGridNextTest, PlacesThatItIsTooLateForAreLeftOut) {
  const CaptureGrid grid(25, kBegin);
  EXPECT_EQ(grid.next(GetParam().last, grid.due(GetParam().last) + GetParam().late_usec), GetParam().next);
}

INSTANTIATE_TEST_SUITE_P(Lateness, CaptureGridNextTest,
                         testing::Values(NextCase{0, 0, 1}, NextCase{7, kFrame / 2, 8}, NextCase{7, kFrame, 8},
                                         NextCase{7, kFrame * 3 / 2 - 1, 8}, NextCase{7, kFrame * 3 / 2, 9},
                                         NextCase{7, kFrame * 100, 107}));

TEST(CaptureGridTest, MomentBelongsToTheNearestPlace) {
  const CaptureGrid grid(25, kBegin);
  EXPECT_EQ(grid.nearest(kBegin + 5 * kFrame - kFrame / 2), 5);
  EXPECT_EQ(grid.nearest(kBegin + 5 * kFrame + kFrame / 2 - 1), 5);
}

struct TakenCase {
  int64_t waited_usec, before_the_answer;
};

class CaptureGridTakenTest : public testing::TestWithParam<TakenCase> {};

TEST_P(CaptureGridTakenTest, ImageIsOfTheMiddleButNeverFarFromItsAnswer) {
  const int64_t given = kBegin + GetParam().waited_usec;
  EXPECT_EQ(CaptureGrid::taken(25, kBegin, given), given - GetParam().before_the_answer);
}

INSTANTIATE_TEST_SUITE_P(Waits, CaptureGridTakenTest,
                         testing::Values(TakenCase{0, 0}, TakenCase{3000, 1500}, TakenCase{kFrame, kFrame / 2},
                                         TakenCase{kFrame + 1000, kFrame / 2}, TakenCase{10000000, kFrame / 2}));

TEST(CaptureGridTest, PauseMovesWhatIsToCome) {
  CaptureGrid grid(25, kBegin);
  grid.leave_out(1000000);
  EXPECT_EQ(grid.due(2), kBegin + 2 * kFrame + 1000000);
  EXPECT_EQ(grid.nearest(kBegin + 2 * kFrame + 1000000), 2);
}

}  // namespace
}  // namespace meru_test

// The times that are given to pieces of sound, from latencies that are told with an error.

#include "screen/sound_stamps.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

namespace meru_tool {
namespace {

constexpr int kRate = 48000;
constexpr int64_t kPiece = 960;  // samples
constexpr int64_t kPieceUsec = 20000;
constexpr int64_t kBegin = 5'000'000'000;

/// Stamps of even pieces, the n-th measured with error(n).
std::vector<int64_t> stamps(SoundStamps* clock, int pieces, const std::function<int64_t(int)>& error) {
  std::vector<int64_t> all;
  for (int n = 0; n < pieces; ++n) {
    clock->measure(kBegin + n * kPieceUsec + error(n));
    all.push_back(clock->next(kPiece));
  }
  return all;
}

/// How far the last one is from the true time, if the pieces are even.
int64_t last_error(const std::vector<int64_t>& all) {
  return all.back() - kBegin - (static_cast<int64_t>(all.size()) - 1) * kPieceUsec;
}

/// How many stamps do not go on as the samples do, but for the half percent that the time may be bent by.
int jumps(const std::vector<int64_t>& all) {
  int count = 0;
  for (size_t n = 1; n < all.size(); ++n) {
    count += std::abs(all[n] - all[n - 1] - kPieceUsec) > kPieceUsec / 200 + 1 ? 1 : 0;
  }
  return count;
}

TEST(SoundStampsTest, WithoutErrorTheyAreWhatIsMeasured) {
  SoundStamps clock(kRate);
  const auto all = stamps(&clock, 100, [](int) { return 0; });
  for (size_t n = 0; n < all.size(); ++n) EXPECT_EQ(all[n], kBegin + static_cast<int64_t>(n) * kPieceUsec);
}

TEST(SoundStampsTest, ErrorsOfMillisecondsAreEvenedOut) {
  SoundStamps clock(kRate);
  std::mt19937 random(1);
  std::uniform_int_distribution<int64_t> error(-8000, 8000);
  const auto all = stamps(&clock, 1000, [&](int) { return error(random); });
  EXPECT_EQ(jumps(all), 0);
  for (size_t n = 200; n < all.size(); ++n) {
    EXPECT_NEAR(static_cast<double>(all[n]), static_cast<double>(kBegin + static_cast<int64_t>(n) * kPieceUsec), 4000)
        << n;
  }
}

TEST(SoundStampsTest, WrongBeginningIsMadeGood) {
  SoundStamps clock(kRate);
  const auto all = stamps(&clock, 500, [](int n) { return n == 0 ? 20000 : 0; });
  EXPECT_EQ(jumps(all), 0);
  EXPECT_NEAR(static_cast<double>(last_error(all)), 0, 500);
}

TEST(SoundStampsTest, DeviceThatIsTooFastStaysInTime) {
  SoundStamps clock(kRate);
  // Its samples come a thousandth early, each piece more so.
  const auto all = stamps(&clock, 3000, [](int n) { return -n * kPieceUsec / 1000; });
  EXPECT_NEAR(static_cast<double>(last_error(all)), -3000.0 * kPieceUsec / 1000, 1000);
  EXPECT_EQ(jumps(all), 0);
}

TEST(SoundStampsTest, SingleWrongMeasurementCountsForNothing) {
  SoundStamps clock(kRate);
  const auto all = stamps(&clock, 100, [](int n) { return n % 10 == 9 ? 400000 : 0; });
  for (size_t n = 0; n < all.size(); ++n) EXPECT_EQ(all[n], kBegin + static_cast<int64_t>(n) * kPieceUsec);
}

TEST(SoundStampsTest, SoundThatIsMissingMakesAJump) {
  SoundStamps clock(kRate);
  constexpr int64_t kMissing = 300000;
  const auto all = stamps(&clock, 100, [](int n) { return n >= 50 ? kMissing : 0; });
  EXPECT_EQ(last_error(all), kMissing);
  EXPECT_EQ(jumps(all), 1);
}

TEST(SoundStampsTest, RestartForgetsWhatWasMeasured) {
  SoundStamps clock(kRate);
  EXPECT_FALSE(clock.known());
  stamps(&clock, 50, [](int) { return 0; });
  EXPECT_TRUE(clock.known());
  clock.restart();
  EXPECT_FALSE(clock.known());
  clock.measure(kBegin + 77'000'000);
  EXPECT_EQ(clock.next(kPiece), kBegin + 77'000'000);
}

TEST(SoundStampsTest, PiecesOfAnyLengthGoOnByTheirSamples) {
  SoundStamps clock(44100);
  clock.measure(kBegin);
  EXPECT_EQ(clock.next(44100), kBegin);
  EXPECT_EQ(clock.next(441), kBegin + 1'000'000);
  EXPECT_EQ(clock.next(0), kBegin + 1'010'000);
  EXPECT_EQ(clock.next(1), kBegin + 1'010'000);
}

}  // namespace
}  // namespace meru_tool

#include "common/io_interrupt.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

bool asks_to_break_off(IoInterrupt& interrupt) {
  const AVIOInterruptCB callback = interrupt.callback();
  return callback.callback(callback.opaque) != 0;
}

StopFlag make_flag() { return std::make_shared<std::atomic<bool>>(false); }

TEST(IoInterruptTest, NothingIsBrokenOffByDefault) {
  IoInterrupt interrupt;
  EXPECT_FALSE(asks_to_break_off(interrupt));
  EXPECT_FALSE(interrupt.start_given_up());
}

TEST(IoInterruptTest, StopFlagBreaksOffAStart) {
  IoInterrupt interrupt;
  const StopFlag stop = make_flag();
  interrupt.begin_start(stop);
  EXPECT_FALSE(asks_to_break_off(interrupt));
  *stop = true;
  EXPECT_TRUE(asks_to_break_off(interrupt));
  EXPECT_TRUE(interrupt.start_given_up());
  EXPECT_EQ(interrupt.stop_flag(), stop);
}

TEST(IoInterruptTest, StopFlagMeansNothingOnceTheStartIsOver) {
  IoInterrupt interrupt;
  const StopFlag stop = make_flag();
  interrupt.begin_start(stop);
  interrupt.start_over();
  *stop = true;
  EXPECT_FALSE(asks_to_break_off(interrupt));
  EXPECT_FALSE(interrupt.start_given_up());
}

TEST(IoInterruptTest, NullFlagObeysNothing) {
  IoInterrupt interrupt;
  interrupt.begin_start(nullptr);
  EXPECT_FALSE(asks_to_break_off(interrupt));
}

TEST(IoInterruptTest, LimitThatHasPassedBreaksOff) {
  IoInterrupt interrupt;
  interrupt.limit(0);
  EXPECT_TRUE(asks_to_break_off(interrupt));
}

TEST(IoInterruptTest, LimitOfTheOpeningEndsWithIt) {
  IoInterrupt interrupt;
  interrupt.limit_opening(0);
  EXPECT_TRUE(asks_to_break_off(interrupt));
  EXPECT_TRUE(interrupt.too_late());
  interrupt.opening_over();
  EXPECT_FALSE(asks_to_break_off(interrupt));
  EXPECT_FALSE(interrupt.too_late());
}

TEST(IoInterruptTest, OpeningThatIsOverLeavesTheOtherLimit) {
  IoInterrupt interrupt;
  interrupt.limit(0);
  interrupt.limit_opening(60000000);
  interrupt.opening_over();
  EXPECT_TRUE(interrupt.too_late());
}

TEST(IoInterruptTest, LimitCanOnlyBeBroughtForward) {
  IoInterrupt interrupt;
  interrupt.limit(0);
  interrupt.limit(60000000);
  EXPECT_TRUE(interrupt.too_late());
}

TEST(IoInterruptTest, WhatWasBrokenOffIsKnownAfterwards) {
  IoInterrupt interrupt;
  interrupt.limit_io(1);
  while (!asks_to_break_off(interrupt)) continue;
  EXPECT_TRUE(interrupt.io_over());
  EXPECT_FALSE(asks_to_break_off(interrupt));
  interrupt.limit_io(60000000);
  EXPECT_FALSE(asks_to_break_off(interrupt));
  EXPECT_FALSE(interrupt.io_over());
  interrupt.limit_io(0);
  EXPECT_FALSE(asks_to_break_off(interrupt));
  EXPECT_FALSE(interrupt.io_over());
}

TEST(IoInterruptTest, LimitBreaksOffNoSoonerThanItSays) {
  using Clock = std::chrono::steady_clock;
  constexpr auto kLimit = std::chrono::milliseconds(20);
  IoInterrupt interrupt;
  // Limits count in whole microseconds.
  const auto before = std::chrono::time_point_cast<std::chrono::microseconds>(Clock::now());
  interrupt.limit(20000);
  while (!asks_to_break_off(interrupt)) {
    ASSERT_LT(Clock::now() - before, std::chrono::seconds(5));
  }
  EXPECT_GE(Clock::now() - before, kLimit);
}

}  // namespace

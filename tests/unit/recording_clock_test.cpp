#include "capture/recording_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

TEST(RecordingClockTest, FirstStampFixesTimeZero) {
  RecordingClock clock;
  EXPECT_EQ(clock.start_pts(), -1);
  clock.note_first(5000000);
  clock.note_first(6000000);
  EXPECT_EQ(clock.start_pts(), 5000000);
  EXPECT_EQ(clock.stream_time(5000000), 0);
  EXPECT_EQ(clock.stream_time(6500000), 1500000);
}

TEST(RecordingClockTest, StampBeforeTheFirstIsNegative) {
  RecordingClock clock;
  clock.note_first(5000000);
  EXPECT_EQ(clock.stream_time(4000000), -1000000);
}

TEST(RecordingClockTest, ExtremeStampsStayFarApartWithoutOverflow) {
  for (const int64_t first : {int64_t{0}, INT64_MAX}) {
    RecordingClock clock;
    clock.note_first(first);
    EXPECT_LT(clock.stream_time(INT64_MIN), INT64_MIN / 8);
    EXPECT_GE(clock.stream_time(INT64_MAX), 0);
    // The difference of any two times can be computed.
    EXPECT_GT(clock.stream_time(INT64_MAX) - clock.stream_time(INT64_MIN), 0);
  }
}

TEST(RecordingClockTest, NegativeFirstStampIsReplacedByTheNext) {
  RecordingClock clock;
  clock.note_first(-10);
  EXPECT_EQ(clock.start_pts(), -10);
  clock.note_first(700);
  EXPECT_EQ(clock.start_pts(), 700);
}

TEST(RecordingClockTest, PausedTimeIsTakenOut) {
  RecordingClock clock;
  clock.note_first(1000000);
  clock.pause(3000000);
  EXPECT_TRUE(clock.is_paused());
  EXPECT_TRUE(clock.resume(5000000));
  EXPECT_FALSE(clock.is_paused());
  EXPECT_EQ(clock.stream_time(5000000), 2000000);
}

TEST(RecordingClockTest, PausesAddUp) {
  RecordingClock clock;
  clock.note_first(0);
  clock.pause(100);
  clock.resume(300);
  clock.pause(400);
  clock.resume(1000);
  EXPECT_EQ(clock.stream_time(1000), 200);
}

TEST(RecordingClockTest, SecondPauseCountsTheTimeSinceTheFirstAsRecorded) {
  RecordingClock clock;
  clock.note_first(0);
  clock.pause(1000);
  clock.pause(1400);
  EXPECT_TRUE(clock.resume(2000));
  EXPECT_EQ(clock.stream_time(2000), 1400);
}

TEST(RecordingClockTest, ResumePrintsItsThreeTimes) {
  RecordingClock clock;
  clock.pause(1000);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(clock.resume(3500000000));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "*** pause_time=1000,  resume_time=3500000000,  drift=3499999000\n");
}

TEST(RecordingClockTest, ResumeWithoutPauseIsRefusedInSilence) {
  RecordingClock clock;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(clock.resume(2000));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(clock.stream_time(2000), 2001);  // time 0 is not fixed: nothing was taken out
}

TEST(RecordingClockTest, OneOfSeveralThreadsFixesTimeZero) {
  RecordingClock clock;
  std::vector<std::thread> threads;
  for (int64_t stamp = 1; stamp <= 4; ++stamp) threads.emplace_back([&clock, stamp] { clock.note_first(stamp); });
  for (std::thread& thread : threads) thread.join();
  const int64_t start = clock.start_pts();
  EXPECT_TRUE(start >= 1 && start <= 4) << start;
  clock.note_first(99);
  EXPECT_EQ(clock.start_pts(), start);
}

/// Runs both at the same moment.
template <class First, class Second>
void race(const First& first, const Second& second) {
  std::atomic<int> ready{0};
  const auto meet = [&ready] {
    ++ready;
    while (ready < 2) continue;
  };
  std::thread other([&] {
    meet();
    second();
  });
  meet();
  first();
  other.join();
}

class RecordingClockRaceTest : public testing::Test {
 protected:
  // What is printed for each resume is for people.
  void SetUp() override { testing::internal::CaptureStderr(); }
  void TearDown() override { testing::internal::GetCapturedStderr(); }
  static constexpr int kRounds = 500;
};

TEST_F(RecordingClockRaceTest, TwoResumesCountOnePauseOnce) {
  int wrong = 0;
  for (int i = 0; i < kRounds; ++i) {
    RecordingClock clock;
    clock.note_first(0);
    clock.pause(1000);
    std::atomic<int> resumed{0};
    const auto resume = [&] { resumed += clock.resume(3000) ? 1 : 0; };
    race(resume, resume);
    if (resumed != 1 || clock.stream_time(3000) != 1000) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(RecordingClockRaceTest, PauseThatMeetsAResumeLeavesOneOfTheTwoOrders) {
  int wrong = 0;
  for (int i = 0; i < kRounds; ++i) {
    RecordingClock clock;
    clock.note_first(0);
    clock.pause(1000);
    race([&] { clock.pause(2000); }, [&] { clock.resume(2001); });
    // Resumed first: a pause of 1001 has ended and another is open. Paused first: one of 1 has ended.
    const int64_t paused = 10000 - clock.stream_time(10000);
    if (paused != (clock.is_paused() ? 1001 : 1)) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(RecordingClockRaceTest, ResumeThatReadItsTimeBeforeThePauseDoesNotTurnTheClockBack) {
  RecordingClock clock;
  clock.note_first(0);
  clock.pause(1000);
  EXPECT_TRUE(clock.resume(990));
  EXPECT_EQ(clock.stream_time(2000), 2000);
}

}  // namespace

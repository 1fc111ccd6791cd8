// In which order the two tracks of the command push, and when one waits for the other.

#include "pace.h"

#include <gtest/gtest.h>

#include <chrono>

#include "support/within.h"

namespace {

using meru_test::Background;
using meru_tool::Pace;

constexpr int64_t kSecond = 1000000;
constexpr std::chrono::milliseconds kMoment{50};

class PaceTest : public testing::Test {
 protected:
  PaceTest() {
    m_pace.add(Pace::kVideo, false);
    m_pace.add(Pace::kAudio, false);
    m_pace.begin();
  }

  Pace m_pace{false};
};

TEST_F(PaceTest, TrackASecondAheadWaitsUntilTheOtherIsNear) {
  ASSERT_TRUE(m_pace.wait_turn(Pace::kVideo, 0));
  ASSERT_TRUE(m_pace.wait_turn(Pace::kAudio, kSecond));
  const Background sound([&] { EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, kSecond + 1)); });
  EXPECT_FALSE(sound.ends_within(kMoment));
  ASSERT_TRUE(m_pace.wait_turn(Pace::kVideo, kSecond / 2));
  EXPECT_FALSE(sound.ends_within(kMoment)) << "it does not go on at once, for one piece";
  ASSERT_TRUE(m_pace.wait_turn(Pace::kVideo, kSecond / 2 + 1));
  EXPECT_TRUE(sound.ends());
}

/// What comes next is a minute away in both, in turns.
TEST_F(PaceTest, GapIsWaitedForByNobody) {
  const Background video([&] {
    for (int64_t minute = 0; minute < 100; minute += 2)
      EXPECT_TRUE(m_pace.wait_turn(Pace::kVideo, minute * 60 * kSecond));
    m_pace.finish(Pace::kVideo);
  });
  const Background audio([&] {
    for (int64_t minute = 1; minute < 100; minute += 2)
      EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, minute * 60 * kSecond));
    m_pace.finish(Pace::kAudio);
  });
  EXPECT_TRUE(video.ends());
  EXPECT_TRUE(audio.ends());
  EXPECT_TRUE(m_pace.wait_all(std::chrono::seconds(1)));
}

TEST_F(PaceTest, OtherThatHasEndedIsNotWaitedFor) {
  const Background sound([&] { EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, 60 * kSecond)); });
  EXPECT_FALSE(sound.ends_within(kMoment));
  m_pace.finish(Pace::kVideo);
  EXPECT_TRUE(sound.ends());
}

TEST_F(PaceTest, NobodyPushesWhileTheWorkIsHeld) {
  m_pace.hold(true);
  const Background video([&] { EXPECT_TRUE(m_pace.wait_turn(Pace::kVideo, 0)); });
  EXPECT_FALSE(video.ends_within(kMoment));
  m_pace.hold(false);
  EXPECT_TRUE(video.ends());
}

TEST_F(PaceTest, StopSendsAwayWhoWaits) {
  const Background sound([&] { EXPECT_FALSE(m_pace.wait_turn(Pace::kAudio, 60 * kSecond)); });
  EXPECT_FALSE(sound.ends_within(kMoment));
  m_pace.stop();
  EXPECT_TRUE(sound.ends());
  EXPECT_FALSE(m_pace.wait_turn(Pace::kVideo, 0));
}

TEST(PaceEndlessTest, TrackWithoutAnEndIsNeverAheadAndEndsWithTheOther) {
  Pace pace(false);
  pace.add(Pace::kVideo, false);
  pace.add(Pace::kAudio, true);
  pace.advance(Pace::kVideo, kSecond);
  EXPECT_TRUE(pace.wait_turn(Pace::kAudio, kSecond));
  const Background sound([&] { EXPECT_FALSE(pace.wait_turn(Pace::kAudio, kSecond + 1)); });
  EXPECT_FALSE(sound.ends_within(kMoment));
  pace.finish(Pace::kVideo);
  EXPECT_TRUE(sound.ends());
}

class PatientPaceTest : public testing::Test {
 protected:
  PatientPaceTest() {
    m_pace.add(Pace::kVideo, false);
    m_pace.add(Pace::kAudio, false);
  }
  /// The first picture is being pushed, and the push does not end.
  void hold_video_back() { ASSERT_TRUE(m_pace.wait_turn(Pace::kVideo, 0)); }

  Pace m_pace{false, kMoment};
};

TEST_F(PatientPaceTest, OtherThatIsHeldBackIsNotWaitedForAgain) {
  hold_video_back();
  const Background sound([&] {
    for (int i = 2; i < 1000; ++i) EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, i * kSecond));
  });
  EXPECT_TRUE(sound.ends()) << "a wait for each would take longer";
}

/// A source may take its time: what is pushed meanwhile would come too early.
TEST_F(PatientPaceTest, OtherWhoseSourceRestsIsWaitedFor) {
  hold_video_back();
  m_pace.advance(Pace::kVideo, 0);
  const Background sound([&] { EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, 60 * kSecond)); });
  EXPECT_FALSE(sound.ends_within(4 * kMoment));
  EXPECT_TRUE(m_pace.wait_turn(Pace::kVideo, 60 * kSecond));
  EXPECT_TRUE(sound.ends());
}

TEST_F(PatientPaceTest, OtherThatMovesAgainIsWaitedForAgain) {
  hold_video_back();
  ASSERT_TRUE(m_pace.wait_turn(Pace::kAudio, 60 * kSecond));
  m_pace.advance(Pace::kVideo, kSecond);
  const Background sound([&] { EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, 61 * kSecond)); });
  EXPECT_FALSE(sound.ends_within(4 * kMoment));
  m_pace.finish(Pace::kVideo);
  EXPECT_TRUE(sound.ends());
}

TEST_F(PatientPaceTest, StampThatGoesBackTakesNothingBack) {
  m_pace.advance(Pace::kVideo, 60 * kSecond);
  m_pace.advance(Pace::kVideo, 0);
  EXPECT_TRUE(m_pace.wait_turn(Pace::kAudio, 60 * kSecond));
}

}  // namespace

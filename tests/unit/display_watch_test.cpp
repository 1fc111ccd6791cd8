#include "screen/display_watch.h"

#include <gtest/gtest.h>

#include <optional>

namespace meru_test {
namespace {

using meru_tool::DisplayWatch;
using Change = DisplayWatch::Change;
using std::chrono::milliseconds;

const DisplayWatch::Clock::time_point kBegin(std::chrono::hours(1));
const auto kHangs = kBegin + DisplayWatch::kBusy;

TEST(DisplayWatchTest, DisplayThatAnswersInTimeIsNotSpokenOf) {
  DisplayWatch watch;
  EXPECT_EQ(watch.look(kHangs), Change::kNone);
  const DisplayWatch::Question question(&watch, kBegin);
  EXPECT_EQ(watch.look(kBegin), Change::kNone);
  EXPECT_EQ(watch.look(kHangs - milliseconds(1)), Change::kNone);
}

TEST(DisplayWatchTest, HangIsToldOnceAndSoIsItsEnd) {
  DisplayWatch watch;
  std::optional<DisplayWatch::Question> question;
  for (const milliseconds later : {milliseconds(0), milliseconds(60000)}) {
    question.emplace(&watch, kBegin + later);
    EXPECT_EQ(watch.look(kHangs + later), Change::kHangs);
    EXPECT_EQ(watch.look(kHangs + later + milliseconds(5000)), Change::kNone);
    question.reset();
    EXPECT_EQ(watch.look(kHangs + later + milliseconds(5001)), Change::kAnswers);
    EXPECT_EQ(watch.look(kHangs + later + milliseconds(9000)), Change::kNone);
  }
}

TEST(DisplayWatchTest, EndIsHeldUpByAnOpenQuestionOnly) {
  DisplayWatch watch;
  const auto late = kBegin + DisplayWatch::kPatience;
  EXPECT_FALSE(watch.holds_up(kBegin, late));
  const DisplayWatch::Question question(&watch, kBegin);
  EXPECT_FALSE(watch.holds_up(kBegin, late - milliseconds(1)));
  EXPECT_TRUE(watch.holds_up(kBegin, late));
  EXPECT_FALSE(watch.holds_up(DisplayWatch::Clock::time_point::max(), late));
}

}  // namespace
}  // namespace meru_test

// The command `meru screen` while it runs: keys, signals, pauses, events, and a display that goes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "support/dead_network.h"
#include "support/screen_scene.h"
#include "support/terminal.h"

namespace meru_test {
namespace {

constexpr int kWidth = 320, kHeight = 240;

class MeruScreenControlTest : public testing::Test {
 protected:
  std::string movie() const { return m_folder.file("m.mp4"); }
  bool has(const std::string& name) const { return std::filesystem::exists(m_folder.file(name)); }

  XDisplay m_display;
  ToolFolder m_folder;
};

TEST_F(MeruScreenControlTest, KeysPauseAndStop) {
  Terminal terminal;
  ScreenProcess tool(m_folder, m_display, "-o m.mp4", terminal.end());
  ASSERT_TRUE(terminal.shows(" frames  "));
  ASSERT_TRUE(terminal.shows(" dropped  "));
  ASSERT_TRUE(terminal.shows(" MiB"));
  terminal.press('p');
  ASSERT_TRUE(terminal.shows("paused"));
  terminal.forget_shown();
  terminal.press('p');
  ASSERT_TRUE(terminal.shows("\r00:00:0"));
  terminal.press('q');
  ASSERT_TRUE(terminal.shows("recorded "));
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_NE(terminal.mode().c_lflag & ICANON, 0U);
}

TEST_F(MeruScreenControlTest, CtrlCLeavesACompleteMovieAndNoIndex) {
  Terminal terminal;
  ScreenProcess tool(m_folder, m_display, "-o m.mp4", terminal.end());
  ASSERT_TRUE(terminal.shows(" dropped  "));
  EXPECT_TRUE(has("m.mp4.meru-index"));
  terminal.press('\x03');
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_FALSE(has("m.mp4.meru-index"));
}

TEST_F(MeruScreenControlTest, PausedTimeIsNotInTheMovie) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT});
  ASSERT_TRUE(client.says("ready"));
  ScreenProcess tool(m_folder, m_display, "--fps 25 --json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.tells("paused"));
  // The pattern goes on for longer than the machine can be late.
  ASSERT_FALSE(eventually([&] { return !tool.is_running(); }, std::chrono::milliseconds(1500)));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.tells("resumed"));
  const double resumed = event_in(tool.out(), "resumed")["time"];
  EXPECT_NEAR(resumed, event_in(tool.out(), "paused")["time"].get<double>(), 0.001);
  ASSERT_TRUE(tool.has_recorded(resumed + 0.5));
  tool.send(SIGTERM);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  const nlohmann::json finished = event_in(tool.out(), "finished");
  EXPECT_NEAR(number(probe_stream(movie(), "video"), "duration"), finished["time"].get<double>(), 0.041);
  const std::vector<int> numbers = Pattern::numbers_in(movie(), kWidth, kHeight);
  EXPECT_EQ(static_cast<int>(numbers.size()), finished["frames"].get<int>());
  EXPECT_THAT(numbers, testing::Each(testing::Ge(0)));
  int largest = 0;
  for (size_t i = 1; i < numbers.size(); ++i) largest = std::max(largest, numbers[i] - numbers[i - 1]);
  EXPECT_GE(largest, 1.4 * Pattern::kPerSecond) << "the pause is in the movie";
}

TEST_F(MeruScreenControlTest, EventsAreLinesOfJsonAndNothingElse) {
  const DeadNetwork dead(Death::kRefused, "rtmp");
  const ToolRun run =
      m_folder.run("screen " + m_display.option() + "--audio none --preset ultrafast --seconds 2.2 --json " +
                   "--verbose --timeout 2 --also " + dead.url() + " -o m.mp4");
  EXPECT_EQ(run.status, 1);
  const std::vector<nlohmann::json> events = events_in(run.out);
  ASSERT_FALSE(events.empty()) << run.out;
  const nlohmann::json started = event_in(run.out, "started");
  EXPECT_EQ(started["width"], kWidth);
  EXPECT_EQ(started["fps"], 30);
  EXPECT_EQ(started["sound"], false);
  EXPECT_EQ(started["index"], "m.mp4.meru-index");
  const nlohmann::json progress = event_in(run.out, "progress");
  EXPECT_GT(progress["frames"], 0);
  EXPECT_GE(progress["dropped"], 0);
  EXPECT_GT(progress["bytes"], 0);
  EXPECT_EQ(progress["outputs"][0]["state"], "recording");
  EXPECT_EQ(progress["outputs"][1]["state"], "failed");
  EXPECT_FALSE(event_in(run.out, "output_failed")["reason"].get<std::string>().empty());
  EXPECT_EQ(events.back()["event"], "finished");
  EXPECT_EQ(count_frames(movie()), events.back()["frames"]);
}

TEST_F(MeruScreenControlTest, DisplayThatGoesLeavesACompleteMovie) {
  ScreenProcess tool(m_folder, m_display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  m_display.end();
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.err(), "meru: the display has gone: the movie ends there\n");
  EXPECT_EQ(event_in(tool.out(), "display_lost")["reason"], "the display has gone");
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_EQ(count_frames(movie()), event_in(tool.out(), "finished")["frames"]);
  EXPECT_FALSE(has("m.mp4.meru-index"));
}

TEST_F(MeruScreenControlTest, StopDoesNotWaitForADisplayThatHangs) {
  ScreenProcess tool(m_folder, m_display, "--json --progress 3600000 -o m.mp4");
  ASSERT_TRUE(tool.tells("started"));
  ASSERT_TRUE(eventually([&] { return has("m.mp4") && std::filesystem::file_size(movie()) > 1000; }));
  m_display.suspend();
  // Many images were due meanwhile, so the question for one is open.
  ASSERT_FALSE(eventually([&] { return !tool.is_running(); }, std::chrono::milliseconds(300)));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  m_display.resume();
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_TRUE(event_in(tool.out(), "progress").is_null()) << tool.out();
}

TEST_F(MeruScreenControlTest, SecondsEndAlsoWhenTheDisplayHangs) {
  ScreenProcess tool(m_folder, m_display, "--json --progress 50 --seconds 2 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  m_display.suspend();
  EXPECT_EQ(tool.wait(), 1);
  m_display.resume();
  EXPECT_EQ(tool.err(), "meru: the display does not answer: the movie ends there\n");
  EXPECT_EQ(event_in(tool.out(), "display_lost")["reason"], "the display does not answer");
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_LT(event_in(tool.out(), "finished")["time"], 2);
  EXPECT_FALSE(has("m.mp4.meru-index"));
}

TEST_F(MeruScreenControlTest, DisplayThatHangsAndGoesOnIsToldAndRecordedOn) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT});
  ASSERT_TRUE(client.says("ready"));
  ScreenProcess tool(m_folder, m_display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  m_display.suspend();
  ASSERT_TRUE(tool.tells("display_hangs"));
  m_display.resume();
  ASSERT_TRUE(tool.tells("display_answers"));
  const double back = event_in(tool.out(), "display_answers")["time"];
  ASSERT_TRUE(tool.has_recorded(back + 1));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  EXPECT_EQ(decode_errors(movie()), "");
  // The hang is in the movie: three seconds pass in it before anything is said.
  const PacedPattern pattern(movie(), kWidth, kHeight);
  EXPECT_GE(pattern.longest_gap(), 2.9);
  // The client hung, too, and drew an old number when it went on.
  pattern.expect_in_step(0.08, 0.8);
  EXPECT_EQ(line_count(tool.out()), static_cast<long>(events_in(tool.out()).size()));
}

TEST_F(MeruScreenControlTest, DisplayThatGivesNoMoreImagesEndsTheMovieAndSaysWhy) {
  ScreenProcess tool(m_folder, m_display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  XProgram client(m_display, {MERU_PATTERN_CLIENT, "unshare"});
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_THAT(tool.err(), testing::StartsWith("meru: the display gives no image: X11 error "));
  EXPECT_THAT(event_in(tool.out(), "display_lost")["reason"].get<std::string>(), testing::HasSubstr("X11 error"));
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_EQ(count_frames(movie()), event_in(tool.out(), "finished")["frames"]);
}

TEST_F(MeruScreenControlTest, WithoutASoundServerThereIsNoSoundAndItIsSaid) {
  const std::string command = "screen " + m_display.option() + "--preset ultrafast --seconds 0.2 -o m.mp4";
  const std::string nowhere = "PULSE_SERVER=unix:" + m_folder.file("none") + " PULSE_RUNTIME_PATH=" + m_folder.path();
  const ToolRun run = m_folder.run(command, nowhere);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("without sound: "), std::string::npos) << run.out;
  const ToolRun told = m_folder.run(command + " --json", nowhere);
  EXPECT_EQ(event_in(told.out, "no_sound")["reason"].get<std::string>().rfind("no sound server", 0), 0U) << told.out;
  EXPECT_EQ(event_in(told.out, "started")["sound"], false);
  EXPECT_TRUE(probe_stream(movie(), "audio").is_null());
  const ToolRun named = m_folder.run(command + " --audio desk", nowhere);
  EXPECT_EQ(named.status, 1) << named.out;
}

}  // namespace
}  // namespace meru_test

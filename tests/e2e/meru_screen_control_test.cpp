// The command `meru screen` while it runs: keys, signals, pauses, events, and a display that goes.

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
  EXPECT_FALSE(event_in(tool.out(), "display_lost").is_null());
  EXPECT_EQ(decode_errors(movie()), "");
  EXPECT_EQ(count_frames(movie()), event_in(tool.out(), "finished")["frames"]);
  EXPECT_FALSE(has("m.mp4.meru-index"));
}

TEST_F(MeruScreenControlTest, StopDoesNotWaitForADisplayThatHangs) {
  ScreenProcess tool(m_folder, m_display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.5));
  m_display.suspend();
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  m_display.resume();
  EXPECT_EQ(decode_errors(movie()), "");
}

TEST_F(MeruScreenControlTest, WithoutASoundServerThereIsNoSoundAndItIsSaid) {
  const std::string command = "screen " + m_display.option() + "--preset ultrafast --seconds 0.2 -o m.mp4";
  const std::string nowhere = "PULSE_SERVER=unix:" + m_folder.file("none") + " PULSE_RUNTIME_PATH=" + m_folder.path();
  const ToolRun run = m_folder.run(command, nowhere);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("without sound: "), std::string::npos) << run.out;
  EXPECT_TRUE(probe_stream(movie(), "audio").is_null());
  const ToolRun named = m_folder.run(command + " --audio desk", nowhere);
  EXPECT_EQ(named.status, 1) << named.out;
}

}  // namespace
}  // namespace meru_test

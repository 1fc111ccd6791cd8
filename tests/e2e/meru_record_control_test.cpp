// The command `meru record` while it runs: signals, the keyboard, progress, the clock.

#include <gtest/gtest.h>

#include <chrono>

#include "support/local_listener.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/terminal.h"

namespace meru_test {
namespace {

const std::string kTest = "--test --size 64x48 ";

class MeruRecordControlTest : public testing::TestWithParam<int> {
 protected:
  /// Expects a movie that is as long as the command says.
  void expect_told_movie(const ToolProcess& tool) {
    const std::string path = m_folder.file("m.mp4");
    EXPECT_EQ(tool.err(), "");
    EXPECT_EQ(decode_errors(path), "");
    const std::string out = tool.out();
    const size_t last = out.rfind("recorded ");
    ASSERT_NE(last, std::string::npos) << out;
    const int frames = count_frames(path);
    EXPECT_GT(frames, 0);
    EXPECT_NE(out.find("  " + std::to_string(frames) + " frames", last), std::string::npos) << out << frames;
  }

  ToolFolder m_folder;
};

TEST_P(MeruRecordControlTest, SignalLeavesAPlayableMovie) {
  ToolProcess tool(m_folder, kTest + "--realtime -o m.mp4");
  ASSERT_TRUE(tool.says("frames"));
  tool.send(GetParam());
  EXPECT_EQ(tool.wait(), 0);
  expect_told_movie(tool);
}

TEST_P(MeruRecordControlTest, SignalSentTwiceAtOnceIsOneRequest) {
  ToolProcess tool(m_folder, kTest + "-o m.mp4");
  ASSERT_TRUE(tool.says("frames"));
  tool.send(GetParam());
  tool.send(GetParam());
  EXPECT_EQ(tool.wait(), 0);
  expect_told_movie(tool);
}

INSTANTIATE_TEST_SUITE_P(Stop, MeruRecordControlTest, testing::Values(SIGINT, SIGTERM, SIGHUP));

using MeruRecordPauseTest = MeruRecordControlTest;

TEST_F(MeruRecordPauseTest, PausedTimeOfLiveSourcesIsLeftOut) {
  ToolProcess tool(m_folder, kTest + "--fps 25 --realtime --seconds 3 -o m.mp4");
  ASSERT_TRUE(tool.says("frames"));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.says("paused\n"));
  // The sources go on for longer than is missing from the movie; none of it may count.
  ASSERT_FALSE(eventually([&] { return !tool.is_running(); }, std::chrono::milliseconds(2500)));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.says("resumed\n"));
  EXPECT_EQ(tool.wait(), 0);
  expect_told_movie(tool);
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 75);
  EXPECT_NEAR(number(probe_stream(m_folder.file("m.mp4"), "video"), "duration"), 3, 0.081);
  EXPECT_NEAR(number(probe_stream(m_folder.file("m.mp4"), "audio"), "duration"), 3, 0.081);
}

TEST_F(MeruRecordPauseTest, PauseHoldsWorkThatHasNoClock) {
  ToolProcess tool(m_folder, kTest + "--fps 25 --seconds 4000 -o m.mp4");
  ASSERT_TRUE(tool.says("frames"));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.says("paused\n"));
  const std::string told = tool.out();
  EXPECT_FALSE(eventually([&] { return tool.out() != told; }, std::chrono::milliseconds(1500)));
  tool.send(SIGUSR1);
  ASSERT_TRUE(tool.says("resumed\n"));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0);
  expect_told_movie(tool);
}

TEST_F(MeruRecordPauseTest, StopDuringAPauseLeavesAPlayableMovie) {
  for (const char* pace : {"", "--realtime "}) {
    SCOPED_TRACE(pace);
    ToolProcess tool(m_folder, kTest + pace + "-o m.mp4");
    ASSERT_TRUE(eventually([&] { return tool.told_seconds() > 0.1; }));
    tool.send(SIGUSR1);
    ASSERT_TRUE(tool.says("paused\n"));
    tool.send(SIGTERM);
    EXPECT_EQ(tool.wait(), 0);
    expect_told_movie(tool);
    std::filesystem::remove(m_folder.file("out.txt"));
  }
}

TEST_F(MeruRecordPauseTest, RealtimeKeepsThePaceOfTheClock) {
  const auto begin = std::chrono::steady_clock::now();
  const ToolRun run = m_folder.record(kTest + "--realtime --seconds 2 -o m.mp4");
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_GE(taken.count(), 1.9);
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 60);
}

using MeruRecordStopTest = MeruRecordControlTest;

TEST_F(MeruRecordStopTest, WaitForAPipeCanBeEnded) {
  ASSERT_EQ(run_command("mkfifo " + quoted(m_folder.file("v"))).status, 0);
  ToolProcess tool(m_folder, "--video-raw v --size 64x48 -o m.mp4");
  // Held open without a byte in it: the command waits for the first image.
  const int writer = open(m_folder.file("v").c_str(), O_WRONLY);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(write(writer, "x", 1), 1);
  ASSERT_TRUE(tool.catches(SIGINT));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 1);
  close(writer);
  EXPECT_EQ(tool.err(), "meru: stopped before anything was recorded\n");
  EXPECT_FALSE(std::filesystem::exists(m_folder.file("m.mp4")));
}

TEST_F(MeruRecordStopTest, PipeThatFallsSilentCanBeEnded) {
  ASSERT_EQ(run_command("mkfifo " + quoted(m_folder.file("v"))).status, 0);
  ToolProcess tool(m_folder, "--video-raw v --size 64x48 --preset ultrafast -o m.mp4");
  const int writer = open(m_folder.file("v").c_str(), O_WRONLY);
  ASSERT_GE(writer, 0);
  const std::string images(64UL * 48 * 4 * 5 / 2, '\x40');  // two and a half
  ASSERT_EQ(write(writer, images.data(), images.size()), static_cast<ssize_t>(images.size()));
  ASSERT_TRUE(tool.says("  2 frames"));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0);
  close(writer);
  expect_told_movie(tool);
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 2);
}

TEST_F(MeruRecordStopTest, ConnectingCanBeEnded) {
  const SilentServer server;
  ToolProcess tool(m_folder, kTest + "--seconds 5 --timeout 60 -o " + server.url("rtmp"));
  ASSERT_TRUE(tool.catches(SIGINT));
  // The server's own socket has gone along to the command; a second one is the connection.
  ASSERT_TRUE(eventually([&] {
    return run_command("ls -l /proc/" + std::to_string(tool.pid()) + "/fd | grep -c socket:").output >= "2";
  }));
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(std::chrono::seconds(5)), 1);
  EXPECT_EQ(tool.err(), "meru: stopped before the recording had begun\n");
}

class MeruRecordTerminalTest : public testing::Test {
 protected:
  ToolFolder m_folder;
  Terminal m_terminal;
};

TEST_F(MeruRecordTerminalTest, KeyPausesAndTheTerminalGetsItsModeBack) {
  ASSERT_NE(m_terminal.mode().c_lflag & ICANON, 0U);
  ToolProcess tool(m_folder, kTest + "--realtime -o m.mp4", m_terminal.end());
  ASSERT_TRUE(m_terminal.shows(" fps"));
  EXPECT_EQ(m_terminal.mode().c_lflag & ICANON, 0U);
  EXPECT_EQ(m_terminal.mode().c_lflag & ECHO, 0U);
  m_terminal.press('p');
  ASSERT_TRUE(m_terminal.shows("paused"));
  m_terminal.forget_shown();
  m_terminal.press('p');
  ASSERT_TRUE(m_terminal.shows(" fps"));
  m_terminal.press('\x03');  // Ctrl-C
  ASSERT_TRUE(m_terminal.shows("recorded "));
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_NE(m_terminal.mode().c_lflag & ICANON, 0U);
  EXPECT_NE(m_terminal.mode().c_lflag & ECHO, 0U);
  EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "");
}

TEST_F(MeruRecordTerminalTest, TerminalGetsItsModeBackWhenTheLibraryEndsTheProcess) {
  ToolProcess tool(m_folder, "--test --no-video --seconds 1 -o m.amr", m_terminal.end());
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_NE(tool.err().find("Could not find encoder"), std::string::npos) << tool.err();
  EXPECT_NE(m_terminal.mode().c_lflag & ICANON, 0U);
  EXPECT_NE(m_terminal.mode().c_lflag & ECHO, 0U);
}

TEST_F(MeruRecordTerminalTest, ProgressIsOneLineThatIsWrittenOver) {
  ToolProcess tool(m_folder, kTest + "--realtime --seconds 1 -o m.mp4", m_terminal.end());
  ASSERT_TRUE(m_terminal.shows("recorded "));
  EXPECT_EQ(tool.wait(), 0);
  const std::string before = m_terminal.shown().substr(0, m_terminal.shown().find("recorded "));
  EXPECT_EQ(before.find('\n'), std::string::npos) << before;
  EXPECT_NE(before.find("\r00:00:00."), std::string::npos) << before;
  EXPECT_NE(before.find(" MiB"), std::string::npos) << before;
}

TEST_F(MeruRecordControlTest, ProgressIsPlainLinesWithoutATerminal) {
  const ToolRun run = m_folder.record(kTest + "--realtime --seconds 2.5 -o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_GE(line_count(run.out), 2);
  EXPECT_EQ(run.out.find('\r'), std::string::npos);
  EXPECT_EQ(run.out.find('\033'), std::string::npos);
  EXPECT_EQ(run.err, "");
}

}  // namespace
}  // namespace meru_test

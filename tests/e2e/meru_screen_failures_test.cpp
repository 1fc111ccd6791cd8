// The command `meru screen`: what it refuses, and what it leaves behind when it fails or is killed.

#include <gtest/gtest.h>

#include "support/case_name.h"
#include "support/screen_scene.h"

namespace meru_test {
namespace {

const std::string kQuick = "--audio none --preset ultrafast ";

struct RefusedCase {
  const char* name;
  const char* arguments;
  int status;
  const char* reason;
};

class MeruScreenRefusedTest : public testing::TestWithParam<RefusedCase> {};

TEST_P(MeruScreenRefusedTest, NothingIsWrittenAndOneLineSaysWhy) {
  const ToolFolder folder;
  const ToolRun run = folder.run("screen -o m.mp4 " + std::string(GetParam().arguments), "unset DISPLAY;");
  EXPECT_EQ(run.status, GetParam().status);
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_NE(run.err.find(GetParam().reason), std::string::npos) << run.err;
  EXPECT_FALSE(std::filesystem::exists(folder.file("m.mp4")));
  EXPECT_FALSE(std::filesystem::exists(folder.file("m.mp4.meru-index")));
}

INSTANTIATE_TEST_SUITE_P(
    Options, MeruScreenRefusedTest,
    testing::Values(RefusedCase{"NoDisplay", "", 1, "DISPLAY is not set"},
                    RefusedCase{"UnknownDisplay", "--display :64999", 1, "cannot open the display :64999"},
                    RefusedCase{"NoName", "--display nonsense", 1, "cannot open the display nonsense"},
                    RefusedCase{"RegionWithoutPlace", "--region 10x10", 2, "is not a region like"},
                    RefusedCase{"RegionBeforeTheScreen", "--region 10x10+-5+0", 2, "is not a region like"},
                    RefusedCase{"RegionWithMore", "--region 10x10+0+0+0", 2, "is not a region like"},
                    RefusedCase{"RegionWithoutWidth", "--region x10+0+0", 2, "is not a size like"},
                    RefusedCase{"Fps", "--fps 0", 2, "--fps"}, RefusedCase{"Seconds", "--seconds 0", 2, "--seconds"},
                    RefusedCase{"Preset", "--preset swift", 2, "--preset"},
                    RefusedCase{"EmptyAudio", "--audio ''", 2, "--audio"},
                    RefusedCase{"IndexOrNone", "--index i --no-index", 2, "exclude each other"},
                    RefusedCase{"TheSameTwice", "--also m.mp4", 2, "is given twice"},
                    RefusedCase{"NoFolder", "--index none/i", 1, "the folder none"},
                    RefusedCase{"FiveMore", "--also a --also b --also c --also d --also e", 2, "at most four"}),
    CaseName());

class MeruScreenFailuresTest : public testing::Test {
 protected:
  ToolRun record(const XDisplay& display, const std::string& arguments) const {
    return m_folder.run("screen " + display.option() + kQuick + arguments);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(m_folder.file(name)); }

  ToolFolder m_folder;
};

TEST_F(MeruScreenFailuresTest, RegionMustFitIntoTheScreen) {
  const XDisplay display;
  for (const char* region : {"320x240+1+0", "320x242+0+0", "16x16+400+0", "16x16+0+99999"}) {
    const ToolRun run = record(display, std::string("-o m.mp4 --region ") + region);
    EXPECT_EQ(run.status, 2) << region;
    EXPECT_NE(run.err.find("does not fit into the screen of 320x240"), std::string::npos) << run.err;
  }
  EXPECT_FALSE(has("m.mp4"));
}

TEST_F(MeruScreenFailuresTest, ScreenOfAnotherDepthIsRefused) {
  const XDisplay display("64x48x16");
  const ToolRun run = record(display, "-o m.mp4");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("colour depth of 16"), std::string::npos) << run.err;
}

TEST_F(MeruScreenFailuresTest, ScreenOfOddSizeIsRecordedWithoutItsLastRowAndColumn) {
  const XDisplay display("161x121x24");
  const ToolRun run = record(display, "--seconds 0.2 -o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("160x120+0+0"), std::string::npos) << run.out;
  const nlohmann::json video = probe_stream(m_folder.file("m.mp4"), "video");
  EXPECT_EQ(video["width"], 160);
  EXPECT_EQ(video["height"], 120);
}

TEST_F(MeruScreenFailuresTest, IndexIsWhereItIsWantedWhileTheMovieIsNotComplete) {
  struct Case {
    const char* arguments;
    const char* index;
  };
  const XDisplay display;
  for (const Case& wanted : {Case{"-o m.mp4", "m.mp4.meru-index"}, Case{"-o m.mov --index here", "here"},
                             Case{"-o m.mp4 --no-index", ""}, Case{"-o m.mkv", ""}}) {
    SCOPED_TRACE(wanted.arguments);
    ScreenProcess tool(m_folder, display, std::string("--json --progress 50 ") + wanted.arguments);
    ASSERT_TRUE(tool.tells("started"));
    EXPECT_EQ(event_in(tool.out(), "started")["index"], wanted.index);
    ASSERT_TRUE(eventually([&] { return *wanted.index == '\0' || has(wanted.index); }));
    EXPECT_EQ(has("m.mp4.meru-index"), std::string(wanted.index) == "m.mp4.meru-index");
    ASSERT_TRUE(tool.tells("progress"));
    tool.send(SIGINT);
    EXPECT_EQ(tool.wait(), 0) << tool.err();
    EXPECT_FALSE(has(wanted.index[0] == '\0' ? "m.mp4.meru-index" : wanted.index));
    std::filesystem::remove(m_folder.file("out.txt"));
  }
}

TEST_F(MeruScreenFailuresTest, FailedStartLeavesNoIndex) {
  const XDisplay display;
  const ToolRun run = record(display, "--json -o m.wav --index m.wav.meru-index");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(event_in(run.out, "failed")["reason"].get<std::string>() + "\n", run.err.substr(6));
  EXPECT_FALSE(has("m.wav.meru-index"));
}

TEST_F(MeruScreenFailuresTest, FullDiskLeavesTheIndexFromWhichTheMovieIsRepaired) {
  const XDisplay display;
  XProgram client(display, {MERU_PATTERN_CLIENT});
  ASSERT_TRUE(client.says("ready"));
  const ToolRun run =
      m_folder.run("screen " + display.option() +
                       "--audio none --preset ultrafast --qp 1 --gop 1 --fps 60 --seconds 60 --json -o m.mp4",
                   "ulimit -f 64;");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "meru: " + event_in(run.out, "failed")["reason"].get<std::string>() + "\n");
  EXPECT_NE(run.err.find("File too large"), std::string::npos) << run.err;
  EXPECT_TRUE(has("m.mp4.meru-index"));
  const ToolRun recover = m_folder.run("recover .");
  EXPECT_EQ(recover.status, 0) << recover.err;
  EXPECT_GT(count_frames(m_folder.file("m.repaired.mp4")), 10);
}

TEST_F(MeruScreenFailuresTest, MovieThatIsBeingRecordedIsNotReplaced) {
  const XDisplay display;
  ScreenProcess tool(m_folder, display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(0.3));
  const CommandResult second = run_command("cd " + quoted(m_folder.path()) + " && " MERU_TOOL " screen " +
                                           display.option() + kQuick + "-o m.mp4");
  EXPECT_EQ(second.status, 1) << second.output;
  EXPECT_NE(second.output.find("m.mp4 is being recorded"), std::string::npos) << second.output;
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "");
}

TEST_F(MeruScreenFailuresTest, KilledRecordingIsRepairedByTheNextOne) {
  const XDisplay display;
  ScreenProcess tool(m_folder, display, "--json --progress 50 -o m.mp4");
  ASSERT_TRUE(tool.has_recorded(2));
  tool.send(SIGKILL);
  ASSERT_EQ(tool.wait(), 128 + SIGKILL);
  ASSERT_TRUE(has("m.mp4.meru-index"));
  const std::string cut = file_text(m_folder.file("m.mp4"));
  const ToolRun next = record(display, "--seconds 0.2 -o other.mp4");
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_NE(next.err.find("m.mp4"), std::string::npos) << next.err;
  EXPECT_EQ(decode_errors(m_folder.file("m.repaired.mp4")), "");
  EXPECT_GT(count_frames(m_folder.file("m.repaired.mp4")), 30);
  EXPECT_EQ(file_text(m_folder.file("m.mp4")), cut);
  EXPECT_FALSE(has("m.mp4.meru-index"));
  EXPECT_EQ(decode_errors(m_folder.file("other.mp4")), "");
}

TEST_F(MeruScreenFailuresTest, MovieThatCouldNotBeRepairedIsNotReplaced) {
  write_file(m_folder.file("m.mp4"), "what is left of a movie");
  write_file(m_folder.file("m.mp4.meru-index"), "no index");
  const XDisplay display;
  const ToolRun run = record(display, "--seconds 0.2 -o m.mp4");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("was cut short"), std::string::npos) << run.err;
  EXPECT_EQ(file_text(m_folder.file("m.mp4")), "what is left of a movie");
  EXPECT_TRUE(has("m.mp4.meru-index"));
}

}  // namespace
}  // namespace meru_test

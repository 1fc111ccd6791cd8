// The command `meru screen`: files that it neither replaces nor removes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>

#include "support/case_name.h"
#include "support/cut_movie.h"
#include "support/held_file.h"
#include "support/local_listener.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/screen_scene.h"
#include "support/strict_locks.h"
#include "support/x_display.h"

namespace meru_test {
namespace {

const std::string kOptions = "--audio none --preset ultrafast --region 64x48+0+0 ";

class MeruScreenKeptTest : public testing::Test {
 protected:
  /// A whole movie, what a crash would have left of it, and its index.
  void make_cut(const std::string& name, const std::string& index) const {
    const ToolRun run = m_folder.record("--test --size 64x48 --fps 25 --seconds 2 -o whole.mp4 --index " + index);
    ASSERT_EQ(run.status, 0) << run.err;
    cut_before_table(m_folder.file("whole.mp4"), m_folder.file(name));
  }
  ToolRun record(const std::string& arguments, const std::string& before = "") const {
    return m_folder.run("screen " + m_display.option() + kOptions + "--seconds 0.2 " + arguments, before);
  }
  /// While another one runs in the folder.
  CommandResult record_beside(const std::string& arguments) const {
    return run_command("cd " + quoted(m_folder.path()) + " && " MERU_TOOL " screen " + m_display.option() + kOptions +
                       "--seconds 0.2 " + arguments);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(m_folder.file(name)); }
  std::string text(const std::string& name) const { return file_text(m_folder.file(name)); }

  /// Expects a recording to be refused for this reason, and the files to stay as they are.
  void expect_kept(const std::string& arguments, const std::string& reason,
                   const std::vector<std::string>& files) const {
    std::vector<std::string> before;
    before.reserve(files.size());
    for (const std::string& file : files) before.push_back(text(file));
    const ToolRun run = record(arguments);
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    for (size_t i = 0; i < files.size(); ++i) EXPECT_EQ(text(files[i]), before[i]) << files[i];
  }

  XDisplay m_display;
  ToolFolder m_folder;
};

TEST_F(MeruScreenKeptTest, KilledRecordingIsNotReplacedByTheSameCommand) {
  {
    ScreenProcess tool(m_folder, m_display, "--json --progress 50 -o m.mp4");
    ASSERT_TRUE(tool.has_recorded(2));
    tool.send(SIGKILL);
    ASSERT_EQ(tool.wait(), 128 + SIGKILL);
  }
  expect_kept("-o m.mp4", "what was saved of it is in m.repaired.mp4", {"m.mp4"});
  EXPECT_EQ(decode_errors(m_folder.file("m.repaired.mp4")), "");
  EXPECT_TRUE(has("m.mp4.meru-index.done"));
  expect_kept("-o m.mp4", "what was saved of it is in m.repaired.mp4", {"m.mp4", "m.repaired.mp4"});
  EXPECT_FALSE(has("m.repaired-2.mp4"));
  std::filesystem::remove(m_folder.file("m.mp4"));
  EXPECT_EQ(record("-o m.mp4").status, 0);
  EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "");
}

TEST_F(MeruScreenKeptTest, MovieThatIsWholeIsReplacedAlthoughAnIndexHasServedBesideIt) {
  make_cut("m.mp4", "m.mp4.meru-index.done");
  std::filesystem::rename(m_folder.file("whole.mp4"), m_folder.file("m.mp4"));
  const ToolRun run = record("-o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_LT(count_frames(m_folder.file("m.mp4")), 10);
}

TEST_F(MeruScreenKeptTest, IndexWhoseMovieWasMovedAwayIsKept) {
  make_cut("moved.mp4", "m.mp4.meru-index");
  expect_kept("-o m.mp4", "meru recover .", {"m.mp4.meru-index"});
  EXPECT_FALSE(has("m.mp4"));
  expect_kept("-o m.mkv --index m.mp4.meru-index", "is not empty", {"m.mp4.meru-index"});
  EXPECT_FALSE(has("m.mkv"));
}

TEST_F(MeruScreenKeptTest, MovieWhoseIndexLiesElsewhereIsKept) {
  make_cut("m.mp4", "elsewhere");
  for (const char* arguments : {"-o m.mp4", "-o m.mp4 --no-index", "-o m.mp4 --index new", "-o file:m.mp4",
                                "-o other.mkv --also m.mp4", "-o other.mkv --also file:m.mp4"}) {
    SCOPED_TRACE(arguments);
    expect_kept(arguments, "m.mp4 cannot be opened: it may be a movie that was cut short", {"m.mp4", "elsewhere"});
  }
  EXPECT_FALSE(has("m.mp4.meru-index"));
  EXPECT_FALSE(has("new"));
  EXPECT_FALSE(has("other.mkv"));
}

TEST_F(MeruScreenKeptTest, FurtherOutputWithAnIndexOfItsOwnIsKept) {
  std::filesystem::create_directories(m_folder.file("sub"));
  make_cut("sub/m.mp4", "sub/m.mp4.meru-index");
  expect_kept("-o other.mp4 --also sub/m.mp4", "meru recover sub", {"sub/m.mp4", "sub/m.mp4.meru-index"});
  EXPECT_FALSE(has("other.mp4"));
}

struct TwoCase {
  const char* name;
  const char* first;
  const char* second;
};
class MeruScreenTwoTest : public MeruScreenKeptTest, public testing::WithParamInterface<TwoCase> {};

TEST_P(MeruScreenTwoTest, SecondOneIsRefusedAndTheFirstBecomesComplete) {
  ScreenProcess tool(m_folder, m_display, std::string("--json --progress 50 ") + GetParam().first);
  ASSERT_TRUE(tool.has_recorded(0.3));
  const CommandResult second = record_beside(GetParam().second);
  EXPECT_EQ(second.status, 1) << second.output;
  EXPECT_NE(second.output.find(" is being recorded"), std::string::npos) << second.output;
  tool.send(SIGINT);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  const char* movie = has("m.mp4") ? "m.mp4" : "m.mkv";
  EXPECT_EQ(decode_errors(m_folder.file(movie)), "");
  for (const char* none : {"a", "b", "m.mp4.meru-index", "other.mkv"}) EXPECT_FALSE(has(none)) << none;
}

INSTANTIATE_TEST_SUITE_P(Ways, MeruScreenTwoTest,
                         testing::Values(TwoCase{"Same", "-o m.mp4", "-o m.mp4"},
                                         TwoCase{"OtherIndex", "-o m.mp4 --index a", "-o m.mp4 --index b"},
                                         TwoCase{"NoIndex", "-o m.mp4 --no-index", "-o m.mp4 --no-index"},
                                         TwoCase{"Mkv", "-o m.mkv", "-o m.mkv"},
                                         TwoCase{"Protocol", "-o m.mp4 --no-index", "-o file:m.mp4"},
                                         TwoCase{"Further", "-o m.mkv", "-o other.mkv --also m.mkv"},
                                         TwoCase{"OfFurther", "-o m.mp4 --also a.mkv", "-o a.mkv"}),
                         CaseName());

TEST_F(MeruScreenKeptTest, IndexInUseByAnotherMovieIsRefused) {
  write_file(m_folder.file("a"), "");
  const HeldFile held(m_folder.file("a"), O_RDONLY, true);
  expect_kept("-o m.mp4 --index a", "the index a is in use", {});
  EXPECT_TRUE(has("a"));
  EXPECT_FALSE(has("m.mp4"));
}

TEST_F(MeruScreenKeptTest, FileThatIsNoIndexIsKept) {
  write_file(m_folder.file("notes.txt"), "notes");
  for (const char* movie : {"m.wav", "m.mp4"}) {
    expect_kept(std::string("-o ") + movie + " --index notes.txt", "the index notes.txt is not empty", {"notes.txt"});
    EXPECT_FALSE(has(movie));
  }
  std::filesystem::create_symlink("notes.txt", m_folder.file("link"));
  std::filesystem::create_symlink("nothing", m_folder.file("dangling"));
  ASSERT_EQ(mkfifo(m_folder.file("pipe").c_str(), 0600), 0);
  for (const char* special : {"link", "dangling", "pipe"}) {
    SCOPED_TRACE(special);
    const ToolRun run = record(std::string("-o m.mp4 --index ") + special);
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(run.err.find("it is not a regular file"), std::string::npos) << run.err;
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(m_folder.file(special))));
  }
  EXPECT_EQ(text("notes.txt"), "notes");
  EXPECT_FALSE(has("nothing"));
}

TEST_F(MeruScreenKeptTest, EmptyIndexServes) {
  write_file(m_folder.file("a"), "");
  const ToolRun run = record("-o m.mp4 --index a");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(has("a"));
  EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "");
}

/// Whether the command has begun to talk to the display.
bool has_socket(pid_t pid) {
  std::error_code error;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
    if (std::filesystem::read_symlink(fd.path(), error).string().rfind("socket:", 0) == 0) return true;
  }
  return false;
}

TEST_F(MeruScreenKeptTest, WhatIsLeftBehindWhileTheDisplayIsOpenedIsKept) {
  for (const char* index : {"m.mp4.meru-index", "elsewhere"}) {
    SCOPED_TRACE(index);
    m_display.suspend();
    ScreenProcess tool(m_folder, m_display, "-o m.mp4");
    ASSERT_TRUE(eventually([&] { return has_socket(tool.pid()); }));
    write_file(m_folder.file("m.mp4"), "what is left of a movie");
    write_file(m_folder.file(index), "its index");
    m_display.resume();
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_NE(tool.err().find("was cut short"), std::string::npos) << tool.err();
    EXPECT_EQ(text("m.mp4"), "what is left of a movie");
    EXPECT_EQ(text(index), "its index");
    for (const char* file : {"m.mp4", index}) std::filesystem::remove(m_folder.file(file));
  }
}

TEST_F(MeruScreenKeptTest, DisplayThatGoesBeforeTheFirstImageLeavesNoMovie) {
  SilentServer server;
  ScreenProcess tool(m_folder, m_display, "--json -o m.mp4 --also " + server.url("rtmp"));
  ASSERT_TRUE(tool.tells("connecting"));
  m_display.end();
  server.close();
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_NE(tool.err().find("the display has gone"), std::string::npos) << tool.err();
  EXPECT_FALSE(has("m.mp4"));
  EXPECT_FALSE(has("m.mp4.meru-index"));
}

TEST_F(MeruScreenKeptTest, FailedStartKeepsTheFurtherOutputThatItDidNotTouch) {
  make_cut("cut.mp4", "i");
  const ReservedPort port;
  const ToolRun run = record("-o rtmp://127.0.0.1:" + port.text() + "/live/key --also whole.mp4");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("Connection refused"), std::string::npos) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("whole.mp4")), "");
}

TEST_F(MeruScreenKeptTest, IndexOnAFileServerIsInUseWhileItIsRecorded) {
  if (!kCanPreload) GTEST_SKIP() << kWhyNoPreload;
  write_file(m_folder.file("a"), "");
  {
    const HeldFile held(m_folder.file("a"), O_WRONLY, true);
    const ToolRun run = record("-o m.mp4 --index a", kStrictLocks);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("the index a is in use"), std::string::npos) << run.err;
  }
  const ToolRun run = record("-o m.mp4 --index a", kStrictLocks);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(has("a"));
}

}  // namespace
}  // namespace meru_test

// The command `meru recover`: movies in a folder that a crash has left behind.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/case_name.h"
#include "support/cut_movie.h"
#include "support/held_file.h"
#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/strict_locks.h"

namespace meru_test {
namespace {

constexpr int kFailure = 1;
constexpr int kStopped = 130;

class MeruRecoverTest : public testing::Test {
 protected:
  /// A movie in the folder "videos" as a crash leaves it, with its index.
  void leave_behind(const std::string& name) const {
    std::filesystem::create_directories(m_folder.file("videos"));
    const ToolRun run =
        m_folder.record("--test --size 64x48 --fps 25 --seconds 2 -o whole.mp4 --index videos/" + name + ".meru-index");
    ASSERT_EQ(run.status, 0) << run.err;
    cut_before_table(m_folder.file("whole.mp4"), video(name));
  }
  std::string video(const std::string& name) const { return m_folder.file("videos/" + name); }
  bool has(const std::string& name) const { return std::filesystem::exists(video(name)); }
  ToolRun recover() const { return m_folder.run("recover videos"); }

  ToolFolder m_folder;
};

TEST_F(MeruRecoverTest, RepairsTheMovieBesideTheBrokenOne) {
  leave_behind("talk.mp4");
  const std::string broken = file_text(video("talk.mp4"));
  const std::string index = file_text(video("talk.mp4.meru-index"));
  const ToolRun run = recover();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("found videos/talk.mp4.meru-index: the recording of videos/talk.mp4"), std::string::npos)
      << run.out;
  const auto packets = IndexReader(index).packets();
  EXPECT_NE(run.out.find(std::to_string(packets.size()) + " packets"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  videos/talk.repaired.mp4\n"), std::string::npos) << run.out;
  EXPECT_EQ(decode_errors(video("talk.repaired.mp4")), "");
  EXPECT_EQ(count_frames(video("talk.repaired.mp4")),
            static_cast<int>(probe_packets(m_folder.file("whole.mp4"), "v:0").size()));
  EXPECT_EQ(file_text(video("talk.mp4")), broken);
  EXPECT_EQ(file_text(video("talk.mp4.meru-index.done")), index);
  EXPECT_FALSE(has("talk.mp4.meru-index"));
}

TEST_F(MeruRecoverTest, SecondRunFindsNothing) {
  leave_behind("talk.mp4");
  ASSERT_EQ(recover().status, 0);
  const ToolRun again = recover();
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, "nothing was left behind in videos\n");
  EXPECT_FALSE(has("talk.repaired-2.mp4"));
}

TEST_F(MeruRecoverTest, TakenNamesGetANumber) {
  leave_behind("talk.mp4");
  for (const char* name : {"talk.repaired.mp4", "talk.repaired-2.mp4", "talk.mp4.meru-index.done"}) {
    write_file(video(name), "precious");
  }
  const ToolRun run = recover();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(video("talk.repaired-3.mp4")), "");
  EXPECT_TRUE(has("talk.mp4.meru-index.done-2"));
  for (const char* name : {"talk.repaired.mp4", "talk.repaired-2.mp4", "talk.mp4.meru-index.done"}) {
    EXPECT_EQ(file_text(video(name)), "precious") << name;
  }
}

TEST_F(MeruRecoverTest, KilledRecordingIsRepaired) {
  std::filesystem::create_directories(m_folder.file("videos"));
  ToolProcess recording(
      m_folder, "--test --size 64x48 --fps 25 --realtime -o videos/talk.mp4 --index videos/talk.mp4.meru-index");
  ASSERT_TRUE(recording.reaches(1.5)) << recording.err();
  recording.send(SIGKILL);
  ASSERT_EQ(recording.wait(), 128 + SIGKILL);
  const ToolRun run = recover();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(video("talk.repaired.mp4")), "");
  EXPECT_GE(count_frames(video("talk.repaired.mp4")), 20);
}

TEST_F(MeruRecoverTest, RunningRecordingIsLeftAlone) {
  std::filesystem::create_directories(m_folder.file("videos"));
  ToolProcess recording(
      m_folder, "--test --size 64x48 --fps 25 --realtime -o videos/talk.mp4 --index videos/talk.mp4.meru-index");
  ASSERT_TRUE(recording.reaches(0.5)) << recording.err();
  ASSERT_GT(std::filesystem::file_size(video("talk.mp4.meru-index")), 0U);
  const CommandResult run =
      run_command("cd " + quoted(m_folder.path()) + " && " MERU_TOOL " recover videos");  // out.txt is the recording's
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output, "left alone: videos/talk.mp4.meru-index is in use\n");
  EXPECT_FALSE(has("talk.repaired.mp4"));
  recording.send(SIGINT);
  EXPECT_EQ(recording.wait(), 0) << recording.err();
  EXPECT_EQ(decode_errors(video("talk.mp4")), "");
}

struct HeldCase {
  const char* name;
  const char* file;
  int flags;
  bool locked;
};
class MeruRecoverHeldTest : public MeruRecoverTest, public testing::WithParamInterface<HeldCase> {};

TEST_P(MeruRecoverHeldTest, IsLeftAloneUntilItIsFree) {
  leave_behind("talk.mp4");
  {
    const HeldFile held(video(GetParam().file), GetParam().flags, GetParam().locked);
    const ToolRun run = recover();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "left alone: videos/talk.mp4.meru-index is in use\n");
    EXPECT_TRUE(has("talk.mp4.meru-index"));
    EXPECT_FALSE(has("talk.repaired.mp4"));
  }
  EXPECT_EQ(recover().status, 0);
  EXPECT_TRUE(has("talk.repaired.mp4"));
}

INSTANTIATE_TEST_SUITE_P(Ways, MeruRecoverHeldTest,
                         testing::Values(HeldCase{"index_locked", "talk.mp4.meru-index", O_RDONLY, true},
                                         HeldCase{"index_written", "talk.mp4.meru-index", O_WRONLY, false},
                                         HeldCase{"movie_written", "talk.mp4", O_RDWR, false}),
                         CaseName());

TEST_F(MeruRecoverTest, ReaderOfTheMovieDoesNotHoldItBack) {
  leave_behind("talk.mp4");
  const HeldFile movie(video("talk.mp4"), O_RDONLY, false);
  const HeldFile index(video("talk.mp4.meru-index"), O_RDONLY, false);
  EXPECT_EQ(recover().status, 0);
  EXPECT_TRUE(has("talk.repaired.mp4"));
}

TEST_F(MeruRecoverTest, DamagedIndexIsToldAndTheOthersAreRepaired) {
  leave_behind("talk.mp4");
  write_file(video("first.mp4"), file_text(video("talk.mp4")));
  write_file(video("first.mp4.meru-index"), "no index at all\n");
  const ToolRun run = recover();
  EXPECT_EQ(run.status, kFailure);
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_NE(run.err.find("cannot repair videos/first.mp4: cannot use the index"), std::string::npos) << run.err;
  EXPECT_TRUE(has("first.mp4.meru-index"));
  EXPECT_FALSE(has("first.repaired.mp4"));
  EXPECT_EQ(decode_errors(video("talk.repaired.mp4")), "");
  EXPECT_EQ(recover().status, kFailure) << "tried again";
}

TEST_F(MeruRecoverTest, WhatDoesNotPlayIsNotKept) {
  leave_behind("talk.mp4");
  write_file(video("talk.mp4"), std::string(std::filesystem::file_size(video("talk.mp4")), 'x'));
  const ToolRun run = recover();
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("cannot be played"), std::string::npos) << run.err;
  EXPECT_FALSE(has("talk.repaired.mp4"));
  EXPECT_TRUE(has("talk.mp4.meru-index"));
}

TEST_F(MeruRecoverTest, IndexWithoutItsMovieIsTold) {
  leave_behind("talk.mp4");
  std::filesystem::remove(video("talk.mp4"));
  const ToolRun run = recover();
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("videos/talk.mp4 is not there"), std::string::npos) << run.err;
  EXPECT_TRUE(has("talk.mp4.meru-index"));
}

TEST_F(MeruRecoverTest, CrashBeforeTheFirstPacketLeavesNothing) {
  std::filesystem::create_directories(m_folder.file("videos"));
  write_file(video("talk.mp4.meru-index"), "");
  write_file(video("other.mp4.meru-index"), "");
  write_file(video("other.mp4"), "");
  const ToolRun run = recover();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(has("talk.mp4.meru-index"));
  EXPECT_FALSE(has("other.mp4.meru-index"));
  EXPECT_TRUE(has("other.mp4"));
}

TEST_F(MeruRecoverTest, MovieThatPlaysIsNotRepaired) {
  leave_behind("talk.mp4");
  std::filesystem::copy(m_folder.file("whole.mp4"), video("talk.mp4"),
                        std::filesystem::copy_options::overwrite_existing);
  const ToolRun run = recover();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("videos/talk.mp4 plays as it is"), std::string::npos) << run.out;
  EXPECT_TRUE(has("talk.mp4.meru-index.done"));
  EXPECT_FALSE(has("talk.repaired.mp4"));
}

TEST_F(MeruRecoverTest, FoldersBelowAreLeftOut) {
  leave_behind("talk.mp4");
  std::filesystem::create_directories(m_folder.file("above"));
  std::filesystem::rename(m_folder.file("videos"), m_folder.file("above/videos"));
  std::filesystem::create_directories(m_folder.file("above/folder.mp4.meru-index"));
  const ToolRun run = m_folder.run("recover above");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "nothing was left behind in above\n");
}

TEST_F(MeruRecoverTest, WhatIsNoFolderIsOneLine) {
  write_file(m_folder.file("file"), "");
  for (const char* folder : {"file", "missing"}) {
    const ToolRun run = m_folder.run(std::string("recover ") + folder);
    EXPECT_EQ(run.status, kFailure) << folder;
    EXPECT_EQ(line_count(run.err), 1) << run.err;
    EXPECT_EQ(run.err.rfind(std::string("meru: cannot look into ") + folder, 0), 0U) << run.err;
  }
  EXPECT_EQ(m_folder.run("recover").status, 2);
}

TEST_F(MeruRecoverTest, CtrlCEndsItAndTheIndexStays) {
  leave_behind("talk.mp4");
  make_long(video("talk.mp4.meru-index"), 16000, video("first.mp4"), video("first.mp4.meru-index"));
  ToolProcess process(m_folder, "videos", -1, "recover");
  ASSERT_TRUE(process.catches(SIGINT));
  process.send(SIGINT);
  EXPECT_EQ(process.wait(), kStopped);
  EXPECT_NE(process.err().find("cannot repair videos/first.mp4: stopped"), std::string::npos) << process.err();
  EXPECT_FALSE(has("first.repaired.mp4"));
  EXPECT_FALSE(has("talk.repaired.mp4")) << "the next one was begun";
  EXPECT_TRUE(has("first.mp4.meru-index"));
  EXPECT_TRUE(has("talk.mp4.meru-index"));
}

TEST_F(MeruRecoverTest, MovieNamedLikeAnAddressIsRepairedBesideItself) {
  for (const char* name : {"file:x.mp4", "12:30.mp4"}) {
    leave_behind("talk.mp4");
    std::filesystem::rename(video("talk.mp4"), video(name));
    std::filesystem::rename(video("talk.mp4.meru-index"), video(std::string(name) + ".meru-index"));
  }
  for (const char* taken : {"x.repaired.mp4", "x.mp4"}) write_file(video(taken), "precious");
  const ToolRun run = m_folder.run("recover .", "cd videos &&");
  EXPECT_EQ(run.status, 0) << file_text(video("err.txt"));
  for (const char* taken : {"x.repaired.mp4", "x.mp4"}) EXPECT_EQ(file_text(video(taken)), "precious") << taken;
  for (const char* name : {"file:x", "12:30"}) {
    EXPECT_EQ(decode_errors(video(std::string(name) + ".repaired.mp4")), "") << name;
    EXPECT_TRUE(has(std::string(name) + ".mp4.meru-index.done"));
  }
}

TEST_F(MeruRecoverTest, LockedIndexOnAFileServerIsLeftAlone) {
  if (!kCanPreload) GTEST_SKIP() << kWhyNoPreload;
  leave_behind("talk.mp4");
  {
    const HeldFile held(video("talk.mp4.meru-index"), O_WRONLY, true);
    const ToolRun run = m_folder.run("recover videos", kStrictLocks);
    EXPECT_EQ(run.out, "left alone: videos/talk.mp4.meru-index is in use\n");
    EXPECT_FALSE(has("talk.repaired.mp4"));
  }
  EXPECT_EQ(m_folder.run("recover videos", kStrictLocks).status, 0);
  EXPECT_TRUE(has("talk.repaired.mp4"));
}

TEST_F(MeruRecoverTest, IndexOfWhichNobodyCanTellWhetherItIsInUseIsLeftAlone) {
  if (!kCanPreload) GTEST_SKIP() << kWhyNoPreload;
  leave_behind("talk.mp4");
  const ToolRun run = m_folder.run("recover videos", kNoLocks);
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("cannot tell whether the index videos/talk.mp4.meru-index is in use"), std::string::npos)
      << run.err;
  EXPECT_TRUE(has("talk.mp4.meru-index"));
  EXPECT_FALSE(has("talk.repaired.mp4"));
}

TEST_F(MeruRecoverTest, DiagnosticsGoToTheLog) {
  leave_behind("talk.mp4");
  const ToolRun run = m_folder.run("recover --verbose --log recover.log videos");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_NE(file_text(m_folder.file("recover.log")).find("restored: packets="), std::string::npos);
}

}  // namespace
}  // namespace meru_test

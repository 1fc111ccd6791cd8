// What `meru screen` does with the indexes that it finds in the folder of its movie.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/cut_movie.h"
#include "support/held_file.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/x_display.h"

namespace meru_test {
namespace {

class MeruScreenLeftBehindTest : public testing::Test {
 protected:
  void SetUp() override {
    const ToolRun run =
        m_folder.record("--test --size 64x48 --fps 25 --seconds 2 -o whole.mp4 --index talk.mp4.meru-index");
    ASSERT_EQ(run.status, 0) << run.err;
    cut_before_table(m_folder.file("whole.mp4"), m_folder.file("talk.mp4"));
  }
  ToolRun record(const std::string& options) const {
    return m_folder.run("screen " + m_display.option() +
                        "--audio none --preset ultrafast --region 64x48+0+0 --seconds 0.5 -o new.mp4 " + options);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(m_folder.file(name)); }

  XDisplay m_display;
  ToolFolder m_folder;
};

TEST_F(MeruScreenLeftBehindTest, AnotherMovieIsRepairedAndStandardOutputIsKeptForTheEvents) {
  const ToolRun run = record("--json");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("talk.repaired.mp4")), "");
  EXPECT_TRUE(has("talk.mp4.meru-index.done"));
  EXPECT_NE(run.err.find("meru: found talk.mp4.meru-index"), std::string::npos) << run.err;
  EXPECT_EQ(run.out.find("talk.mp4"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.rfind("{", 0), 0U) << run.out;
  EXPECT_EQ(decode_errors(m_folder.file("new.mp4")), "");
}

TEST_F(MeruScreenLeftBehindTest, WhatCannotBeRepairedDoesNotHoldTheRecordingBack) {
  write_file(m_folder.file("talk.mp4.meru-index"), "no index at all\n");
  const ToolRun run = record("");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("meru: cannot repair talk.mp4: "), std::string::npos) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("new.mp4")), "");
}

TEST_F(MeruScreenLeftBehindTest, RecordingThatRunsBesideItIsNotSpokenOf) {
  const HeldFile held(m_folder.file("talk.mp4.meru-index"), O_RDONLY, true);
  const ToolRun run = record("");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(has("talk.repaired.mp4"));
  EXPECT_TRUE(has("talk.mp4.meru-index"));
}

}  // namespace
}  // namespace meru_test

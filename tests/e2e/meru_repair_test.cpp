// The command `meru repair`: what it prints, what it refuses, and what it leaves behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/case_name.h"
#include "support/cut_movie.h"
#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/probe.h"

namespace meru_test {
namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;
constexpr int kStopped = 130;

class MeruRepairTest : public testing::Test {
 protected:
  void SetUp() override {
    const ToolRun run = m_folder.record("--test --size 64x48 --fps 25 --seconds 4 -o whole.mp4 --index movie.index");
    ASSERT_EQ(run.status, 0) << run.err;
    cut_before_table(m_folder.file("whole.mp4"), m_folder.file("broken.mp4"));
  }
  ToolFolder m_folder;
};

TEST_F(MeruRepairTest, MakesAPlayableMovieAndSaysWhatIsInIt) {
  const ToolRun run = m_folder.run("repair broken.mp4 movie.index out.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const auto packets = IndexReader::of_file(m_folder.file("movie.index")).packets();
  EXPECT_EQ(run.out.rfind("repaired ", 0), 0U) << run.out;
  EXPECT_NE(run.out.find(std::to_string(packets.size()) + " packets"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("out.mp4\n"), std::string::npos) << run.out;
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
}

TEST_F(MeruRepairTest, JsonHoldsTheFigures) {
  const ToolRun run = m_folder.run("repair --json broken.mp4 movie.index out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  const auto packets = IndexReader::of_file(m_folder.file("movie.index")).packets();
  int64_t bytes = 0;
  for (const auto& packet : packets) bytes += packet.size;
  EXPECT_EQ(json.at("exit_code"), 0);
  EXPECT_EQ(json.at("code"), 0);
  EXPECT_EQ(json.at("message"), "");
  EXPECT_EQ(json.at("output"), "out.mp4");
  EXPECT_EQ(json.at("packets"), packets.size());
  EXPECT_EQ(json.at("bytes_read"), bytes);
  EXPECT_EQ(json.at("ignored_lines"), 0);
  EXPECT_EQ(json.at("damaged_lines"), 0);
  EXPECT_EQ(json.at("progress"), 1.0);
  EXPECT_EQ(json.at("stopped"), false);
  EXPECT_NEAR(json.at("duration").get<double>(), 4.0, 0.1);
}

TEST_F(MeruRepairTest, MovieThatEndsEarlyLeavesTheRestOut) {
  std::filesystem::resize_file(m_folder.file("broken.mp4"),
                               std::filesystem::file_size(m_folder.file("broken.mp4")) / 2);
  const ToolRun run = m_folder.run("repair --json broken.mp4 movie.index out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_GT(json.at("ignored_lines"), 0);
  EXPECT_EQ(json.at("damaged_lines"), 1);
  EXPECT_LT(json.at("duration"), 3.5);
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
  const ToolRun plain = m_folder.run("repair --force broken.mp4 movie.index out.mp4");
  EXPECT_NE(plain.out.find("left out: " + json.at("ignored_lines").dump() + " lines of the index"), std::string::npos)
      << plain.out;
}

TEST_F(MeruRepairTest, ReplacesAMovieOnlyWhenTold) {
  write_file(m_folder.file("out.mp4"), "precious");
  const ToolRun refused = m_folder.run("repair broken.mp4 movie.index out.mp4");
  EXPECT_EQ(refused.status, kUsage);
  EXPECT_NE(refused.err.find("--force"), std::string::npos) << refused.err;
  EXPECT_EQ(file_text(m_folder.file("out.mp4")), "precious");
  EXPECT_EQ(m_folder.run("repair --force broken.mp4 movie.index out.mp4").status, 0);
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
}

TEST_F(MeruRepairTest, NeverWritesIntoWhatItRepairs) {
  const std::string movie = file_text(m_folder.file("broken.mp4"));
  const std::string index = file_text(m_folder.file("movie.index"));
  std::filesystem::create_symlink("broken.mp4", m_folder.file("link.mp4"));
  std::filesystem::create_hard_link(m_folder.file("movie.index"), m_folder.file("hard.mp4"));
  for (const char* out : {"broken.mp4", "./broken.mp4", "movie.index", "link.mp4", "hard.mp4"}) {
    const ToolRun run = m_folder.run(std::string("repair --force broken.mp4 movie.index ") + out);
    EXPECT_EQ(run.status, kUsage) << out;
    EXPECT_NE(run.err.find("is what is to be repaired"), std::string::npos) << run.err;
  }
  EXPECT_EQ(file_text(m_folder.file("broken.mp4")), movie);
  EXPECT_EQ(file_text(m_folder.file("movie.index")), index);
}

TEST_F(MeruRepairTest, WithoutAPacketThereIsNoMovie) {
  std::filesystem::resize_file(m_folder.file("broken.mp4"), 40);
  const ToolRun run = m_folder.run("repair --json broken.mp4 movie.index out.mp4");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("no packet could be restored"), std::string::npos) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("exit_code"), kFailure);
  EXPECT_FALSE(std::filesystem::exists(m_folder.file("out.mp4")));
}

/// The index with its body replaced.
std::string with_body(const std::string& index, const std::string& body) {
  return index.substr(0, index.find('\n', index.rfind('{')) + 1) + body;
}

TEST_F(MeruRepairTest, DamagedRecordIsTold) {
  std::string index = read_file(m_folder.file("movie.index"));
  const size_t last_line = index.rfind('\n') + 1;
  index.replace(index.find(';', last_line) + 1, 4, "what");
  write_file(m_folder.file("damaged.index"), index);
  const ToolRun run = m_folder.run("repair --json broken.mp4 damaged.index out.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("damaged_lines"), 1);
}

TEST_F(MeruRepairTest, EmptyPacketsMakeNoMovie) {
  write_file(m_folder.file("empty.index"),
             with_body(read_file(m_folder.file("movie.index")), ",48,,,,512,1;,,,512,,512,;,,,512,,512,;"));
  const ToolRun run = m_folder.run("repair broken.mp4 empty.index out.mp4");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("no packet could be restored"), std::string::npos) << run.err;
}

TEST_F(MeruRepairTest, WhatCannotBePlayedIsNoSuccess) {
  write_file(m_folder.file("junk.mp4"), std::string(std::filesystem::file_size(m_folder.file("broken.mp4")), 'x'));
  const ToolRun run = m_folder.run("repair --json junk.mp4 movie.index out.mp4");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("out.mp4 cannot be played"), std::string::npos) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("exit_code"), kFailure);
}

TEST_F(MeruRepairTest, MovieOfZerosIsNoSuccess) {
  write_file(m_folder.file("zeros.mp4"), std::string(std::filesystem::file_size(m_folder.file("broken.mp4")), '\0'));
  const ToolRun run = m_folder.run("repair zeros.mp4 movie.index out.mp4");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("no packet could be restored"), std::string::npos) << run.err;
}

TEST_F(MeruRepairTest, AddressOfAFileIsThatFile) {
  write_file(m_folder.file("out.mp4"), "precious");
  for (const char* out : {"file:out.mp4", "file:broken.mp4"}) {
    EXPECT_EQ(m_folder.run(std::string("repair broken.mp4 movie.index ") + out).status, kUsage) << out;
  }
  EXPECT_EQ(m_folder.run("repair --force broken.mp4 movie.index file:broken.mp4").status, kUsage);
  EXPECT_EQ(file_text(m_folder.file("out.mp4")), "precious");
  EXPECT_EQ(m_folder.run("repair broken.mp4 movie.index file:new.mp4").status, 0);
  EXPECT_EQ(decode_errors(m_folder.file("new.mp4")), "");
}

TEST_F(MeruRepairTest, NamesWithBlanksAndQuotesInFrontAreReadAsTheyAre) {
  std::filesystem::rename(m_folder.file("broken.mp4"), m_folder.file(" 'b\".mp4"));
  const ToolRun run = m_folder.run("repair ' '\\''b\".mp4' movie.index out.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  const ToolRun behind = m_folder.run("repair 'broken.mp4 ' movie.index out2.mp4");
  EXPECT_EQ(behind.status, kUsage);
  EXPECT_NE(behind.err.find("rename it"), std::string::npos) << behind.err;
}

TEST_F(MeruRepairTest, DiagnosticsStayOutOfTheResult) {
  const ToolRun run = m_folder.run("repair --json --verbose broken.mp4 movie.index out.mp4");
  EXPECT_EQ(nlohmann::json::parse(run.out).at("exit_code"), 0);
  EXPECT_NE(run.err.find("progress:1.000000\n"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("restored: packets="), std::string::npos) << run.err;
}

TEST_F(MeruRepairTest, PipeIsNoMovie) {
  ASSERT_EQ(mkfifo(m_folder.file("pipe").c_str(), 0666), 0);
  const ToolRun run = m_folder.run("repair pipe movie.index out.mp4");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_NE(run.err.find("it is no file"), std::string::npos) << run.err;
}

struct RepairFailure {
  const char* name;
  const char* arguments;
  int status;
  int code;  ///< the library's, 0 when it was not asked
  const char* says;
};
void PrintTo(const RepairFailure& c, std::ostream* out) { *out << c.arguments; }

class MeruRepairFailureTest : public MeruRepairTest, public testing::WithParamInterface<RepairFailure> {};

TEST_P(MeruRepairFailureTest, IsOneLine) {
  write_file(m_folder.file("words"), "no index at all\n");
  const ToolRun run = m_folder.run(std::string("repair ") + GetParam().arguments);
  EXPECT_EQ(run.status, GetParam().status);
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_EQ(run.err.rfind("meru: ", 0), 0U) << run.err;
  EXPECT_NE(run.err.find(GetParam().says), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
  const ToolRun json = m_folder.run(std::string("repair --json ") + GetParam().arguments);
  EXPECT_EQ(json.status, GetParam().status);
  if (GetParam().code == 0) return;
  EXPECT_EQ(nlohmann::json::parse(json.out).at("code"), GetParam().code);
  EXPECT_EQ(nlohmann::json::parse(json.out).at("exit_code"), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, MeruRepairFailureTest,
    testing::Values(RepairFailure{"nothing", "", kUsage, 0, "required"},
                    RepairFailure{"missing_movie", "no.mp4 movie.index out.mp4", kFailure, -1, "No such file"},
                    RepairFailure{"folder_as_movie", ". movie.index out.mp4", kFailure, -1, "Is a directory"},
                    RepairFailure{"missing_index", "broken.mp4 no.index out.mp4", kFailure, -2, "No such file"},
                    RepairFailure{"folder_as_index", "broken.mp4 . out.mp4", kFailure, -2, "Is a directory"},
                    RepairFailure{"words_as_index", "broken.mp4 words out.mp4", kFailure, -2, "describes no stream"},
                    RepairFailure{"unknown_container", "broken.mp4 movie.index out.what", kFailure, -10, "out.what"},
                    RepairFailure{"missing_folder", "broken.mp4 movie.index no/out.mp4", kFailure, 0, "No such file"}),
    CaseName());

/// A movie that takes a minute to repair and no room: sparse, and its new movie goes nowhere.
class LongRepair {
 public:
  LongRepair(const ToolFolder& folder, const std::string& options, int terminal = -1) {
    make_long(folder.file("movie.index"), 4000000, folder.file("long.mp4"), folder.file("long.index"));
    std::filesystem::create_symlink("/dev/null", folder.file("nowhere.mp4"));
    m_process.emplace(folder, options + " --force long.mp4 long.index nowhere.mp4", terminal, "repair");
  }
  ToolProcess& process() { return *m_process; }

 private:
  std::optional<ToolProcess> m_process;
};

TEST_F(MeruRepairTest, CtrlCEndsItWithinALine) {
  LongRepair repair(m_folder, "--json");
  ASSERT_TRUE(repair.process().catches(SIGINT));
  repair.process().send(SIGINT);
  EXPECT_EQ(repair.process().wait(), kStopped);
  const auto json = nlohmann::json::parse(repair.process().out());
  EXPECT_EQ(json.at("stopped"), true);
  EXPECT_EQ(json.at("exit_code"), kStopped);
  EXPECT_LT(json.at("progress"), 0.9);
}

TEST_F(MeruRepairTest, PlainLinesTellTheProgressWithoutATerminal) {
  LongRepair repair(m_folder, "");
  EXPECT_TRUE(repair.process().says(" %\n"));
  EXPECT_EQ(repair.process().out().find('\r'), std::string::npos);
  repair.process().send(SIGTERM);
  EXPECT_EQ(repair.process().wait(), kStopped);
  EXPECT_NE(repair.process().err().find("meru: stopped: nowhere.mp4 holds what was restored until then"),
            std::string::npos)
      << repair.process().err();
}

TEST_F(MeruRepairTest, BarTellsTheProgressOnATerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(terminal, 0);
  ASSERT_EQ(grantpt(terminal), 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  const int child = open(ptsname(terminal), O_RDWR | O_NOCTTY);
  ASSERT_GE(child, 0);
  LongRepair repair(m_folder, "", child);
  std::string shown;
  char buffer[256];
  while (shown.find("] ") == std::string::npos) {
    const ssize_t n = read(terminal, buffer, sizeof(buffer));
    ASSERT_GT(n, 0);
    shown.append(buffer, static_cast<size_t>(n));
  }
  EXPECT_NE(shown.find("\r["), std::string::npos) << shown;
  EXPECT_NE(shown.find(" %"), std::string::npos) << shown;
  repair.process().send(SIGINT);
  EXPECT_EQ(repair.process().wait(), kStopped);
  close(child);
  close(terminal);
}

}  // namespace
}  // namespace meru_test

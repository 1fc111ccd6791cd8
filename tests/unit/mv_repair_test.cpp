// The codes, the reports and the lines that a repair prints and logs.
#include "MVRepair/restore/mv_repair.h"

#include <gtest/gtest.h>

#include <string>

#include "support/repair_bench.h"

namespace meru_test {
namespace {

using Reports = std::vector<RepairReport>;

class MVRepairTest : public RepairBench {
 protected:
  /// `count` lines of one record of 10 bytes each, 4 bytes shorter than their number in the file would ask for.
  static std::string body(int count) {
    std::string lines = ",48,10,,,512,1;\n";
    for (int i = 1; i < count; ++i) lines += ",,10,512,,512,;\n";
    return lines;
  }
  /// The progress when the line of this number (from 0) was the last.
  static double progress_at(int line, int count) {
    const std::string header = index_header();
    const auto position = static_cast<double>(header.size() + body(line).size());
    return line == 0 ? 0 : position / static_cast<double>(header.size() + body(count).size());
  }
  void expect_failure(int code, const std::string& text, double progress = 0.0) {
    EXPECT_EQ(reports(), (Reports{{progress, code, text}}));
    EXPECT_EQ(printed, progress_lines());
  }
};

TEST_F(MVRepairTest, MissingMovieIsToldBeforeTheIndexIsLookedAt) {
  EXPECT_FALSE(run("/nowhere/a.mp4", "/nowhere/a.idx", output.c_str()));
  expect_failure(-1, "cannot open broken_file...");
  EXPECT_EQ(log.count(2, "无法打开mdata文件: /nowhere/a.mp4"), 1);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_FALSE(repair->is_running());
  EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(MVRepairTest, FolderAndNothingAreNoMovie) {
  for (const char* movie : {"/tmp", "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(run(movie, index.c_str(), output.c_str()));
    EXPECT_EQ(reports().back(), (RepairReport{0.0, -1, "cannot open broken_file..."}));
  }
}

TEST_F(MVRepairTest, UnusableIndexIsTold) {
  const std::string no_sets = "# version=2\n{\"type\":\"video\",\"codec\":\"h264\",\"qv\":\"AAAA\"}\n";
  for (const std::string& text : {std::string(), std::string("text\n"), no_sets}) {
    EXPECT_FALSE(run(text));
    EXPECT_EQ(reports().back(), (RepairReport{0.0, -2, "parse moov file failed ..."}));
    EXPECT_EQ(printed, "progress:0.000000\n");
  }
  for (const char* moov : {"/nowhere/a.idx", "/tmp", "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(run(broken.c_str(), moov, output.c_str()));
    EXPECT_EQ(reports().back(), (RepairReport{0.0, -2, "parse moov file failed ..."}));
  }
  EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(MVRepairTest, PathsMayStandInQuotesAndWhiteSpace) {
  write_index(index_header() + body(3));
  const auto decorated = [](const std::string& path) { return "\t \"" + path + "\"\r\n"; };
  EXPECT_TRUE(run(decorated(broken).c_str(), decorated(index).c_str(), output.c_str()));
  EXPECT_EQ(restored().size(), 3U);
}

TEST_F(MVRepairTest, WorksWithoutACallback) {
  write_index(index_header() + body(12));
  testing::internal::CaptureStdout();
  EXPECT_TRUE(repair->start_sync(broken.c_str(), index.c_str(), output.c_str(), {}));
  EXPECT_FALSE(repair->start_sync("", "", "", {}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            text_of("progress:%.6f\nprogress:1.000000\nprogress:0.000000\n", progress_at(9, 12)));
}

TEST_F(MVRepairTest, EveryTenthLineAndTheEndAreReported) {
  EXPECT_TRUE(run(index_header() + body(25)));
  EXPECT_EQ(reports(), (Reports{{progress_at(9, 25), 0, ""}, {progress_at(19, 25), 0, ""}, {1.0, 0, ""}}));
  EXPECT_EQ(printed, progress_lines());
  EXPECT_EQ(restored().size(), 25U);
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [0 ~ 0) 共0行）"), 1);
  EXPECT_EQ(log.count(4, text_of("restored: packets=25, bytes=250, duration=%.6f", 25 * 512 / 12800.0)), 1);
}

TEST_F(MVRepairTest, EmptyBodyGivesAMovieWithoutPackets) {
  EXPECT_TRUE(run(index_header()));
  EXPECT_EQ(reports(), (Reports{{1.0, 0, ""}}));
  EXPECT_EQ(restored().size(), 0U);
}

TEST_F(MVRepairTest, StoppedRepairCompletesTheMovieMadeSoFar) {
  on_report = [this](double) { repair->stop(); };
  EXPECT_TRUE(run(index_header() + body(200)));
  // The line that was read when the stop was noticed counts as where the repair got to.
  EXPECT_EQ(reports(), (Reports{{progress_at(9, 200), 0, ""}, {progress_at(10, 200), 0, ""}}));
  EXPECT_EQ(printed, progress_lines());
  EXPECT_EQ(log.count(2, "repair aborted ."), 1);
  EXPECT_EQ(log.count(2, text_of(">> 执行完成 %.6f, （忽略索引: [0 ~ 0) 共0行）", progress_at(10, 200))), 1);
  EXPECT_EQ(restored().size(), 10U);
  EXPECT_EQ(log.count(5, "repair: stop() ..."), 0);
}

TEST_F(MVRepairTest, NineTenthsAreAsGoodAsComplete) {
  // The last line begins just behind nine tenths of the file, or just before.
  for (const bool enough : {true, false}) {
    auto stopped = std::make_shared<MVRepair>();
    const std::string begin = index_header() + body(10);
    const size_t tail = begin.size() / 9 + (enough ? 0 : 1);
    const std::string text = begin + std::string(tail, 'x');
    ASSERT_EQ(static_cast<double>(begin.size()) / static_cast<double>(text.size()) >= 0.9, enough);
    write_index(text);
    Reports got;
    EXPECT_TRUE(stopped->start_sync(broken.c_str(), index.c_str(), output.c_str(),
                                    [&](double progress, int code, const char* message) {
                                      got.push_back({progress, code, message});
                                      stopped->stop();
                                    }));
    ASSERT_EQ(got.size(), 2U);
    EXPECT_EQ(got.back().progress == 1.0, enough) << got.back().progress;
  }
}

class RepairVersion : public MVRepairTest, public testing::WithParamInterface<int> {};

TEST_P(RepairVersion, OfAnotherFormatIsRefusedForEveryLine) {
  EXPECT_TRUE(run(index_header(GetParam()) + body(2)));
  const std::string refused = text_of("[ERROR] version=%d, parse failed\n", GetParam());
  EXPECT_EQ(printed, refused + refused + "progress:1.000000\n");
  EXPECT_EQ(restored().size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Numbers, RepairVersion, testing::Values(0, 3, -1, 2147483647));

TEST_F(MVRepairTest, ContainerThatIsNotKnownFails) {
  write_index(index_header() + body(2));
  EXPECT_FALSE(run(broken.c_str(), index.c_str(), dir.file("a.nothing").c_str()));
  expect_failure(-10, AvError(AVERROR_UNKNOWN).text);
  EXPECT_NE(complained.find("Could not create output context\n"), std::string::npos);
  EXPECT_EQ(log.count(2, text_of("Error occurred(%d): %s", AVERROR_UNKNOWN, AvError(AVERROR_UNKNOWN).text)), 1);
}

TEST_F(MVRepairTest, NoOutputPathFails) {
  write_index(index_header() + body(2));
  EXPECT_FALSE(run(broken.c_str(), index.c_str(), nullptr));
  EXPECT_FALSE(run(broken.c_str(), index.c_str(), ""));
  EXPECT_EQ(reports().size(), 2U);
  for (const RepairReport& report : reports()) EXPECT_EQ(report.code, -10);
}

TEST_F(MVRepairTest, OutputThatCannotBeOpenedFails) {
  write_index(index_header() + body(2));
  EXPECT_FALSE(run(broken.c_str(), index.c_str(), "/nowhere/a.mp4"));
  expect_failure(-10, AvError(AVERROR(ENOENT)).text);
  EXPECT_NE(complained.find("Could not open output file '/nowhere/a.mp4'"), std::string::npos);
}

TEST_F(MVRepairTest, CodecThatIsNotKnownFails) {
  for (std::string text : {std::string(kIndexVideo), std::string(kIndexAudio)}) {
    const size_t at = text.find("h264") != std::string::npos ? text.find("h264") : text.find("\"aac") + 1;
    text.replace(at, text[at] == 'h' ? 4 : 3, "nosuch");
    EXPECT_FALSE(run("# version=2\n" + text + body(2)));
    EXPECT_EQ(reports().back(), (RepairReport{0.0, -10, AvError(-1).text}));
  }
  EXPECT_EQ(log.count(2, "---> 找不到编码器：nosuch"), 2);
  EXPECT_EQ(log.count(2, text_of("Error occurred(-1): %s", AvError(-1).text)), 2);
  EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(MVRepairTest, HeaderThatTheContainerRefusesFails) {
  std::string video = kIndexVideo;
  video.replace(video.find("\"w\":64"), 6, "\"w\":0");
  EXPECT_FALSE(run("# version=2\n" + video + body(2)));
  expect_failure(-10, AvError(AVERROR(EINVAL)).text);
  EXPECT_NE(complained.find("Error occurred when opening output file\n"), std::string::npos);
}

TEST_F(MVRepairTest, FullDiskFailsAtTheEnd) {
  write_index(index_header() + body(2));
  std::filesystem::create_symlink("/dev/full", dir.file("full.flv"));
  EXPECT_FALSE(run(broken.c_str(), index.c_str(), dir.file("full.flv").c_str()));
  ASSERT_EQ(reports().size(), 2U);
  EXPECT_EQ(reports()[0], (RepairReport{1.0, 0, ""}));
  EXPECT_EQ(reports()[1], (RepairReport{1.0, -10, AvError(AVERROR(ENOSPC)).text}));
}

TEST_F(MVRepairTest, OutputIsNeitherTheMovieNorTheIndex) {
  write_index(index_header() + body(2));
  const std::string movie_before = file_text(broken);
  const std::string index_before = file_text(index);
  const auto refused = [&](const std::string& path) {
    EXPECT_FALSE(run(broken.c_str(), index.c_str(), path.c_str())) << path;
    EXPECT_EQ(reports().back(), (RepairReport{0.0, -10, AvError(AVERROR(EINVAL)).text})) << path;
    EXPECT_TRUE(file_text(broken) == movie_before) << path;
    EXPECT_TRUE(file_text(index) == index_before) << path;
  };
  std::filesystem::rename(index, dir.file("index.mp4"));
  index = dir.file("index.mp4");
  for (const std::string& path : {broken, index}) {
    const std::string name = std::filesystem::path(path).filename();
    refused(path);
    refused(dir.path() + "/./" + name);
    refused("file:" + path);
    refused("md5:" + path);
    refused("md5:file:" + path);
    refused("tee:" + dir.file("other.mp4") + "|" + path);
    refused("tee:[f=mp4]" + path + "|" + dir.file("other.mp4"));
    std::filesystem::create_symlink(path, dir.file("soft-" + name));
    refused(dir.file("soft-" + name));
    std::filesystem::create_hard_link(path, dir.file("hard-" + name));
    refused(dir.file("hard-" + name));
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("other.mp4")));
}

}  // namespace
}  // namespace meru_test

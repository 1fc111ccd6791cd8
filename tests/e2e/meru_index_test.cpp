// The command `meru index`: an index as a person and a program read it.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/index_reader.h"
#include "support/meru_tool.h"

namespace meru_test {
namespace {

class MeruIndexTest : public testing::Test {
 protected:
  void SetUp() override {
    const ToolRun run = m_folder.record("--test --size 64x48 --fps 25 --seconds 2 -o movie.mp4 --index movie.index");
    ASSERT_EQ(run.status, 0) << run.err;
  }
  ToolFolder m_folder;
};

TEST_F(MeruIndexTest, JsonHoldsEveryPacket) {
  const ToolRun run = m_folder.run("index --json movie.index");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  const auto index = IndexReader::of_file(m_folder.file("movie.index"));
  const auto expected = index.packets();
  EXPECT_EQ(json.at("version"), 2);
  EXPECT_EQ(json.at("damaged"), 0);
  EXPECT_EQ(json.at("cut"), false);
  ASSERT_EQ(json.at("streams").size(), 2U);
  EXPECT_EQ(json.at("streams")[0].at("codec"), "h264");
  EXPECT_EQ(json.at("streams")[1].at("parameters"), 5);
  EXPECT_FALSE(json.at("streams")[1].contains("qv"));
  ASSERT_EQ(json.at("packets").size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& packet = json.at("packets")[i];
    EXPECT_EQ(packet.at("stream"), expected[i].stream);
    EXPECT_EQ(packet.at("position"), expected[i].pos);
    EXPECT_EQ(packet.at("size"), expected[i].size);
    EXPECT_EQ(packet.at("pts"), expected[i].pts);
    EXPECT_EQ(packet.at("dts"), expected[i].dts);
    EXPECT_EQ(packet.at("duration"), expected[i].duration);
    EXPECT_EQ(packet.at("key"), expected[i].key);
  }
}

TEST_F(MeruIndexTest, TableHasALineForEachPacket) {
  const ToolRun run = m_folder.run("index movie.index");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto index = IndexReader::of_file(m_folder.file("movie.index"));
  EXPECT_EQ(run.out.rfind("version 2\nstream 0  video  h264  64x48  yuv420p  time base 1/12800  parameters of ", 0), 0U)
      << run.out;
  EXPECT_NE(
      run.out.find("stream 1  audio  aac  48000 Hz  2 channels  fltp  time base 1/48000  parameters of 5 bytes\n"),
      std::string::npos)
      << run.out;
  EXPECT_EQ(line_count(run.out), static_cast<long>(4 + index.packets().size()));
}

TEST_F(MeruIndexTest, CutIndexIsShownUpToTheCut) {
  std::string text = read_file(m_folder.file("movie.index"));
  const size_t whole = text.rfind(';', text.size() - 2) + 1;  // the record before the last
  write_file(m_folder.file("cut.index"), text.substr(0, whole + 2));
  const ToolRun run = m_folder.run("index --json cut.index");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json.at("cut"), true);
  EXPECT_EQ(json.at("packets").size(), IndexReader(text).packets().size() - 1);
}

TEST_F(MeruIndexTest, DamagedRecordIsTold) {
  std::string text = read_file(m_folder.file("movie.index"));
  const size_t body = text.find("}\n", text.find("\"audio\"")) + 2;  // behind the lines of the streams
  text.insert(body, "garbage");
  write_file(m_folder.file("damaged.index"), text);
  const ToolRun run = m_folder.run("index --json damaged.index");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("1 damaged records"), std::string::npos) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("damaged"), 1);
}

TEST_F(MeruIndexTest, LineThatIsCutInTheMiddleIsDamage) {
  std::string text = read_file(m_folder.file("movie.index"));
  const size_t end = text.rfind('\n');  // of the line before the last
  text.erase(end - 5, 5);
  write_file(m_folder.file("damaged.index"), text);
  const ToolRun run = m_folder.run("index --json damaged.index");
  EXPECT_EQ(run.status, 1);
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json.at("damaged"), 1);
  EXPECT_EQ(json.at("cut"), false);
}

TEST_F(MeruIndexTest, OnlyTheFirstLineSaysTheVersion) {
  const std::string text = read_file(m_folder.file("movie.index"));
  write_file(m_folder.file("late.index"), "# x\n" + text);
  const ToolRun run = m_folder.run("index late.index");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out.rfind("version 0\nstream 0", 0), 0U) << run.out;
  EXPECT_NE(run.err.find("version 0 is not known"), std::string::npos) << run.err;
}

TEST_F(MeruIndexTest, FirstVersionIsReadAndAnUnknownOneIsNot) {
  std::string text = read_file(m_folder.file("movie.index"));
  text.replace(text.find("version=2"), 9, "version=1");
  text.resize(text.find('\n', text.rfind('{')) + 1);
  write_file(m_folder.file("v1.index"), text + "0,48,100,0,0,512,1;1,148,20,0,0,1024,1;\n");
  const ToolRun first = m_folder.run("index --json v1.index");
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(nlohmann::json::parse(first.out).at("packets").size(), 2U);
  text.replace(text.find("version=1"), 9, "version=3");
  write_file(m_folder.file("v3.index"), text + ",48,100,,,512,1;\n");
  const ToolRun third = m_folder.run("index --json v3.index");
  EXPECT_EQ(third.status, 1);
  EXPECT_EQ(nlohmann::json::parse(third.out).at("packets").size(), 0U);
  EXPECT_NE(third.err.find("version 3 is not known"), std::string::npos) << third.err;
}

TEST_F(MeruIndexTest, WhatIsNoIndexIsRefused) {
  write_file(m_folder.file("empty"), "");
  for (const char* name : {"empty", "movie.mp4", "missing", "."}) {
    const ToolRun run = m_folder.run(std::string("index ") + name);
    EXPECT_EQ(run.status, 1) << name;
    EXPECT_EQ(run.err.rfind("meru: ", 0), 0U) << run.err;
    EXPECT_EQ(line_count(run.err), 1) << run.err;
    EXPECT_EQ(run.out, "") << name;
  }
}

}  // namespace
}  // namespace meru_test

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "base/MR_AVWriter.h"
#include "support/case_name.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/packets.h"
#include "support/temp_dir.h"
#include "support/writing.h"

namespace {

using meru_test::eventually;
using meru_test::kAudioStream;
using meru_test::kVideoStream;
using meru_test::LogCapture;
using meru_test::ReadBack;
using meru_test::Reports;
using meru_test::Streams;
using meru_test::tag;
using meru_test::TempDir;
using meru_test::TestOutput;
using meru_test::write_audio;
using meru_test::write_video;
using MR::MR_AVWriter;

/// A main writer to "main.mkv" with further outputs.
class Chain {
 public:
  Chain(const TempDir& dir, const std::vector<std::string>& urls, Streams streams = Streams::kVideoAndAudio)
      : m_output("matroska", dir.file("main.mkv"), streams), m_urls(urls) {
    std::vector<const char*> list;
    for (const std::string& url : m_urls) list.push_back(url.c_str());
    list.push_back(nullptr);
    m_writer.create_other_writers(list.data());
  }

  MR_AVWriter* operator->() { return &m_writer; }
  MR_AVWriter* writer() { return &m_writer; }
  /// The i-th further output, from 1.
  BaseWriter* further(int i) {
    BaseWriter* at = &m_writer;
    for (; i > 0; --i) at = at->m_next_writer;
    return at;
  }
  int write_header(const char* metainfo = nullptr) { return m_writer.writeHeader(m_output.get(), metainfo); }
  void write_scene(int images) {
    for (int i = 0; i < images; ++i) {
      EXPECT_EQ(write_video(&m_writer, i, 100 + i), 0);
      EXPECT_EQ(write_audio(&m_writer, i * 1920), 0);
    }
  }
  void finish() {
    m_writer.stop();
    m_output.close();
  }
  AVFormatContext* context() { return m_output.get(); }

 private:
  TestOutput m_output;
  std::vector<std::string> m_urls;
  MR_AVWriter m_writer{10, 5, nullptr};
};

void expect_scene(const std::string& path, const char* format, int images) {
  const ReadBack file(path);
  ASSERT_TRUE(file.opened) << path;
  EXPECT_NE(file.format.find(format), std::string::npos) << path << ": " << file.format;
  ASSERT_EQ(file.packets(kVideoStream), static_cast<size_t>(images)) << path;
  EXPECT_EQ(file.packets(kAudioStream), static_cast<size_t>(images)) << path;
  EXPECT_EQ(file.codecs, (std::vector<AVCodecID>{AV_CODEC_ID_FFV1, AV_CODEC_ID_PCM_S16LE})) << path;
  EXPECT_EQ(file.sizes.back(), 100 + images - 1) << path;
  for (int i = 0; i < images; ++i) EXPECT_NEAR(file.seconds[0][static_cast<size_t>(i)], i / 25.0, 0.001) << path;
}

TEST(FurtherOutputs, AreLinkedInOrder) {
  const TempDir dir;
  LogCapture log;
  Chain chain(dir, {dir.file("b.nut"), "rtsp://127.0.0.1:9/path", "rtmp://127.0.0.1:9/app/secret"});
  EXPECT_EQ(chain->m_prev_writer, nullptr);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_NE(chain.further(i), nullptr);
    EXPECT_EQ(chain.further(i)->m_prev_writer, chain.further(i - 1));
    EXPECT_EQ(chain.further(i)->m_live, i > 1);
    EXPECT_EQ(chain.further(i)->m_fmt_ctx, nullptr);
  }
  EXPECT_EQ(chain.further(3)->m_next_writer, nullptr);

  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 5U);
  for (const auto& line : lines) EXPECT_EQ(line.level, 5);
  EXPECT_EQ(lines[0].text, "\"@@------------------ create other writers ---------\"\n");
  EXPECT_EQ(lines[1].text, "\"other_url: " + dir.file("b.nut") + "\"\n");
  EXPECT_EQ(lines[2].text, "\"other_url: rtsp://127.0.0.1:9/path\"\n");
  EXPECT_EQ(lines[3].text, "\"other_url: rtmp://127.0.0.1:9/app/***\"\n");
  EXPECT_EQ(lines[4].text, "\"@@------------------ create other writers -------OK\"\n");
}

TEST(FurtherOutputs, CanBeNone) {
  LogCapture log;
  MR_AVWriter writer(10, 5, nullptr);
  const char* none[] = {nullptr};
  writer.create_other_writers(none);
  writer.create_other_writers(nullptr);
  EXPECT_EQ(writer.m_next_writer, nullptr);
  EXPECT_EQ(log.count(5, "@@------------------ create other writers ---------"), 2);
  EXPECT_EQ(log.count(5, "@@------------------ create other writers -------OK"), 2);
}

struct LimitCase {
  int output;
  bool privileged;
  int limit;
};

class FurtherOutputLimit : public testing::TestWithParam<LimitCase> {};

// The main writer's limits are 10 and 5 more; each further output has 6 and 3 more than the one before.
TEST_P(FurtherOutputLimit, GrowsWithItsPlaceInTheChain) {
  const TempDir dir;
  Chain chain(dir, {dir.file("b.nut"), dir.file("c.nut"), dir.file("d.nut")}, Streams::kVideo);
  ASSERT_GE(chain.write_header(), 0);
  BaseWriter* writer = chain.further(GetParam().output);
  LogCapture log;
  const int limit = GetParam().limit;
  BaseWriter* const behind = std::exchange(writer->m_next_writer, nullptr);  // only this queue is looked at
  for (int i = 0; i < limit; ++i) ASSERT_EQ(write_video(writer, i, 10, GetParam().privileged), 0);
  auto blocked = std::async(std::launch::async, [&] { return write_video(writer, limit, 10, GetParam().privileged); });
  const std::string number = std::to_string(limit);
  EXPECT_TRUE(eventually([&] { return log.count(5, "write full: maxNpkt=" + number + ", have=" + number) == 1; }));
  chain->start();
  ASSERT_EQ(blocked.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(blocked.get(), 0);
  writer->m_next_writer = behind;
}

INSTANTIATE_TEST_SUITE_P(Chain, FurtherOutputLimit,
                         testing::Values(LimitCase{1, false, 16}, LimitCase{1, true, 24}, LimitCase{2, false, 22},
                                         LimitCase{2, true, 33}, LimitCase{3, false, 28}, LimitCase{3, true, 42}));

TEST(FurtherOutputs, ReceiveEveryPacketInTheirOwnContainer) {
  const TempDir dir;
  Chain chain(dir, {dir.file("b.nut"), dir.file("c.avi")});
  ASSERT_GE(chain.write_header("title:My film"), 0);
  chain->start();
  chain.write_scene(100);
  chain.finish();
  expect_scene(dir.file("main.mkv"), "matroska", 100);
  expect_scene(dir.file("b.nut"), "nut", 100);
  expect_scene(dir.file("c.avi"), "avi", 100);
}

TEST(FurtherOutputs, ReceiveTheMetadata) {
  const TempDir dir;
  Chain chain(dir, {dir.file("b.nut")});
  ASSERT_GE(chain.write_header("title:My film"), 0);
  ASSERT_NE(chain.further(1)->m_fmt_ctx, nullptr);
  EXPECT_EQ(tag(chain.further(1)->m_fmt_ctx->metadata, "title"), "My film");
  EXPECT_NE(chain.further(1)->m_fmt_ctx, chain.context());
}

TEST(FurtherOutputs, AreClosedByStop) {
  const TempDir dir;
  Chain chain(dir, {dir.file("b.nut")});
  ASSERT_GE(chain.write_header(), 0);
  chain->start();
  chain.write_scene(5);
  chain->stop();
  EXPECT_EQ(chain.further(1)->m_fmt_ctx, nullptr);
  expect_scene(dir.file("b.nut"), "nut", 5);
}

TEST(FurtherOutputs, CannotBeStartedAfterStop) {
  const TempDir dir;
  Chain chain(dir, {dir.file("b.nut")});
  chain->stop();
  EXPECT_THROW(chain->start(), MR::MRException);
  EXPECT_THROW(chain.further(1)->start(), MR::MRException);
  EXPECT_THROW(chain.further(1)->writeHeader(chain.context(), nullptr), MR::MRException);
  EXPECT_FALSE(std::filesystem::exists(dir.file("b.nut")));
}

struct LeftOutCase {
  const char* name;
  const char* file;
  const char* reason;
};

/// What the log says of outputs that failed.
std::vector<std::string> failures(LogCapture& log) {
  std::vector<std::string> texts;
  for (const auto& line : log.lines()) {
    if (line.level == 2 && line.text.find(") failed: ") != std::string::npos) {
      texts.push_back(line.text.substr(1, line.text.size() - 3));
    }
  }
  return texts;
}

class LeftOutOutput : public testing::TestWithParam<LeftOutCase> {};

TEST_P(LeftOutOutput, LeavesTheOthersAloneAndIsLoggedOnce) {
  const TempDir dir;
  LogCapture log;
  Reports reports;
  Chain chain(dir, {dir.file(GetParam().file), dir.file("c.avi")});
  reports.listen_to(chain.writer());
  EXPECT_GE(chain.write_header(), 0);
  EXPECT_EQ(chain.further(1)->m_fmt_ctx, nullptr);
  chain->start();
  chain.write_scene(20);
  chain.finish();
  EXPECT_EQ(reports.count(), 0U);
  EXPECT_EQ(failures(log), std::vector<std::string>{"further output 1 (" + dir.file(GetParam().file) +
                                                    ") failed: " + GetParam().reason});
  expect_scene(dir.file("main.mkv"), "matroska", 20);
  expect_scene(dir.file("c.avi"), "avi", 20);
}

INSTANTIATE_TEST_SUITE_P(Outputs, LeftOutOutput,
                         testing::Values(LeftOutCase{"NoSuchFolder", "missing/b.nut", "No such file or directory"},
                                         LeftOutCase{"NoSuchFormat", "b.unknown", "Invalid argument"},
                                         LeftOutCase{"RefusesTheStreams", "b.flv", "Function not implemented"}),
                         meru_test::CaseName());

TEST(FurtherOutputs, FailOnTheirOwn) {
  const TempDir dir;
  std::filesystem::create_symlink("/dev/full", dir.file("full.avi"));
  LogCapture log;
  Reports reports;
  Chain chain(dir, {dir.file("full.avi"), dir.file("c.nut")});
  reports.listen_to(chain.writer());
  ASSERT_GE(chain.write_header(), 0);
  chain->start();
  const std::string failed = "errmsg=No space left on device";
  const auto has_failed = [&] {
    for (const auto& line : log.lines()) {
      if (line.text.find(failed) != std::string::npos) return true;
    }
    return false;
  };
  int images = 0;
  ASSERT_TRUE(eventually([&] {
    EXPECT_EQ(write_video(chain.writer(), images, 50000), 0);
    EXPECT_EQ(write_audio(chain.writer(), images * 1920), 0);
    ++images;
    return has_failed();
  }));
  for (int i = 0; i < 10; ++i, ++images) {
    EXPECT_EQ(write_video(chain.writer(), images), 0);
    EXPECT_EQ(write_audio(chain.writer(), images * 1920), 0);
  }
  chain.finish();
  EXPECT_EQ(reports.count(), 0U);
  EXPECT_EQ(failures(log), std::vector<std::string>{"further output 1 (" + dir.file("full.avi") +
                                                    ") failed: No space left on device"});
  for (const char* name : {"main.mkv", "c.nut"}) {
    EXPECT_EQ(ReadBack(dir.file(name)).packets(kVideoStream), static_cast<size_t>(images)) << name;
  }
}

TEST(FurtherOutputs, GoOnWhenTheMainOutputHasFailed) {
  const TempDir dir;
  TestOutput output("avi", "/dev/full");
  const std::string other = dir.file("b.nut");
  const char* urls[] = {other.c_str(), nullptr};
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  writer.create_other_writers(urls);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  for (int i = 0; i < 10; ++i) write_video(&writer, i, 100000);
  ASSERT_TRUE(eventually([&] { return reports.count() > 0; }));
  EXPECT_EQ(write_video(&writer, 10), -1);
  writer.stop();
  EXPECT_EQ(ReadBack(other).packets(kVideoStream), 11U);
}

TEST(FurtherOutputs, AreNotOpenedWhenTheMainHeaderFails) {
  const TempDir dir;
  LogCapture log;
  TestOutput output("flv", dir.file("a.flv"));  // does not take the codec
  const std::string other = dir.file("b.nut");
  const char* urls[] = {other.c_str(), nullptr};
  MR_AVWriter writer(60, 1000, nullptr);
  writer.create_other_writers(urls);
  EXPECT_LT(writer.writeHeader(output.get(), nullptr), 0);
  EXPECT_FALSE(std::filesystem::exists(other));
  EXPECT_EQ(failures(log),
            std::vector<std::string>{"main output (" + dir.file("a.flv") + ") failed: Function not implemented"});
}

}  // namespace

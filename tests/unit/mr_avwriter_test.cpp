#include "base/MR_AVWriter.h"

#include <gtest/gtest.h>

#include <exception>
#include <future>
#include <sstream>
#include <string>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/packets.h"
#include "support/temp_dir.h"
#include "support/writing.h"

namespace {

using meru_test::eventually;
using meru_test::kAudioStream;
using meru_test::kVideoStream;
using meru_test::kVideoTimeBase;
using meru_test::LogCapture;
using meru_test::make_packet;
using meru_test::ReadBack;
using meru_test::Reports;
using meru_test::Streams;
using meru_test::TempDir;
using meru_test::TestOutput;
using meru_test::write_audio;
using meru_test::write_video;
using MR::MR_AVWriter;

constexpr char kExited[] = "main writer already exited ...";

template <class Call>
void expect_exited(Call call) {
  try {
    call();
    ADD_FAILURE() << "no exception";
  } catch (const MR::MRException& e) {
    EXPECT_EQ(e.code(), 20);
    EXPECT_STREQ(e.what(), kExited);
  }
}

TEST(MrAvWriter, WritesAFileWithItsTrailerOnAThreadOfItsOwn) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"), Streams::kVideoAndAudio);
  LogCapture log;
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  ASSERT_GE(writer.writeHeader(output.get(), "title:My film"), 0);
  EXPECT_EQ(writer.m_fmt_ctx, output.get());
  writer.start();
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(write_video(&writer, i, 100 + i), 0);
    EXPECT_EQ(write_audio(&writer, i * 1920), 0);
  }
  EXPECT_FALSE(writer.tailer_done());
  writer.stop();
  EXPECT_TRUE(writer.tailer_done());
  EXPECT_EQ(log.count(2, "******* get tailer-pkt ****"), 1);
  EXPECT_EQ(log.count(2, "*** write tailer pkt."), 1);
  EXPECT_EQ(reports.count(), 0U);
  output.close();

  const ReadBack file(dir.file("a.mkv"));
  ASSERT_EQ(file.packets(kVideoStream), 200U);
  EXPECT_EQ(file.packets(kAudioStream), 200U);
  EXPECT_EQ(file.sizes.front(), 100);
  EXPECT_EQ(file.sizes.back(), 299);
  EXPECT_NEAR(file.seconds[0].back(), 199 / 25.0, 0.001);
  EXPECT_TRUE(file.has_duration);
}

TEST(MrAvWriter, CompletesTheFileWhenItIsDestroyed) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  {
    MR_AVWriter writer(60, 1000, nullptr);
    ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
    writer.start();
    for (int i = 0; i < 5; ++i) write_video(&writer, i);
  }
  output.close();
  const ReadBack file(dir.file("a.mkv"));
  EXPECT_EQ(file.packets(kVideoStream), 5U);
  EXPECT_TRUE(file.has_duration);
}

TEST(MrAvWriter, QueuesPacketsThatComeBeforeTheStart) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(write_video(&writer, i), 0);
  EXPECT_EQ(writer.cachedNPackets(), 10);
  writer.start();
  writer.stop();
  output.close();
  EXPECT_EQ(ReadBack(dir.file("a.mkv")).packets(kVideoStream), 10U);
}

TEST(MrAvWriter, DropsStampsThatDoNotRiseInTheirStream) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"), Streams::kVideoAndAudio);
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  EXPECT_EQ(write_video(&writer, 5), 0);
  EXPECT_EQ(write_video(&writer, 5), 0);
  EXPECT_EQ(write_video(&writer, 4), 0);
  EXPECT_EQ(write_video(&writer, -5), 0);
  EXPECT_EQ(writer.cachedNPackets(), 1);
  EXPECT_EQ(write_audio(&writer, 0), 0);
  EXPECT_EQ(write_audio(&writer, 0), 0);
  EXPECT_EQ(writer.cachedNPackets(), 2);
  EXPECT_EQ(write_video(&writer, 6), 0);
  EXPECT_EQ(writer.cachedNPackets(), 3);
  writer.start();
  writer.stop();
  output.close();
  const ReadBack file(dir.file("a.mkv"));
  EXPECT_EQ(file.packets(kVideoStream), 2U);
  EXPECT_EQ(file.packets(kAudioStream), 1U);
}

TEST(MrAvWriter, TakesNegativeTimestampsOfAnySize) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  const AVRational tb = output.get()->streams[0]->time_base;
  for (const int64_t pts : {INT64_MIN + 1, int64_t{-1000000}, int64_t{-1}, int64_t{0}}) {
    AVPacket packet = make_packet(kVideoStream, pts);
    EXPECT_EQ(writer.writePacket(&tb, &packet, false), 0);
  }
  EXPECT_EQ(writer.cachedNPackets(), 4);
}

TEST(MrAvWriter, KeepsTheTimeOfTheLatestPacketInSeconds) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  write_video(&writer, 50);
  EXPECT_DOUBLE_EQ(writer.m_last_time, 2.0);
  write_video(&writer, 25);
  EXPECT_DOUBLE_EQ(writer.m_last_time, 2.0) << "a dropped packet does not count";
}

TEST(MrAvWriter, WithoutAContextRefusesPackets) {
  MR_AVWriter writer(60, 1000, nullptr);
  EXPECT_EQ(writer.writePacket(&kVideoTimeBase, nullptr, false), 0);
  EXPECT_EQ(write_video(&writer, 0), -1);
  EXPECT_EQ(writer.cachedNPackets(), 0);
  EXPECT_EQ(writer.writeTailer(), -1);
}

TEST(MrAvWriter, StartWithoutAContextMakesNoThread) {
  MR_AVWriter writer(60, 1000, nullptr);
  writer.start();
  EXPECT_EQ(writer.writeTailer(), -1);
  writer.stop();
  EXPECT_FALSE(writer.tailer_done());
}

TEST(MrAvWriter, PrivilegedPacketsHaveMoreRoom) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  LogCapture log;
  MR_AVWriter writer(3, 2, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(write_video(&writer, i), 0);
  for (int i = 3; i < 5; ++i) EXPECT_EQ(write_video(&writer, i, 100, true), 0);
  EXPECT_EQ(writer.cachedNPackets(), 5);

  auto blocked = std::async(std::launch::async, [&] { return write_video(&writer, 5, 100, true); });
  ASSERT_TRUE(eventually([&] { return log.count(5, "write full: maxNpkt=5, have=5") == 1; }));
  writer.start();
  ASSERT_EQ(blocked.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(blocked.get(), 0);
  writer.stop();
  output.close();
  EXPECT_EQ(ReadBack(dir.file("a.mkv")).packets(kVideoStream), 6U);
}

TEST(MrAvWriter, AFullQueueBlocksOrdinaryPackets) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  LogCapture log;
  MR_AVWriter writer(3, 2, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(write_video(&writer, i), 0);
  auto blocked = std::async(std::launch::async, [&] { return write_video(&writer, 3); });
  ASSERT_TRUE(eventually([&] { return log.count(5, "write full: maxNpkt=3, have=3") == 1; }));
  EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  writer.start();
  ASSERT_EQ(blocked.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(blocked.get(), 0);
}

TEST(MrAvWriterAfterStop, StartAndHeaderThrow) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  LogCapture log;
  MR_AVWriter writer(60, 1000, nullptr);
  writer.stop();
  expect_exited([&] { writer.start(); });
  EXPECT_EQ(log.count(2, kExited), 1);
  expect_exited([&] { writer.writeHeader(output.get(), nullptr); });
  EXPECT_EQ(log.count(2, kExited), 2);
  EXPECT_EQ(writer.m_fmt_ctx, nullptr);
}

TEST(MrAvWriterAfterStop, ASecondStopDoesNothing) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  LogCapture log;
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  write_video(&writer, 0);
  writer.stop();
  writer.stop();
  EXPECT_EQ(log.count(2, "*** write tailer pkt."), 1);
  expect_exited([&] { writer.start(); });
}

TEST(MrAvWriterAfterStop, AHeaderThatWasUnderWayThrows) {
  MR_AVWriter writer(60, 1000, nullptr);
  LogCapture log;
  TestOutput output("matroska", "");
  constexpr int kTinyBuffer = 16;  // so that the header reaches the write function at once
  const auto stop_meanwhile = [](void* opaque, auto, int size) {
    static_cast<MR_AVWriter*>(opaque)->stop();
    return size;
  };
  AVIOContext* io = avio_alloc_context(static_cast<unsigned char*>(av_malloc(kTinyBuffer)), kTinyBuffer, 1, &writer,
                                       nullptr, stop_meanwhile, nullptr);
  output.get()->pb = io;
  expect_exited([&] { writer.writeHeader(output.get(), nullptr); });
  EXPECT_EQ(log.count(2, "main writer already exited 2 ..."), 1);
  EXPECT_EQ(log.count(2, kExited), 0);
  output.get()->pb = nullptr;
  av_freep(&io->buffer);
  avio_context_free(&io);
}

TEST(MrException, CarriesTextAndCode) {
  const MR::MRException e("some text", 11);
  EXPECT_STREQ(e.what(), "some text");
  EXPECT_EQ(e.code(), 11);
  EXPECT_NE(dynamic_cast<const std::exception*>(&e), nullptr);
  std::ostringstream out;
  out << e;
  EXPECT_NE(out.str().find("some text"), std::string::npos);
  EXPECT_NE(out.str().find("11"), std::string::npos);
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "base/MR_AVWriter.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/packets.h"
#include "support/temp_dir.h"
#include "support/writing.h"

namespace {

using meru_test::eventually;
using meru_test::LogCapture;
using meru_test::Reports;
using meru_test::Streams;
using meru_test::TempDir;
using meru_test::TestOutput;
using meru_test::write_video;
using MR::MR_AVWriter;

TEST(MrAvWriterFailure, IsReportedOnceAndLaterPacketsAreRefused) {
  TestOutput output("avi", "/dev/full");
  LogCapture log;
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(write_video(&writer, i, 100000), 0);
  writer.start();
  ASSERT_TRUE(eventually([&] { return reports.count() > 0; }));
  EXPECT_EQ(write_video(&writer, 10), -1);
  EXPECT_EQ(write_video(&writer, 11, 100, true), -1);
  writer.stop();
  EXPECT_FALSE(writer.tailer_done());
  ASSERT_EQ(reports.count(), 1U);
  EXPECT_EQ(reports.entries[0].id, AVERROR(ENOSPC));
  EXPECT_EQ(reports.entries[0].text, "No space left on device");
  const MR::Ledger& ledger = writer.m_books.of(0);
  EXPECT_TRUE(ledger.balances());
  EXPECT_EQ(ledger.taken(), 12);
  // Besides those that were queued: the packet that failed, and the two that were refused.
  const std::string line = "[Write Pkt Err] (cache=" + std::to_string(ledger.dropped(MR::Drop::kFailedOutput) - 3) +
                           ", max=60), err=-28, errmsg=No space left on device";
  EXPECT_EQ(log.count(2, line), 1) << line;
  EXPECT_EQ(log.count(2, "*** write tailer pkt."), 0);
}

TEST(MrAvWriterFailure, ReleasesABlockedProducer) {
  TestOutput output("avi", "/dev/full");
  MR_AVWriter writer(1, 0, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  auto producer = std::async(std::launch::async, [&] {
    int64_t pts = 0;
    while (write_video(&writer, pts, 100000) == 0) ++pts;
    return pts;
  });
  ASSERT_EQ(producer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_LT(producer.get(), 10);
}

TEST(MrAvWriterFailure, OfTheFlushAtTheEndIsReported) {
  // Without any sound the muxer holds the images back until the end marker makes it write them.
  TestOutput output("avi", "/dev/full", Streams::kVideoAndAudio);
  LogCapture log;
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  for (int i = 0; i < 5; ++i) ASSERT_EQ(write_video(&writer, i, 100000), 0);
  writer.stop();
  ASSERT_EQ(reports.count(), 1U);
  EXPECT_EQ(reports.entries[0].id, AVERROR(ENOSPC));
  EXPECT_EQ(log.count(2, "******* get tailer-pkt ****"), 0);
  EXPECT_EQ(log.count(2, "*** write tailer pkt."), 0);
  EXPECT_EQ(log.count(2, "[Write Pkt Err] (cache=0, max=60), err=-28, errmsg=No space left on device"), 1);
}

TEST(MrAvWriterFailure, OfTheTrailerIsReported) {
  TestOutput output("avi", "/dev/full");
  LogCapture log;
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  ASSERT_EQ(write_video(&writer, 0), 0);  // small enough for the I/O buffer
  writer.stop();
  EXPECT_FALSE(writer.tailer_done());
  EXPECT_EQ(log.count(2, "******* get tailer-pkt ****"), 1);
  EXPECT_EQ(log.count(2, "*** write tailer pkt."), 1);
  EXPECT_EQ(log.count(2, "*** write tailer pkt failed..."), 1);
  EXPECT_EQ(log.count(2, "[Write Pkt Err] (cache=0, max=60), err=-28, errmsg=No space left on device"), 1);
  ASSERT_EQ(reports.count(), 1U);
  EXPECT_EQ(reports.entries[0].id, AVERROR(ENOSPC));
}

TEST(MrAvWriterFailure, NeedsNoCallback) {
  TestOutput output("avi", "/dev/full");
  LogCapture log;
  MR_AVWriter writer(60, 1000, nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  write_video(&writer, 0);
  writer.stop();
  EXPECT_EQ(log.count(2, "*** write tailer pkt failed..."), 1);
}

TEST(MrAvWriterFailure, OfAStartThatWasGivenUpIsNotReported) {
  TestOutput output("avi", "/dev/full");
  Reports reports;
  MR_AVWriter writer(60, 1000, nullptr);
  reports.listen_to(&writer);
  const auto stop_flag = std::make_shared<std::atomic<bool>>(false);
  writer.m_interrupt.begin_start(stop_flag);
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  write_video(&writer, 0);
  *stop_flag = true;
  writer.stop();
  EXPECT_EQ(reports.count(), 0U);
}

TEST(MrAvWriterFailure, OfTheHeaderIsReturned) {
  const TempDir dir;
  TestOutput output("wav", dir.file("a.wav"));  // takes no video
  MR_AVWriter writer(60, 1000, nullptr);
  EXPECT_LT(writer.writeHeader(output.get(), nullptr), 0);
}

}  // namespace

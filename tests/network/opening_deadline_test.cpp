// The opening of live outputs has an end, whatever their servers do, and they are opened side by side.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/books_check.h"
#include "support/dead_network.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/misbehaving_server.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

using std::chrono::seconds;

class DrippingMain : public testing::TestWithParam<const char*> {};

// Each byte comes in time for the time-out of a read: what ends the start is the deadline of the whole.
TEST_P(DrippingMain, EndsASynchronousStart) {
  LogCapture log;
  const MisbehavingServer server(Manners::kDrips);
  MovieInfo info = small_movie(server.url(GetParam(), "key"));
  info.timeout_sec = 3;
  std::unique_ptr<Host> host;
  {
    const Background start([&] { host = std::make_unique<Host>(info); });
    ASSERT_TRUE(start.ends());
  }
  EXPECT_FALSE(host->started());
  const auto entries = host->status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_TRUE(entries[0].code == MERU_STATUS_OPEN_FAILED || entries[0].code == MERU_STATUS_HEADER_FAILED);
  int lines = 0;
  for (const auto& line : log.lines()) {
    if (line.level == 2 && line.text.find("failed: Connection timed out") != std::string::npos) ++lines;
  }
  EXPECT_EQ(lines, 1);
}

INSTANTIATE_TEST_SUITE_P(Schemes, DrippingMain, testing::Values("rtmp", "rtsp"),
                         [](const auto& test) { return test.param; });

class DrippingMainOfPackets : public testing::TestWithParam<const char*> {};

TEST_P(DrippingMainOfPackets, IsReported) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const MisbehavingServer server(Manners::kDrips);
  PacketHost host(raw_movie(server.url(GetParam(), "key"), true, false));
  for (const RawPacket& packet : video.packets) host.push_video(packet);
  EXPECT_TRUE(host.status().wait_for([](const StatusLog::Entry& entry) { return entry.code < 0; }));
}

INSTANTIATE_TEST_SUITE_P(Schemes, DrippingMainOfPackets, testing::Values("rtmp", "rtsp"),
                         [](const auto& test) { return test.param; });

// Ten seconds each, one after the other, would be forty.
TEST(DeadAdditionalOutputsTest, FourAreWaitedForOnce) {
  const TempDir dir;
  const MisbehavingServer drips(Manners::kDrips);
  const DeadNetwork silent(Death::kNeverAnswers, "rtmp"), half(Death::kHalfAHandshake, "rtsp"),
      full(Death::kFullBacklog, "rtmp");
  const std::vector<std::string> urls{drips.url("rtmp", "key"), silent.url(), half.url(), full.url()};
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  for (size_t i = 0; i < urls.size(); ++i) info.other_urls[i] = urls[i].c_str();
  std::unique_ptr<Host> host;
  {
    const Background start([&] { host = std::make_unique<Host>(info); });
    ASSERT_TRUE(start.ends_within(seconds(20)));
  }
  ASSERT_TRUE(host->started());
  EXPECT_EQ(host->push_scene(25, kUsecPerSec), 25);
  host->stop();
  EXPECT_EQ(video_packets(dir.file("movie.mp4")), 25);
}

// The stop comes while they are being opened.
TEST(DeadAdditionalOutputsTest, AreInterruptedByAStop) {
  const TempDir dir;
  LogCapture log;
  const MisbehavingServer drips(Manners::kDrips);
  const DeadNetwork silent(Death::kNeverAnswers, "rtmp"), half(Death::kHalfAHandshake, "rtsp");
  const std::vector<std::string> urls{drips.url("rtmp", "key"), silent.url(), half.url(), drips.url("rtsp", "key")};
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  for (size_t i = 0; i < urls.size(); ++i) info.other_urls[i] = urls[i].c_str();
  void* session = MERU_start(info, nullptr, nullptr, nullptr, true);
  ASSERT_TRUE(eventually([&] { return drips.treated() == 2; }));
  {
    const Background stop([&] { MERU_stop(&session); });
    EXPECT_TRUE(stop.ends_within(seconds(5)));
  }
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
}

}  // namespace
}  // namespace meru_test

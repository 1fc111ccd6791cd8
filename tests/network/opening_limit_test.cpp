// Further outputs whose server takes the connection and never answers, without a time-out.

#include <gtest/gtest.h>

#include <string>

#include "support/host.h"
#include "support/local_listener.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

class SilentFurtherOutputTest : public testing::TestWithParam<const char*> {};

TEST_P(SilentFurtherOutputTest, IsGivenUpAndTheRecordingBegins) {
  const TempDir dir;
  LogCapture log;
  const SilentServer server;
  const std::string url = server.url(GetParam());
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.other_urls[0] = url.c_str();
  Host host(info, true);
  ASSERT_TRUE(host.status().wait_for_code(MERU_STATUS_OK));
  EXPECT_EQ(host.push_scene(25, kUsecPerSec), 25);
  host.stop();
  EXPECT_EQ(count_frames(dir.file("movie.mp4")), 25);
  EXPECT_EQ(decode_errors(dir.file("movie.mp4")), "");
  const std::string shown = GetParam() == std::string("rtmp") ? url.substr(0, url.rfind('/')) + "/***" : url;
  EXPECT_EQ(log.count(2, "further output 1 (" + shown + ") failed: Connection timed out"), 1);
}

INSTANTIATE_TEST_SUITE_P(Schemes, SilentFurtherOutputTest, testing::Values("rtmp", "rtsp"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace meru_test

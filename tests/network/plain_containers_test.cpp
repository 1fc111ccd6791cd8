// Main outputs whose container describes no stream at its head, beside a live output that has to be described.

#include <gtest/gtest.h>

#include <string>

#include "support/host.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

class PlainContainerTest : public testing::TestWithParam<const char*> {};

TEST_P(PlainContainerTest, LeavesTheLiveOutputWhole) {
  const TempDir dir;
  const std::string file = dir.file(std::string("movie.") + GetParam());
  RtmpServer server(dir.path());
  const std::string url = server.url("key");
  MovieInfo info = small_movie(file);
  info.other_urls[0] = url.c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(50, kUsecPerSec), 50);
  host.stop();
  expect_only_started(host.status());
  ASSERT_TRUE(server.has_recorded("key"));
  for (const std::string& path : {file, server.recorded("key")}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(decode_errors(path), "");
    EXPECT_EQ(count_frames(path), 50);
    EXPECT_EQ(codec_name(path, "video"), "h264");
    EXPECT_EQ(codec_name(path, "audio"), "aac");
  }
  // The head of the stream holds the parameter sets, and the pictures their sizes.
  EXPECT_EQ(probe_stream(server.recorded("key"), "video").at("is_avc"), "true");
}

INSTANTIATE_TEST_SUITE_P(Containers, PlainContainerTest, testing::Values("ts", "avi"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace meru_test

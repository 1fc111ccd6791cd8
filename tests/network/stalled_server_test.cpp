// A server that is there and takes nothing any more.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "support/eventually.h"
#include "support/live_server.h"
#include "support/noise_host.h"
#include "support/overheard.h"
#include "support/probe.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A time-out of 2 s, and as much again for what a busy machine adds.
constexpr seconds kLongestPush{kSanitized ? 8 : 4};
constexpr int kTimeoutSec = 2;
/// More than everything between a host and its server can hold.
constexpr int kMorePicturesThanRoom = 400;
constexpr const char* kKey = "s3cret-k3y";

class StalledServerTest : public testing::TestWithParam<const char*> {
 protected:
  MovieInfo movie(const char* further, int timeout_sec) const {
    MovieInfo info = noise_movie(m_file, timeout_sec);
    info.other_urls[0] = further;
    return info;
  }
  void expect_complete(const std::string& path, int pictures) const {
    SCOPED_TRACE(path);
    EXPECT_EQ(probe_packets(path, "v:0").size(), static_cast<size_t>(pictures));
    EXPECT_EQ(decode_errors(path), "");
  }

  const TempDir m_dir{TempDir::fast_parent()};
  const std::string m_file = m_dir.file("main.mp4");
};

TEST_P(StalledServerTest, HoldsPushesForTheTimeOutAndIsGivenUp) {
  LiveServer server(m_dir, GetParam(), kKey);
  const std::string url = server.url();
  Overheard heard;
  NoiseHost host(movie(url.c_str(), kTimeoutSec));
  ASSERT_TRUE(host.status().wait_for_code(0));
  host.push(5);
  server.suspend();
  Clock::duration longest{};
  const auto given_up = [&] { return !heard.failures(1, public_address(url)).empty(); };
  {
    const Background pushing([&] {
      for (int i = 0; i < kMorePicturesThanRoom && !given_up(); ++i) longest = std::max(longest, host.push_one());
    });
    EXPECT_TRUE(pushing.ends()) << "held at picture " << host.pushed();
    if (!given_up()) server.kill();  // whoever is held is released
  }
  EXPECT_TRUE(given_up()) << "after " << host.pushed() << " pictures";
  EXPECT_LT(longest, kLongestPush);
  for (int i = 0; i < 25; ++i) EXPECT_LT(host.push_one(), milliseconds(1000)) << "nothing holds the host any more";
  host.stop();

  const auto failures = heard.failures(1, public_address(url));
  ASSERT_EQ(failures.size(), 1U);
  EXPECT_EQ(failures[0], "Connection timed out");
  EXPECT_EQ(heard.failure_lines(), 1);
  heard.expect_no(kKey);
  EXPECT_EQ(host.status().entries().size(), 1U) << "the host is told of the main output alone";
  EXPECT_EQ(host.taken(), host.pushed());
  expect_complete(m_file, host.pushed());
}

TEST_P(StalledServerTest, WithoutATimeOutHoldsTheHostUntilItReadsAgain) {
  LiveServer server(m_dir, GetParam(), kKey);
  const std::string url = server.url();
  Overheard heard;
  NoiseHost host(movie(url.c_str(), 0));
  ASSERT_TRUE(host.status().wait_for_code(0));
  host.push(5);
  server.suspend();
  {
    const Background pushing([&] { host.push(kMorePicturesThanRoom); });
    // Held: for 3 s not one picture goes through. A busy machine may take long for a picture, but not for each.
    const bool held = eventually([&] {
      const int before = host.pushed();
      return before < kMorePicturesThanRoom && !eventually([&] { return host.pushed() != before; }, milliseconds(3000));
    });
    EXPECT_TRUE(held);
    EXPECT_FALSE(pushing.ends_within(milliseconds(0)));
    EXPECT_EQ(heard.failure_lines(), 0);
    server.resume();
    EXPECT_TRUE(pushing.ends());
  }
  host.stop();
  EXPECT_EQ(heard.failure_lines(), 0);
  EXPECT_EQ(host.status().entries().size(), 1U);
  EXPECT_EQ(host.taken(), kMorePicturesThanRoom + 5);
  ASSERT_TRUE(server.has_recorded());
  for (const std::string& path : {m_file, server.recorded()}) expect_complete(path, kMorePicturesThanRoom + 5);
}

INSTANTIATE_TEST_SUITE_P(Further, StalledServerTest, testing::Values("rtmp", "rtsp"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace meru_test

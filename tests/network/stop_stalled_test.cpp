// Stopping while a server has stalled: bounded, and the file is complete.

#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "support/case_name.h"
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

struct StopCase {
  const char* name;
  const char* scheme;
  bool main;  ///< the server that stalls is the main output, and the file a further one
  int timeout_sec;
  int stalled;  ///< how many such outputs

  /// What they are given to take what is pending.
  seconds drain() const { return seconds(timeout_sec > 0 ? timeout_sec : 5); }
};
void PrintTo(const StopCase& c, std::ostream* out) { *out << c.name; }

class StopStalledTest : public testing::TestWithParam<StopCase> {
 protected:
  /// What the stop adds to the time that the outputs are given.
  static constexpr milliseconds kRest{kSanitized ? 4000 : 1000};
  /// Far more than what lies between a host and its server can hold, and less than a queue takes.
  static constexpr int kPictures = 60;

  StopStalledTest() {
    const StopCase& c = GetParam();
    for (int i = 0; i < c.stalled; ++i) m_servers.emplace_back(m_dir, c.scheme, "key" + std::to_string(i));
    for (const LiveServer& server : m_servers) m_urls.push_back(server.url());
    m_urls.insert(c.main ? m_urls.end() : m_urls.begin(), m_file);
  }
  MovieInfo movie() const {
    MovieInfo info = noise_movie(m_urls[0], GetParam().timeout_sec);
    // Pictures that fill every buffer on the way long before the queue is full.
    info.width = info.width_src = 480;
    info.height = info.height_src = 360;
    for (size_t i = 1; i < m_urls.size(); ++i) info.other_urls[i - 1] = m_urls[i].c_str();
    return info;
  }

  const TempDir m_dir{TempDir::fast_parent()};
  const std::string m_file = m_dir.file("movie.mkv");
  std::vector<LiveServer> m_servers;
  std::vector<std::string> m_urls;  // in the order of the record
};

TEST_P(StopStalledTest, IsBoundedAndTheFileIsComplete) {
  const StopCase& c = GetParam();
  Overheard heard;
  NoiseHost host(movie());
  ASSERT_TRUE(host.status().wait_for_code(0)) << heard.printed();
  host.push(3);
  for (LiveServer& server : m_servers) server.suspend();
  host.push(kPictures - 3);
  Clock::duration took{};
  {
    const Background stopping([&] {
      const auto before = Clock::now();
      host.stop();
      took = Clock::now() - before;
    });
    EXPECT_TRUE(stopping.ends());
    for (LiveServer& server : m_servers) server.kill();  // whoever is still held is released
  }
  EXPECT_LT(took, c.drain() + kRest);
  // With a time-out the writing may have been given up before the stop.
  const auto least = c.timeout_sec == 0 ? c.drain() - kRest : milliseconds(0);
  EXPECT_GE(took, least) << "the server takes its packets";
  EXPECT_EQ(heard.failure_lines(), c.stalled);
  EXPECT_EQ(host.taken(), kPictures);
  EXPECT_EQ(probe_packets(m_file, "v:0").size(), static_cast<size_t>(kPictures));
  EXPECT_EQ(decode_errors(m_file), "");
  EXPECT_GT(number(probe(m_file, "-show_format").at("format"), "duration"), 0) << "there is no trailer";
}

INSTANTIATE_TEST_SUITE_P(All, StopStalledTest,
                         testing::Values(StopCase{"FurtherRtmp", "rtmp", false, 0, 1},
                                         StopCase{"FurtherRtmpWithTimeOut", "rtmp", false, 2, 1},
                                         StopCase{"TwoFurtherRtmp", "rtmp", false, 0, 2},
                                         StopCase{"TwoFurtherRtmpWithTimeOut", "rtmp", false, 2, 2},
                                         StopCase{"MainRtmp", "rtmp", true, 0, 1},
                                         StopCase{"MainRtmpWithTimeOut", "rtmp", true, 2, 1},
                                         StopCase{"FurtherRtsp", "rtsp", false, 0, 1},
                                         StopCase{"FurtherRtspWithTimeOut", "rtsp", false, 2, 1},
                                         StopCase{"MainRtsp", "rtsp", true, 0, 1}),
                         CaseName());

}  // namespace
}  // namespace meru_test

// What a pause does to the sound.

#include <gtest/gtest.h>

#include <algorithm>

#include "support/eventually.h"
#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

TEST(PauseSoundTest, TwoSecondsLeaveNoGapInSoundAndPicture) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  const MovieInfo info = small_movie(path);
  Host host(info);
  ASSERT_TRUE(host.started());
  // The pause begins where the first second of the scene ends, and the scene goes on at the moment of the resume.
  const long long pause_at = MERU_current_sys_usec() + kUsecPerSec / 2;
  host.push_scene(25, pause_at - kUsecPerSec);
  eventually([&] { return MERU_current_sys_usec() >= pause_at; });
  ASSERT_TRUE(MERU_pause(host.session()));
  eventually([&] { return MERU_current_sys_usec() >= pause_at + 2 * kUsecPerSec; });
  ASSERT_TRUE(MERU_resume(host.session()));
  host.push_scene(25, MERU_current_sys_usec());
  host.stop();

  for (const char* stream : {"v:0", "a:0"}) {
    const auto packets = probe_packets(path, stream);
    ASSERT_GT(packets.size(), 40U);
    double gap = 0;
    for (size_t i = 1; i < packets.size(); ++i) gap = std::max(gap, packets[i].pts - packets[i - 1].pts);
    EXPECT_LT(gap, 2.5 / info.fps) << stream;
    EXPECT_NEAR(packets.back().pts + packets.back().duration, 2.0, 0.2) << stream;
  }
  EXPECT_EQ(decode_errors(path), "");
}

}  // namespace
}  // namespace meru_test

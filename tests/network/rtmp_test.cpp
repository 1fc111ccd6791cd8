// Live recordings that an RTMP server takes: what it records is what was pushed.

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 100;
constexpr long long kBegin = 5 * kUsecPerSec;

struct MediaCase {
  const char* name;
  bool no_video, no_audio;
};
void PrintTo(const MediaCase& c, std::ostream* out) { *out << c.name; }

class RtmpTest : public testing::TestWithParam<MediaCase> {
 protected:
  MovieInfo live_movie() const { return small_movie(m_server.url(kKey)); }
  MovieInfo movie_of_case() const {
    MovieInfo info = live_movie();
    info.no_video = GetParam().no_video;
    info.no_audio = GetParam().no_audio;
    return info;
  }
  /// Waits until the server has all of the stream, and decodes it.
  std::string recording() {
    EXPECT_TRUE(m_server.has_recorded(kKey));
    EXPECT_EQ(decode_errors(m_server.recorded(kKey)), "");
    return m_server.recorded(kKey);
  }
  static void expect_streams(const std::string& path, const MovieInfo& info) {
    EXPECT_EQ(codec_name(path, "video"), info.no_video ? "none" : "h264");
    EXPECT_EQ(codec_name(path, "audio"), info.no_audio ? "none" : "aac");
  }

  const std::string kKey = "key";
  const TempDir m_dir;
  RtmpServer m_server{m_dir.path()};
};

TEST_P(RtmpTest, ServerRecordsAllThatIsPushed) {
  const MovieInfo info = movie_of_case();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kBegin), info.no_video ? 0 : kImages);
  host.stop();
  expect_only_started(host.status());

  const std::string path = recording();
  expect_streams(path, info);
  if (!info.no_video) {
    expect_images_in_step(path, kImages, info.fps);
    EXPECT_EQ(count_frames(path), kImages);
  }
  if (!info.no_audio) expect_sound_in_step(path, host.pushed_samples(), info.sample_rate_dst, kAacFrames);
}

TEST_P(RtmpTest, ServerRecordsAllThatIsPushedOnceAnAsynchronousStartIsThrough) {
  const MovieInfo info = movie_of_case();
  const long long frame = kUsecPerSec / info.fps;
  Host host(info, true);
  int pushed = 0, taken = 0;
  const auto push_one = [&] { taken += host.push_scene(1, kBegin + pushed++ * frame); };
  ASSERT_TRUE(eventually([&] {
    push_one();
    return !host.status().entries().empty();
  }));
  const int while_starting = pushed;
  for (int i = 0; i < kImages; ++i) push_one();
  host.stop();
  expect_only_started(host.status());

  const std::string path = recording();
  expect_streams(path, info);
  if (!info.no_video) {
    EXPECT_GE(taken, kImages);
    expect_images_in_step(path, taken, info.fps);
  }
  if (!info.no_audio) {
    const std::vector<double> sound = stamps(path, "a:0");
    ASSERT_FALSE(sound.empty());
    const double seconds = sound.back() - sound.front();
    const double slack = 2.0 * kAacFrames.samples / info.sample_rate_dst;
    EXPECT_GE(seconds, static_cast<double>(kImages) / info.fps - slack);
    EXPECT_LE(seconds, static_cast<double>(kImages + while_starting) / info.fps + slack);
  }
}

INSTANTIATE_TEST_SUITE_P(All, RtmpTest,
                         testing::Values(MediaCase{"VideoAndAudio", false, false}, MediaCase{"Video", false, true},
                                         MediaCase{"Audio", true, false}),
                         CaseName());

class RtmpSessionTest : public RtmpTest {};

TEST_F(RtmpSessionTest, APauseLeavesNoGap) {
  const MovieInfo info = live_movie();
  const long long frame = kUsecPerSec / info.fps;
  Host host(info);
  ASSERT_TRUE(host.started());
  const long long begin = MERU_current_sys_usec();
  EXPECT_EQ(host.push_scene(kImages / 2, begin), kImages / 2);

  const long long before_pause = MERU_current_sys_usec();
  ASSERT_TRUE(MERU_pause(host.session()));
  const long long in_pause = MERU_current_sys_usec();
  EXPECT_EQ(host.push_scene(10, begin + kImages / 2 * frame), 0);
  ASSERT_TRUE(eventually([&] { return MERU_current_sys_usec() > in_pause + 5 * frame; }));
  const long long before_resume = MERU_current_sys_usec();
  ASSERT_TRUE(MERU_resume(host.session()));
  const long long longest_pause = MERU_current_sys_usec() - before_pause;
  EXPECT_EQ(host.push_scene(kImages / 2, begin + kImages / 2 * frame + longest_pause), kImages / 2);
  host.stop();
  expect_only_started(host.status());

  const std::string path = recording();
  const std::vector<double> images = stamps(path, "v:0");
  ASSERT_EQ(images.size(), static_cast<size_t>(kImages));
  // The pause is known but for the time that the calls took; an image's stamp is rounded to a frame.
  const double unknown = static_cast<double>(longest_pause - (before_resume - in_pause)) / kUsecPerSec;
  for (size_t i = 1; i < images.size(); ++i) {
    const double at_most = 1.0 / info.fps + (i == kImages / 2 ? unknown + 0.5 / info.fps : 0);
    EXPECT_GE(images[i] - images[i - 1], 1.0 / info.fps - kLiveRounding) << i;
    EXPECT_LE(images[i] - images[i - 1], at_most + kLiveRounding) << i;
  }
}

TEST_F(RtmpSessionTest, TwoRecordingsToOneServer) {
  Host first(live_movie());
  Host second(small_movie(m_server.url("other")));
  ASSERT_TRUE(first.started());
  ASSERT_TRUE(second.started());
  for (int i = 0; i < kImages; ++i) {
    const long long at = kBegin + i * kUsecPerSec / 25;
    EXPECT_EQ(first.push_scene(1, at) + second.push_scene(1, at), 2) << i;
  }
  first.stop();
  second.stop();
  expect_images_in_step(recording(), kImages, 25);
  ASSERT_TRUE(m_server.has_recorded("other"));
  expect_images_in_step(m_server.recorded("other"), kImages, 25);
  EXPECT_EQ(frame_hashes(m_server.recorded("other"), "v"), frame_hashes(m_server.recorded(kKey), "v"));
}

}  // namespace
}  // namespace meru_test

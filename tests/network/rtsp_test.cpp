// Live recordings over RTSP: what the receiver records is what was pushed.

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "support/case_name.h"
#include "support/host.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 100;
constexpr long long kBegin = 5 * kUsecPerSec;

struct MediaCase {
  const char* name;
  bool no_video, no_audio, async;
};
void PrintTo(const MediaCase& c, std::ostream* out) { *out << c.name; }

class RtspTest : public testing::TestWithParam<MediaCase> {
 protected:
  const TempDir m_dir;
  RtspReceiver m_receiver{m_dir.file("received.mkv")};
};

TEST_P(RtspTest, ReceiverRecordsAllThatIsPushed) {
  MovieInfo info = small_movie(m_receiver.url());
  info.no_video = GetParam().no_video;
  info.no_audio = GetParam().no_audio;
  Host host(info, GetParam().async);
  ASSERT_TRUE(host.status().wait_for_code(0));
  EXPECT_EQ(host.push_scene(kImages, kBegin), info.no_video ? 0 : kImages);
  host.stop();
  expect_only_started(host.status());

  ASSERT_TRUE(m_receiver.ended());
  const std::string path = m_receiver.recorded();
  EXPECT_EQ(received_errors(path), "");
  EXPECT_EQ(codec_name(path, "video"), info.no_video ? "none" : "h264");
  EXPECT_EQ(codec_name(path, "audio"), info.no_audio ? "none" : "opus");
  if (!info.no_video) {
    // The receiver knows no stamp for the first.
    expect_images_in_step(path, kImages, info.fps, first_true_stamp());
    EXPECT_EQ(count_frames(path), kImages);
  }
  if (!info.no_audio) expect_sound_in_step(path, host.pushed_samples(), info.sample_rate_dst, kOpusFrames);
}

INSTANTIATE_TEST_SUITE_P(All, RtspTest,
                         testing::Values(MediaCase{"VideoAndAudio", false, false, false},
                                         MediaCase{"VideoAndAudioAsync", false, false, true},
                                         MediaCase{"Video", false, true, false},
                                         MediaCase{"Audio", true, false, false}),
                         CaseName());

class RtspSessionTest : public RtspTest {};

TEST_F(RtspSessionTest, NoIndexIsWrittenEvenWhenAPathIsGiven) {
  MovieInfo info = small_movie(m_receiver.url());
  set_text(info.snapshot_path, m_dir.file("movie.index"));
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kBegin), kImages);
  host.stop();
  expect_only_started(host.status());
  EXPECT_FALSE(std::filesystem::exists(info.snapshot_path));
  ASSERT_TRUE(m_receiver.ended());
  EXPECT_EQ(count_frames(m_receiver.recorded()), kImages);
}

TEST_F(RtspSessionTest, FurtherFileHoldsTheSameImages) {
  const std::string file = m_dir.file("movie.mkv");
  MovieInfo info = small_movie(m_receiver.url());
  info.other_urls[0] = file.c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kBegin), kImages);
  host.stop();
  expect_only_started(host.status());
  ASSERT_TRUE(m_receiver.ended());
  EXPECT_EQ(decode_errors(file), "");
  EXPECT_EQ(codec_name(file, "audio"), "opus");
  expect_images_in_step(file, kImages, info.fps);
  EXPECT_EQ(frame_hashes(file, "v"), frame_hashes(m_receiver.recorded(), "v"));
}

}  // namespace
}  // namespace meru_test

// Long recordings: sound and picture stay together, and no time stamp is too large.

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>

#include "support/host.h"
#include "support/marked_scene.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

TEST(LongRecordingTest, ThirtyMinutesResampledStayTogether) {
  constexpr int kSeconds = 30 * 60;
  constexpr int kTailSeconds = 5;  // looked at in detail
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  info.fps = 10;
  info.gop_size = 100;
  info.sample_rate_src = 44100;
  Host host(info);
  ASSERT_TRUE(host.started());
  constexpr int kImages = kSeconds * 10;
  constexpr int kMarked = (kSeconds - 2) * 10;
  MarkedScene scene(info);
  for (int i = 0; i < kImages; ++i) {
    EXPECT_TRUE(scene.push(host.session(), kUsecPerSec + i * kUsecPerSec / info.fps, i >= kMarked)) << i;
  }
  const long long sound_end = MERU_last_usec_pts(host.session());
  host.stop();

  const double frame = 1.0 / info.fps;
  const auto video = probe_stream(path, "video");
  const auto audio = probe_stream(path, "audio");
  EXPECT_EQ(video.at("nb_frames"), std::to_string(kImages));
  EXPECT_NEAR(number(video, "duration"), kSeconds, 0.001);
  EXPECT_NEAR(number(audio, "duration"), number(video, "duration"), frame);
  EXPECT_NEAR(number(audio, "start_time"), number(video, "start_time"), frame);
  EXPECT_NEAR(static_cast<double>(sound_end) / kUsecPerSec, kSeconds, frame);

  const Marks marks = Marks::found(path, info, kSeconds - kTailSeconds);
  EXPECT_NEAR(marks.picture, kTailSeconds - 2, frame);
  EXPECT_NEAR(marks.sound, kTailSeconds - 2, frame);
}

struct SparseCase {
  const char* name;
  const char* extension;
  int fps;
  long long first_usec, step_usec;
  int images;
};
void PrintTo(const SparseCase& c, std::ostream* out) { *out << c.name; }

class SparseStampsTest : public testing::TestWithParam<SparseCase> {};

TEST_P(SparseStampsTest, EachPictureKeepsItsTime) {
  const SparseCase& c = GetParam();
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + c.extension);
  MovieInfo info = small_movie(path);
  info.no_audio = true;
  info.fps = c.fps;
  Host host(info);
  ASSERT_TRUE(host.started());
  for (int i = 0; i < c.images; ++i) EXPECT_NE(host.push_image(c.first_usec + i * c.step_usec), 0) << i;
  EXPECT_EQ(MERU_movie_time(host.session()), (c.images - 1) * c.step_usec);
  host.stop();

  const auto packets = probe_packets(path, "v:0");
  ASSERT_EQ(packets.size(), static_cast<size_t>(c.images));
  for (size_t i = 0; i < packets.size(); ++i) {
    const double expected = static_cast<double>(i) * static_cast<double>(c.step_usec) / kUsecPerSec;
    EXPECT_NEAR(packets[i].pts, expected, 0.5 / c.fps + 0.001) << i;
  }
  EXPECT_EQ(decode_errors(path), "");
}

constexpr long long kDay = 86400 * kUsecPerSec;

INSTANTIATE_TEST_SUITE_P(
    Boundaries, SparseStampsTest,
    testing::Values(SparseCase{"stamps_cross_2_31_usec", "mp4", 25, (1LL << 31) - 400000, 40000, 20},
                    SparseCase{"stamps_cross_2_32_usec", "mp4", 25, (1LL << 32) - 400000, 40000, 20},
                    SparseCase{"stamps_of_the_present", "mkv", 25, 1700000000LL * kUsecPerSec, 40000, 20},
                    SparseCase{"recording_crosses_2_31_usec", "mp4", 25, 1, 600 * kUsecPerSec, 5},
                    SparseCase{"recording_crosses_2_32_usec", "mkv", 25, 1, 600 * kUsecPerSec, 9},
                    SparseCase{"mkv_crosses_2_31_msec", "mkv", 10, 1, kDay, 28},
                    SparseCase{"mp4_crosses_2_31_msec", "mp4", 10, 1, kDay, 28},
                    SparseCase{"mov_crosses_2_32_msec", "mov", 1, 1, kDay, 52}),
    [](const auto& test) { return test.param.name; });

TEST(SparseStampsTest, SoundKeepsItsTimeToo) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  MovieInfo info = small_movie(path);
  info.no_video = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  constexpr int kDays = 27;
  for (int day = 0; day <= kDays; ++day) host.push_samples(4800, kUsecPerSec + day * kDay);
  EXPECT_EQ(MERU_movie_time(host.session()), kDays * kDay);
  host.stop();

  const auto packets = probe_packets(path, "a:0");
  ASSERT_GT(packets.size(), 1U);
  // A tenth of a second of each day, of which the first packet may hold what was left of the day before. Between them
  // are single packets of silence, since no player knows gaps of days.
  for (int day = 0; day <= kDays; ++day) {
    const auto is_of_the_day = [day](const ProbedPacket& packet) {
      return packet.pts > day * 86400.0 - 0.1 && packet.pts < day * 86400.0 + 0.2;
    };
    EXPECT_GE(std::count_if(packets.begin(), packets.end(), is_of_the_day), 4) << day;
  }
  constexpr double kLongestGapSec = 2147483648.0 / 48000;  // what a container counts in 31 bits
  for (size_t i = 1; i < packets.size(); ++i) {
    const double step = packets[i].pts - packets[i - 1].pts;
    EXPECT_GT(step, 0) << i;
    EXPECT_LT(step, kLongestGapSec) << i;
  }
}

}  // namespace
}  // namespace meru_test

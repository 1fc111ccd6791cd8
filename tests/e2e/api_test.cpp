// The exported functions one by one: null sessions, read-outs, disabled streams.

#include <gtest/gtest.h>

#include "support/host.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/resident_memory.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

struct AVRational {
  int num, den;
};

namespace meru_test {
namespace {

constexpr AVRational kUsec{1, 1000000};

int lines_with(const std::string& text, const std::string& line) {
  int count = 0;
  for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
  return count;
}

TEST(NullSessionTest, EveryFunctionIsHarmless) {
  uint8_t image[16] = {};
  MovieInfo info;
  EXPECT_FALSE(MERU_pause(nullptr));
  EXPECT_FALSE(MERU_resume(nullptr));
  EXPECT_FALSE(MERU_is_paused(nullptr));
  EXPECT_EQ(MERU_movie_time(nullptr), 0);
  EXPECT_EQ(MERU_write_video_bgra(nullptr, image, sizeof(image), 0, 8), 0);
  EXPECT_EQ(MERU_write_audio_pcm(nullptr, image, sizeof(image), 0), 0);
  EXPECT_EQ(MERU_write_video_frame(nullptr, nullptr, kUsec), 0);
  EXPECT_EQ(MERU_write_audio_frame(nullptr, nullptr, kUsec), 0);
  EXPECT_FALSE(MERU_add_audio_filter(nullptr, nullptr));
  EXPECT_FALSE(MERU_add_video_filter(nullptr, nullptr));
  EXPECT_EQ(MERU_audio_dst_frame(nullptr), nullptr);
  EXPECT_EQ(MERU_video_dst_frame(nullptr), nullptr);
  EXPECT_FALSE(MERU_get_mInfo(nullptr, &info));
  EXPECT_EQ(MERU_last_usec_pts(nullptr), 0);
  EXPECT_EQ(MERU_generate_testing_vFrame(nullptr, kUsec), nullptr);
  EXPECT_EQ(MERU_generate_testing_aFrame(nullptr, kUsec), nullptr);
}

TEST(NullSessionTest, StopLogsItsFirstLineOnly) {
  LogCapture log;
  void* session = nullptr;
  MERU_stop(nullptr);
  EXPECT_EQ(log.count(4, "--- before stop"), 1);
  MERU_stop(&session);
  EXPECT_EQ(log.count(4, "--- before stop"), 2);
  EXPECT_EQ(log.count(4, "--- stop OK"), 0);
}

TEST(StopTest, ASecondStopIsHarmless) {
  const TempDir dir;
  LogCapture log;
  Host host(small_movie(dir.file("movie.mp4")));
  host.push_scene(5, kUsecPerSec);
  host.stop();
  EXPECT_EQ(host.session(), nullptr);
  host.stop();
  EXPECT_EQ(log.count(4, "--- before stop"), 2);
  EXPECT_EQ(log.count(4, "--- stop OK"), 1);
  EXPECT_EQ(count_frames(dir.file("movie.mp4")), 5);
}

TEST(ClockTest, RunsForwardNearTheWallClock) {
  const long long first = MERU_current_sys_usec();
  EXPECT_NEAR(static_cast<double>(first) / kUsecPerSec, static_cast<double>(time(nullptr)), 2);
  for (int i = 0; i < 1000; ++i) {
    const long long now = MERU_current_sys_usec();
    ASSERT_GE(now, first);
  }
}

TEST(EffectiveInfoTest, SaysWhatTheEncodersMadeOfIt) {
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.FLV"));
  info.use_hardware = true;
  const MovieInfo given = info;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(memcmp(&info, &given, sizeof(info)), 0);
  MovieInfo effective;
  EXPECT_TRUE(MERU_get_mInfo(host.session(), &effective));
  EXPECT_EQ(memcmp(&effective, &host.out_info(), sizeof(effective)), 0);
  // An FLV file gets the first rate of its encoder, whatever was asked for.
  EXPECT_EQ(effective.sample_rate_dst, 44100);
  EXPECT_EQ(effective.sample_rate_src, 48000);
  EXPECT_STREQ(effective.url, info.url);
}

TEST(ReadOutTest, MovieTimePrefersVideoAndLastPtsPrefersAudio) {
  const TempDir dir;
  Host host(small_movie(dir.file("movie.mp4")));
  ASSERT_TRUE(host.started());
  EXPECT_EQ(MERU_movie_time(host.session()), 0);
  EXPECT_LT(MERU_last_usec_pts(host.session()), 0);
  for (int i = 0; i < 10; ++i) host.push_samples(4800, kUsecPerSec + i * 100000);
  EXPECT_EQ(MERU_movie_time(host.session()), 900000);
  const long long sound = MERU_last_usec_pts(host.session());
  EXPECT_NEAR(static_cast<double>(sound), 1000000, 2 * 1024 * 1e6 / 48000);
  host.push_image(kUsecPerSec + 400000);
  EXPECT_EQ(MERU_movie_time(host.session()), 400000);
  EXPECT_EQ(MERU_last_usec_pts(host.session()), sound);
}

TEST(ReadOutTest, LastPtsIsTheVideosWithoutAudio) {
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.no_audio = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_LT(MERU_last_usec_pts(host.session()), 0);
  for (int i = 0; i < 10; ++i) host.push_image(kUsecPerSec + i * 40000);
  EXPECT_EQ(MERU_last_usec_pts(host.session()), 360000);
  EXPECT_EQ(MERU_audio_dst_frame(host.session()), nullptr);
  EXPECT_NE(MERU_video_dst_frame(host.session()), nullptr);
}

TEST(DisabledStreamTest, VideoIsRefusedWithALineForEachImage) {
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.no_video = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(host.push_image(kUsecPerSec + i * 40000), 0);
  EXPECT_EQ(lines_with(testing::internal::GetCapturedStderr(), "--- disable video, ignore bgra frame\n"), 3);
  EXPECT_EQ(MERU_video_dst_frame(host.session()), nullptr);
  EXPECT_EQ(MERU_generate_testing_vFrame(host.session(), kUsec), nullptr);
  EXPECT_NE(MERU_audio_dst_frame(host.session()), nullptr);
}

TEST(DisabledStreamTest, AudioIsRefusedWithALineForEachBuffer) {
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.no_audio = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(host.push_samples(480, kUsecPerSec + i * 10000), 0);
  EXPECT_EQ(lines_with(testing::internal::GetCapturedStderr(), "--- disable audio, ignore pcm frame\n"), 3);
  EXPECT_EQ(MERU_generate_testing_aFrame(host.session(), kUsec), nullptr);
}

TEST(TestPatternTest, FramesOfTheSessionCanBeRecorded) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  Host host(small_movie(path));
  ASSERT_TRUE(host.started());
  for (int i = 0; i < 25; ++i) {
    AVFrame* image = MERU_generate_testing_vFrame(host.session(), kUsec);
    ASSERT_NE(image, nullptr);
    EXPECT_NE(MERU_write_video_frame(host.session(), image, kUsec), 0);
  }
  for (int i = 0; i < 47; ++i) {
    AVFrame* tone = MERU_generate_testing_aFrame(host.session(), kUsec);
    ASSERT_NE(tone, nullptr);
    EXPECT_NE(MERU_write_audio_frame(host.session(), tone, kUsec), 0);
  }
  EXPECT_EQ(MERU_write_video_frame(host.session(), nullptr, kUsec), 0);
  EXPECT_EQ(MERU_write_audio_frame(host.session(), nullptr, kUsec), 0);
  host.stop();
  EXPECT_EQ(decode_errors(path), "");
  EXPECT_EQ(count_frames(path), 25);
  EXPECT_NEAR(static_cast<double>(decoded_sound(path).size()), 47 * 1024, 1024);
}

TEST(PresetTest, NothingAskedForRecords) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  info.preset = QUALITY_NONE;
  info.profile = PROFILE_NONE;
  info.tune = TUNE_NONE;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(25, kUsecPerSec), 25);
  host.stop();
  EXPECT_EQ(decode_errors(path), "");
  EXPECT_EQ(count_frames(path), 25);
}

TEST(MetadataTest, ReachesTheContainer) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  MovieInfo info = small_movie(path);
  set_text(info.metadata, "title:My film;comment:a:b;junk");
  Host host(info);
  host.push_scene(5, kUsecPerSec);
  host.stop();
  const auto tags = probe(path, "-show_format").at("format").at("tags");
  EXPECT_EQ(tags.value("title", ""), "My film");
  EXPECT_EQ(tags.value("COMMENT", tags.value("comment", "")), "a:b");
}

TEST(MemoryTest, StaysFlatWhileRecordingFullHd) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer keeps freed memory back";
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.width = info.width_src = 1920;
  info.height = info.height_src = 1080;
  info.v_bitrate = 4000;
  info.no_audio = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  std::vector<uint8_t> image = moving_image(1920, 1080, 0);
  const auto push = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      std::fill(image.begin() + i * 1920, image.begin() + (i + 1) * 1920, static_cast<uint8_t>(i));
      ASSERT_NE(MERU_write_video_bgra(host.session(), image.data(), 1920 * 1080 * 4, kUsecPerSec + i * 40000, 1920 * 4),
                0);
    }
  };
  push(0, 60);
  const long before = resident_kib();
  push(60, 300);
  // Packets waiting in the queue vary; an image that is not given back would be 8 MiB, 240 times.
  EXPECT_LT(resident_kib() - before, 12 * 1024);
}

}  // namespace
}  // namespace meru_test

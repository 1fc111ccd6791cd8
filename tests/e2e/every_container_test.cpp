// Every container that FFmpeg writes with the encoders that are there: each pushed frame is in it, and in the files
// that get the same packets, and all of it decodes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace meru_test {
namespace {

constexpr int kImages = 60;
constexpr long long kStart = 3 * kUsecPerSec;

/// Whether this FFmpeg has a muxer for the name, and the encoders that it asks for.
bool can_be_written(const std::string& path, bool with_audio) {
  const AVOutputFormat* format = av_guess_format(nullptr, path.c_str(), nullptr);
  return format != nullptr && avcodec_find_encoder(format->video_codec) != nullptr &&
         (!with_audio || avcodec_find_encoder(format->audio_codec) != nullptr);
}

class EveryContainer : public testing::TestWithParam<const char*> {
 protected:
  void record(const std::string& path, bool with_audio, const std::vector<std::string>& others = {}) {
    MovieInfo info = small_movie(path);
    info.no_audio = !with_audio;
    for (size_t i = 0; i < others.size(); ++i) info.other_urls[i] = others[i].c_str();
    Host host(info);
    ASSERT_TRUE(host.started());
    EXPECT_EQ(host.push_scene(kImages, kStart), kImages);
  }
  static void expect_whole(const std::string& path) {
    EXPECT_EQ(decode_errors(path), "") << path;
    EXPECT_EQ(count_frames(path), kImages) << path;
  }
};

class EveryMovieContainer : public EveryContainer {};

TEST_P(EveryMovieContainer, HoldsEveryFrame) {
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + GetParam());
  if (!can_be_written(path, true)) GTEST_SKIP() << "this FFmpeg cannot write it";
  record(path, true);
  expect_whole(path);
}

INSTANTIATE_TEST_SUITE_P(All, EveryMovieContainer,
                         testing::Values("asf", "avi", "cpk", "dvd", "f4v", "flv", "isma", "ismv", "m2t", "m2ts", "m4v",
                                         "mkv", "mov", "mp4", "mpeg", "mpg", "mts", "mxf", "nut", "ogg", "ogv", "psp",
                                         "rm", "ts", "vob", "webm", "wmv", "wtv"),
                         [](const auto& test) { return std::string(test.param); });

class EveryVideoContainer : public EveryContainer {};

TEST_P(EveryVideoContainer, HoldsEveryFrame) {
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + GetParam());
  if (!can_be_written(path, false)) GTEST_SKIP() << "this FFmpeg cannot write it";
  record(path, false);
  expect_whole(path);
}

INSTANTIATE_TEST_SUITE_P(All, EveryVideoContainer,
                         testing::Values("264", "265", "apng", "gif", "h264", "h265", "hevc", "ivf", "m1v", "m2v",
                                         "mp4", "ts", "y4m"),
                         [](const auto& test) { return std::string(test.param); });

class EveryAdditionalOutput : public EveryContainer {};

// What reorders its frames, and what wants its parameter sets apart, beside what wants them in the packets.
TEST_P(EveryAdditionalOutput, HoldsEveryFrame) {
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + GetParam());
  if (!can_be_written(path, true)) GTEST_SKIP() << "this FFmpeg cannot write it";
  const std::vector<std::string> others{dir.file("a.ts"), dir.file("b.mp4"), dir.file("c.avi"), dir.file("d.mkv")};
  record(path, true, others);
  expect_whole(path);
  for (const std::string& other : others) expect_whole(other);
}

INSTANTIATE_TEST_SUITE_P(All, EveryAdditionalOutput, testing::Values("avi", "dvd", "mp4", "mpg", "nut", "ts"),
                         [](const auto& test) { return std::string(test.param); });

class EveryIndexedContainer : public EveryContainer {};

// With an index a silent stream is not waited for as long; audio that is late must cost nothing all the same.
TEST_P(EveryIndexedContainer, HoldsEveryFrameAlthoughAudioIsLate) {
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + GetParam());
  MovieInfo info = small_movie(path);
  set_text(info.snapshot_path, dir.file("index"));
  Host host(info);
  ASSERT_TRUE(host.started());
  constexpr int kAhead = 8;
  for (int i = 0; i < kAhead; ++i) EXPECT_NE(host.push_image(kStart + i * kUsecPerSec / info.fps), 0);
  EXPECT_EQ(host.push_scene(kImages - kAhead, kStart + kAhead * kUsecPerSec / info.fps), kImages - kAhead);
  host.stop();
  EXPECT_EQ(host.status().entries().size(), 1U);
  expect_whole(path);
}

INSTANTIATE_TEST_SUITE_P(All, EveryIndexedContainer,
                         testing::Values("asf", "avi", "flv", "mkv", "mov", "mp4", "nut", "ogg", "ts"),
                         [](const auto& test) { return std::string(test.param); });

class EverySlowContainer : public EveryContainer {};

// Few frames of a high rate: what an encoder fills up to a minimum rate would be larger than it can be.
TEST_P(EverySlowContainer, HoldsEveryFrameOfAVariableBitRate) {
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + GetParam());
  MovieInfo info = small_movie(path);
  info.no_audio = true;
  info.fps = 2;
  info.rate_control = RATE_CONTROL_VBR;
  info.v_bitrate = 2000;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kStart), kImages);
  host.stop();
  EXPECT_EQ(count_frames(path), kImages);
}

INSTANTIATE_TEST_SUITE_P(All, EverySlowContainer, testing::Values("asf", "avi", "flv", "mkv", "mp4", "nut"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace meru_test

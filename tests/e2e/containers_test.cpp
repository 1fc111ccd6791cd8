// Every container and every rate control mode: what was pushed is in the movie, and the movie is sound.

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 50;
constexpr long long kStart = 5 * kUsecPerSec;

struct Container {
  const char* extension;
  const char* video_codec;
  const char* audio_codec;
  int encoder_frame;  ///< samples
  int encoder_delay;  ///< samples that the encoder may put before or behind what it was given
};

struct RateMode {
  const char* name;
  int rate_control, v_bitrate, crf, qp;
};

void PrintTo(const Container& c, std::ostream* out) { *out << c.extension; }
void PrintTo(const RateMode& m, std::ostream* out) { *out << m.name; }

class ContainerTest : public testing::TestWithParam<std::tuple<Container, RateMode>> {};

TEST_P(ContainerTest, HoldsWhatWasPushed) {
  const auto& [container, mode] = GetParam();
  const TempDir dir;
  const std::string path = dir.file(std::string("movie.") + container.extension);
  MovieInfo info = small_movie(path);
  info.rate_control = mode.rate_control;
  info.v_bitrate = mode.v_bitrate;
  info.crf = mode.crf;
  info.qp = mode.qp;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kStart), kImages);
  host.stop();
  ASSERT_EQ(host.status().entries().size(), 1U);

  EXPECT_EQ(decode_errors(path), "");
  EXPECT_EQ(count_frames(path), kImages);
  const auto video = probe_stream(path, "video");
  const auto audio = probe_stream(path, "audio");
  ASSERT_FALSE(audio.is_null());
  EXPECT_EQ(video.at("codec_name"), container.video_codec);
  EXPECT_EQ(audio.at("codec_name"), container.audio_codec);
  EXPECT_EQ(video.at("width"), 64);
  EXPECT_EQ(video.at("height"), 48);

  const double frame = 1.0 / info.fps;
  EXPECT_NEAR(number(video, "start_time", 99), number(audio, "start_time", -99), frame);
  const double rate = number(audio, "sample_rate");
  const double pushed = static_cast<double>(host.pushed_samples()) / info.sample_rate_src;
  EXPECT_NEAR(static_cast<double>(decoded_sound(path).size()) / rate, pushed,
              (container.encoder_frame + container.encoder_delay) / rate);
}

INSTANTIATE_TEST_SUITE_P(All, ContainerTest,
                         testing::Combine(testing::Values(Container{"mp4", "h264", "aac", 1024, 1024},
                                                          Container{"mov", "h264", "aac", 1024, 1024},
                                                          Container{"mkv", "h264", "vorbis", 64, 1024},
                                                          Container{"flv", "flv1", "mp3", 1152, 1152 + 529},
                                                          Container{"avi", "mpeg4", "mp3", 1152, 1152 + 529}),
                                          testing::Values(RateMode{"abr", RATE_CONTROL_ABR, 300, 0, 0},
                                                          RateMode{"cbr_crf", RATE_CONTROL_CBR, 300, 30, 0},
                                                          RateMode{"vbr", RATE_CONTROL_VBR, 300, 0, 0},
                                                          RateMode{"cqp_qp", RATE_CONTROL_CQP, 300, 0, 28})),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).extension) + "_" + std::get<1>(test.param).name;
                         });

}  // namespace
}  // namespace meru_test

#include "ReSample/finite_samples.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "capture/movie_capture2.h"
#include "support/case_name.h"
#include "support/fake_writer.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

constexpr float kBad[] = {
    NAN, -NAN, INFINITY, -INFINITY, std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(), 0.5F};

class FiniteSamples : public testing::TestWithParam<AVSampleFormat> {};

TEST_P(FiniteSamples, AreLeftOfWhatIsNoNumber) {
  const FramePtr frame = meru_test::make_samples(GetParam(), AV_CH_LAYOUT_STEREO, 48000, 7);
  const bool wide = av_get_bytes_per_sample(GetParam()) == 8;
  const auto at = [&](int i) {
    return wide ? reinterpret_cast<double*>(frame->data[0])[i]
                : static_cast<double>(reinterpret_cast<float*>(frame->data[0])[i]);
  };
  for (int i = 0; i < 7; ++i) {
    if (wide)
      reinterpret_cast<double*>(frame->data[0])[i] = static_cast<double>(kBad[i]);
    else
      reinterpret_cast<float*>(frame->data[0])[i] = kBad[i];
  }
  MR::make_finite(frame.get(), 7);
  EXPECT_EQ(at(0), 0);
  EXPECT_EQ(at(1), 0);
  for (int i = 2; i < 6; ++i) EXPECT_EQ(std::fabs(at(i)), 1024) << i;
  EXPECT_EQ(at(6), 0.5);
}

INSTANTIATE_TEST_SUITE_P(Formats, FiniteSamples,
                         testing::Values(AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_DBL, AV_SAMPLE_FMT_DBLP));

struct EncoderCase {
  const char* name;
  const char* file;
};

class HostsFloats : public testing::TestWithParam<EncoderCase> {};

/// Whatever a host pushes, the encoder lives on.
TEST_P(HostsFloats, DoNotEndTheProcess) {
  const meru_test::TempDir dir;
  MovieInfo info = meru_test::small_movie(dir.file(GetParam().file));
  info.no_video = true;
  info.sample_fmt = AV_SAMPLE_FMT_FLT;
  auto* writer = new meru_test::FakeWriter;
  MovieCapture2 session(writer);
  session.start(info, nullptr, nullptr, false);
  std::vector<float> pcm(2 * 48000);
  for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = kBad[i / 3 % std::size(kBad)];
  for (int i = 0; i < 5; ++i) {
    session.fill_audio_frame(pcm.data(), static_cast<int>(pcm.size() * sizeof(float)), i * int64_t{1000000});
  }
  session.stop();
  EXPECT_GT(writer->of_kind(true).size(), 20U);
}

INSTANTIATE_TEST_SUITE_P(Encoders, HostsFloats,
                         testing::Values(EncoderCase{"Aac", "a.mp4"}, EncoderCase{"Mp3", "a.mp3"},
                                         EncoderCase{"Mp3InFlv", "a.flv"}, EncoderCase{"Vorbis", "a.mkv"},
                                         EncoderCase{"Ac3", "a.ac3"}, EncoderCase{"Mp2", "a.mp2"},
                                         EncoderCase{"Opus", "a.opus"}),
                         meru_test::CaseName());

}  // namespace

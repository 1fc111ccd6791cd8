#include "ReSample/qv_resample.h"

#include <gtest/gtest.h>

#include <string>

#include "support/av_log_capture.h"
#include "support/case_name.h"
#include "support/log_capture.h"
#include "support/media_frames.h"

namespace {

using meru_test::make_samples;

constexpr AVRational kUsec{1, 1000000};
constexpr int kFrameSize = 1024;

FramePtr encoder_frame(int rate, int size = kFrameSize, AVSampleFormat format = AV_SAMPLE_FMT_S16) {
  return make_samples(format, AV_CH_LAYOUT_STEREO, rate, size);
}

class QVResampleTest : public testing::Test {
 protected:
  void configure(int in_rate, int out_rate, AVSampleFormat out_format = AV_SAMPLE_FMT_S16) {
    const FramePtr src = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, in_rate, 1);
    m_dst = encoder_frame(out_rate, kFrameSize, out_format);
    ASSERT_GE(m_resample.qv_config_frame(m_dst.get(), src.get(), {1, out_rate}), 0);
    m_rate = in_rate;
  }
  AVFrame* push(int count, int64_t pts_usec) {
    m_in = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, m_rate, count);
    m_in->pts = pts_usec;
    return m_resample.qv_convert_frame(m_in.get(), &kUsec);
  }
  AVFrame* drain() { return m_resample.qv_convert_frame(nullptr, &kUsec); }

  FramePtr m_dst;
  FramePtr m_in;
  int m_rate = 0;
  MR::QVResample m_resample;
};

TEST_F(QVResampleTest, SmallBuffersComeOutAsWholeFramesWithContinuousStamps) {
  configure(44100, 44100);
  std::vector<int> calls;
  std::vector<int64_t> stamps;
  for (int call = 1; call <= 10; ++call) {
    if (const AVFrame* out = push(441, (call - 1) * 10000); out != nullptr) {
      EXPECT_EQ(out->nb_samples, kFrameSize);
      calls.push_back(call);
      stamps.push_back(out->pts);
    }
  }
  EXPECT_EQ(calls, (std::vector<int>{3, 5, 7, 10}));
  EXPECT_EQ(stamps, (std::vector<int64_t>{0, 1024, 2048, 3072}));
}

TEST_F(QVResampleTest, SamplesKeepTheirValuesAndOrder) {
  configure(44100, 44100);
  ASSERT_EQ(push(1000, 0), nullptr);
  const AVFrame* out = push(1000, 22675);
  ASSERT_NE(out, nullptr);
  const auto* samples = reinterpret_cast<const int16_t*>(out->data[0]);
  for (int i = 0; i < kFrameSize; ++i) {
    ASSERT_EQ(samples[2 * i], i < 1000 ? i : i - 1000) << i;
    ASSERT_EQ(samples[2 * i + 1], samples[2 * i]) << i;
  }
}

TEST_F(QVResampleTest, JumpOfMoreThanHalfASecondIsFollowed) {
  configure(44100, 44100);
  meru_test::LogCapture log;
  ASSERT_NE(push(kFrameSize, 0), nullptr);
  const int64_t ahead = 600000 + 23220;  // 1024 samples are 23220 microseconds
  const AVFrame* out = push(kFrameSize, ahead);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 27484);
  EXPECT_EQ(log.count(2,
                      "@@@ [check] correct au pts ----> processd_samples=1024(0.023220sec), "
                      "this_pts=27484(0.623220sec)"),
            1);
  out = push(kFrameSize, ahead + 23220);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 27484 + 1024);
}

TEST_F(QVResampleTest, JumpBackIsFollowedToo) {
  configure(44100, 44100);
  ASSERT_NE(push(kFrameSize, 2000000), nullptr);
  const AVFrame* out = push(kFrameSize, 1000000);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 44100);
}

struct JitterCase {
  const char* name;
  int64_t usec;
  int64_t expected;
};

class Jitter : public QVResampleTest, public testing::WithParamInterface<JitterCase> {};

TEST_P(Jitter, IsFollowedFromHalfASecondOn) {
  configure(44100, 44100);
  meru_test::LogCapture log;
  const AVFrame* out = push(kFrameSize, GetParam().usec);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, GetParam().expected);
  EXPECT_EQ(log.lines().size(), GetParam().expected == 0 ? 0U : 1U);
}

// At 44100 Hz half a second is 22050 samples.
INSTANTIATE_TEST_SUITE_P(Boundary, Jitter,
                         testing::Values(JitterCase{"Ahead400ms", 400000, 0}, JitterCase{"ASampleBelow", 499977, 0},
                                         JitterCase{"Ahead500ms", 500000, 22050}, JitterCase{"Back400ms", -400000, 0},
                                         JitterCase{"Back500ms", -500000, -22050},
                                         JitterCase{"Ahead600ms", 600000, 26460}),
                         meru_test::CaseName());

TEST_F(QVResampleTest, DrainingGivesEveryWholeFrame) {
  configure(44100, 44100);
  const AVFrame* out = push(3 * kFrameSize + 10, 0);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 0);
  for (const int64_t expected : {1024, 2048}) {
    out = drain();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->pts, expected);
  }
  EXPECT_EQ(drain(), nullptr);
}

TEST_F(QVResampleTest, HugeJumpIsFollowed) {
  configure(8000, 8000);
  const int64_t hours_72 = 72LL * 3600 * 1000000;  // in samples more than 31 bits hold
  const AVFrame* out = push(kFrameSize, hours_72);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 72LL * 3600 * 8000);
}

TEST_F(QVResampleTest, FirstRecordingFixesTheThresholdOfTheProcess) {
  configure(8000, 8000);
  ASSERT_NE(push(kFrameSize, 0), nullptr);  // half a second are 4000 samples from now on
  MR::QVResample second;
  const FramePtr src = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, kFrameSize);
  const FramePtr dst = encoder_frame(48000);
  ASSERT_GE(second.qv_config_frame(dst.get(), src.get(), {1, 48000}), 0);
  src->pts = 100000;
  const AVFrame* out = second.qv_convert_frame(src.get(), &kUsec);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 4800);
}

TEST_F(QVResampleTest, RateFormatAndChannelsAreConverted) {
  const FramePtr src = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_MONO, 24000, 4096);
  const FramePtr dst = encoder_frame(48000, kFrameSize, AV_SAMPLE_FMT_FLTP);
  ASSERT_GE(m_resample.qv_config_frame(dst.get(), src.get(), {1, 48000}), 0);
  EXPECT_EQ(m_resample.in_byte_rate(), 48000);
  EXPECT_EQ(m_resample.in_sample_rate(), 24000);
  src->pts = 0;
  int frames = 0;
  for (const AVFrame* out = m_resample.qv_convert_frame(src.get(), &kUsec); out != nullptr; out = drain()) {
    EXPECT_EQ(out->format, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(out->sample_rate, 48000);
    EXPECT_EQ(out->pts, 1024 * frames);
    ++frames;
  }
  EXPECT_EQ(frames, 7);  // eight less what the resampler's filter holds back
}

TEST_F(QVResampleTest, OutputSharesTheEncodersBuffersUntilTheyAreHeld) {
  configure(44100, 44100);
  AVFrame* out = push(kFrameSize, 0);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->data[0], m_dst->data[0]);
  const FramePtr held(av_frame_clone(out));
  const std::vector<uint8_t> before(held->data[0], held->data[0] + kFrameSize * 4);
  m_in = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100, kFrameSize);
  std::fill_n(m_in->data[0], kFrameSize * 4, uint8_t{0x55});
  m_in->pts = 23220;
  out = m_resample.qv_convert_frame(m_in.get(), &kUsec);
  ASSERT_NE(out, nullptr);
  EXPECT_NE(out->data[0], held->data[0]);
  EXPECT_EQ(out->data[0][0], 0x55);
  EXPECT_EQ(std::vector<uint8_t>(held->data[0], held->data[0] + kFrameSize * 4), before);
}

TEST_F(QVResampleTest, SamplesUntilCountsFromTheEndOfWhatWasTaken) {
  configure(48000, 48000);
  push(1500, 0);
  EXPECT_EQ(m_resample.samples_until(31250, kUsec), 0);
  EXPECT_EQ(m_resample.samples_until(41250, kUsec), 480);
  EXPECT_EQ(m_resample.samples_until(21250, kUsec), -480);
}

TEST_F(QVResampleTest, UnconfiguredConverterSaysSoOnStandardError) {
  const FramePtr in = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100, 10);
  testing::internal::CaptureStderr();
  EXPECT_EQ(m_resample.qv_convert_frame(in.get(), &kUsec), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "=== resample:  swr_init = false\n");
}

TEST_F(QVResampleTest, ImpossibleFormatIsRefused) {
  const FramePtr src = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100, 1);
  src->sample_rate = 0;
  const FramePtr dst = encoder_frame(44100);
  meru_test::AvLogCapture av_log;
  EXPECT_LT(m_resample.qv_config_frame(dst.get(), src.get(), {1, 44100}), 0);
  EXPECT_EQ(m_resample.qv_convert_frame(src.get(), &kUsec), nullptr);
}

TEST_F(QVResampleTest, OptionThatIsRefusedIsReported) {
  const FramePtr src = make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100, 1);
  src->sample_rate = -1;
  const FramePtr dst = encoder_frame(44100);
  meru_test::AvLogCapture av_log;
  EXPECT_EQ(m_resample.qv_config_frame(dst.get(), src.get(), {1, 44100}), -1);
  EXPECT_TRUE(av_log.has("Failed to set option\n"));
}

TEST_F(QVResampleTest, FrameOfAnotherFormatIsDroppedAndTheNextStillConverted) {
  configure(44100, 44100);
  const FramePtr other = make_samples(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 44100, 2 * kFrameSize);
  other->pts = 0;
  EXPECT_EQ(m_resample.qv_convert_frame(other.get(), &kUsec), nullptr);
  EXPECT_NE(push(kFrameSize, 0), nullptr);
}

TEST(QVResampleDestructionTest, SaysWhatItFreed) {
  testing::internal::CaptureStderr();
  { const MR::QVResample resample; }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "delete evr.s ok!\ndelete out_frame ok!\n");
}

}  // namespace

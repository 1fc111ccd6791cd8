#include "IO_Cvt/audio_input.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "capture/movie_capture2.h"
#include "support/case_name.h"
#include "support/eventually.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using MR::Drop;

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kSec = 1000000;
constexpr int64_t kFirst = 5 * kSec;
constexpr int64_t kRate = 48000;

class AudioInputTest : public testing::Test {
 protected:
  AudioInputTest() : m_info(meru_test::small_movie(m_dir.file("a.mp4"))) {}
  void start() { ASSERT_EQ(m_session->start(m_info, nullptr, nullptr, false), 0); }
  /// Time 0 is kFirst.
  void start_at_first() {
    start();
    push_image(kFirst);
  }
  int push_image(int64_t pts) {
    return m_session->fill_video_frame(m_image.data(), static_cast<int>(m_image.size()), pts, 64 * 4);
  }
  int push(int64_t samples, int64_t pts) {
    const int bytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(m_info.sample_fmt)) * m_info.channels;
    m_pcm.resize(std::max<size_t>(m_pcm.size(), static_cast<size_t>(samples * bytes)), 1);
    return m_session->fill_audio_frame(m_pcm.data(), static_cast<int>(samples * bytes), pts);
  }
  int push_silence(int64_t until) { return m_session->fill_audio_frame(nullptr, 0, until); }
  MR::CaptureBooks& books() { return m_session->books(); }
  MR::Ledger& source() { return books().source_samples; }
  MR::Ledger& encoder() { return books().encoder_samples; }
  int64_t first_pts() {
    const auto packets = m_writer->of_kind(true);
    return packets.empty() ? -1 : packets.front().pts;
  }
  void pause_and_resume() {
    m_session->pause();
    m_session->resume();
  }

  meru_test::TempDir m_dir;
  MovieInfo m_info;
  meru_test::FakeWriter* m_writer = new meru_test::FakeWriter;  // the session's
  std::unique_ptr<MovieCapture2> m_session = std::make_unique<MovieCapture2>(m_writer);
  std::vector<uint8_t> m_image = std::vector<uint8_t>(size_t{64} * 48 * 4, 90);
  std::vector<uint8_t> m_pcm;
};

// --- accounts

TEST_F(AudioInputTest, SamplesAreAccountedForFromThePushToTheEncoder) {
  start_at_first();
  for (int i = 0; i < 10; ++i) push(1000, kFirst + i * int64_t{20833});
  EXPECT_EQ(source().taken(), 10000);
  EXPECT_EQ(source().passed(), 10000);
  EXPECT_EQ(encoder().taken(), 10000);
  EXPECT_EQ(encoder().passed(), 9 * 1024);
  EXPECT_EQ(books().silence, 0);
  m_session->stop();
  EXPECT_EQ(encoder().passed(), 10000);
  EXPECT_TRUE(encoder().balances());
}

TEST_F(AudioInputTest, SilenceIsNoSourceSample) {
  start_at_first();
  push_silence(kFirst + 3 * kSec);
  m_session->stop();
  EXPECT_EQ(source().taken(), 0);
  EXPECT_EQ(encoder().passed(), 3 * kRate);
  EXPECT_EQ(books().silence, 3 * kRate);
}

TEST_F(AudioInputTest, WhatIsDroppedHasItsReason) {
  push(100, kFirst);  // before any start: of what kind the samples are is not known
  EXPECT_EQ(source().taken(), 0);
  start_at_first();
  push(1000, kFirst);
  m_session->pause();
  push(300, kFirst + kSec);
  m_session->resume();
  m_session->stop();
  push(20, kFirst + kSec);
  EXPECT_EQ(source().dropped(Drop::kPaused), 300);
  EXPECT_EQ(source().dropped(Drop::kNotStarted), 20);
  EXPECT_EQ(source().taken(), 1320);
  EXPECT_TRUE(source().balances());
}

TEST_F(AudioInputTest, IncompleteSampleIsNone) {
  start_at_first();
  std::vector<uint8_t> pcm(4003);
  m_session->fill_audio_frame(pcm.data(), static_cast<int>(pcm.size()), kFirst);
  EXPECT_EQ(source().taken(), 1000);
  EXPECT_EQ(source().passed(), 1000);
}

TEST_F(AudioInputTest, ReadyFramesAreCountedToo) {
  start_at_first();
  const FramePtr samples = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 2000);
  samples->pts = kFirst;
  m_session->fill_audio_frame(samples.get(), kUsec);
  const FramePtr other = meru_test::make_samples(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 48000, 70);
  other->pts = kFirst + 41666;
  EXPECT_EQ(m_session->fill_audio_frame(other.get(), kUsec), 0);
  EXPECT_EQ(source().taken(), 2070);
  EXPECT_EQ(source().passed(), 2000);
  EXPECT_EQ(source().dropped(Drop::kRefused), 70);
}

TEST_F(AudioInputTest, FramesThatAreNotWhatTheRecordAnnouncesAreReportedOnce) {
  start_at_first();
  meru_test::LogCapture log;
  const FramePtr other_rate = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100, 1000);
  const FramePtr other_format = meru_test::make_samples(AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 48000, 1000);
  const FramePtr other_channels = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_MONO, 48000, 1000);
  for (AVFrame* frame : {other_rate.get(), other_format.get(), other_channels.get()}) {
    frame->pts = kFirst;
    EXPECT_EQ(m_session->fill_audio_frame(frame, kUsec), 0);
  }
  EXPECT_EQ(source().dropped(Drop::kRefused), 3000);
  EXPECT_EQ(log.count(2,
                      "audio dropped (refused): it is not of the rate, sample format and channels of the "
                      "record; others are only counted"),
            1);
}

TEST_F(AudioInputTest, RecordWithoutAudioDropsFrames) {
  m_info.no_audio = true;
  start_at_first();
  const FramePtr samples = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 2000);
  samples->pts = kFirst;
  m_session->fill_audio_frame(samples.get(), kUsec);
  m_session->drop_disabled_audio(samples->data[0], 400);
  EXPECT_EQ(source().dropped(Drop::kDisabled), 2100);
  EXPECT_TRUE(source().balances());
}

TEST_F(AudioInputTest, FormatThatCannotBeConvertedIsRefused) {
  m_info.sample_rate_src = -1;
  start_at_first();
  push(1000, kFirst);
  EXPECT_EQ(source().dropped(Drop::kRefused), 1000);
  EXPECT_TRUE(source().balances());
}

TEST_F(AudioInputTest, EncoderThatIsClosedAccountsForWhatIsLeft) {
  start_at_first();
  push(100, kFirst);
  m_session.reset();  // without a stop: the books are checked when they are published
}

// --- number of channels

struct ChannelCase {
  const char* name;
  int channels;
  int format;
};

class Channels : public AudioInputTest, public testing::WithParamInterface<ChannelCase> {};

TEST_P(Channels, AreMixedWhateverTheirNumber) {
  m_info.channels = GetParam().channels;
  m_info.sample_fmt = GetParam().format;
  start_at_first();
  push(2000, kFirst);
  push_silence(kFirst + kSec);
  pause_and_resume();
  push(2000, kFirst + kSec + 10000);
  FramePtr frame(av_frame_alloc());
  frame->format = m_info.sample_fmt;
  frame->sample_rate = 48000;
  frame->nb_samples = 1500;
  meru_compat::set_layout(frame.get(), meru_compat::unplaced_layout(m_info.channels));
  ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  frame->pts = kFirst + 2 * kSec;
  pause_and_resume();
  m_session->fill_audio_frame(frame.get(), kUsec);
  m_session->stop();
  EXPECT_EQ(source().taken(), 5500);
  EXPECT_EQ(source().dropped(Drop::kRefused), 0);
  EXPECT_TRUE(source().balances());
  EXPECT_GT(encoder().passed(), kRate);
  EXPECT_TRUE(encoder().balances());
}

std::vector<ChannelCase> channel_cases() {
  std::vector<ChannelCase> cases;
  for (const int channels : {1, 2, 6, 8, 9, 10, 12, 16, 17, 24, 33, 63, 64}) {
    for (const int format : {AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_U8P, AV_SAMPLE_FMT_S16P,
                             AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_DBLP}) {
      cases.push_back({"", channels, format});
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(All, Channels, testing::ValuesIn(channel_cases()), [](const auto& row) {
  const char* format = av_get_sample_fmt_name(static_cast<AVSampleFormat>(row.param.format));
  return std::to_string(row.param.channels) + "_" + format;
});

// --- alignment

TEST_F(AudioInputTest, OverlapAfterAPauseIsCutFromAsManyBuffersAsItTakes) {
  start_at_first();
  push(kRate / 2, kFirst);  // half a second, pushed ahead of the clock
  pause_and_resume();
  const int64_t at = kFirst + 100000;  // 400 ms before the end of the audio so far, but for the pause
  for (int i = 0; i < 100; ++i) push(480, at + i * int64_t{10000});
  const int64_t cut = source().dropped(Drop::kOverlap);
  EXPECT_GE(cut, kRate * 4 / 10 - 1);
  EXPECT_LT(cut, kRate * 4 / 10 + kRate / 5) << "beyond that the pause must have taken long";
  m_session->stop();
  EXPECT_EQ(encoder().passed(), kRate / 2 + 48000 - cut);
}

TEST_F(AudioInputTest, OverlapOfHalfASecondAfterAPauseIsAJump) {
  start_at_first();
  push(2 * kRate, kFirst);
  pause_and_resume();
  push(4800, kFirst + kSec);
  EXPECT_EQ(source().dropped(Drop::kOverlap), 0);
  EXPECT_EQ(source().passed(), 2 * kRate + 4800);
}

TEST_F(AudioInputTest, SilenceAfterAPauseCutsNoSamples) {
  start_at_first();
  push(4800, kFirst);
  pause_and_resume();
  const int64_t paused = kFirst + 100000 - 100000;
  push_silence(paused + 300000);
  push(4800, paused + 300000);
  EXPECT_LT(source().dropped(Drop::kOverlap), 10);
}

struct FirstCase {
  const char* name;
  int64_t usec;  ///< of the first sample, from time 0 on
};

class FirstAudio : public AudioInputTest, public testing::WithParamInterface<FirstCase> {
 protected:
  static constexpr int64_t kPushed = 4800;
};

TEST_P(FirstAudio, BeginsAtItsTimestampWhenThatIsAskedFor) {
  m_session->align_first_audio(true);
  start_at_first();
  for (int i = 0; i < 10; ++i) push(kPushed / 10, kFirst + GetParam().usec + i * int64_t{10000});
  m_session->stop();
  const int64_t expected = av_rescale(GetParam().usec, kRate, kSec);
  EXPECT_EQ(books().silence, std::max<int64_t>(expected, 0));
  EXPECT_EQ(source().dropped(Drop::kOverlap), std::max<int64_t>(-expected, 0));
  EXPECT_EQ(encoder().passed(), kPushed + expected);
  EXPECT_LE(first_pts(), 0);
}

TEST_P(FirstAudio, BeginsAtItsTimestampAfterAPushOfNothing) {
  start_at_first();
  push_silence(kFirst + GetParam().usec);
  for (int i = 0; i < 10; ++i) push(kPushed / 10, kFirst + GetParam().usec + i * int64_t{10000});
  m_session->stop();
  const int64_t expected = std::max<int64_t>(av_rescale(GetParam().usec, kRate, kSec), 0);
  EXPECT_EQ(books().silence, expected);
  EXPECT_EQ(encoder().passed(), kPushed + expected);
}

INSTANTIATE_TEST_SUITE_P(All, FirstAudio,
                         testing::Values(FirstCase{"AtZero", 0}, FirstCase{"Late10ms", 10000},
                                         FirstCase{"Late499ms", 499000}, FirstCase{"LateASecond", kSec},
                                         FirstCase{"LateAMinute", 60 * kSec}, FirstCase{"Early40ms", -40000}),
                         meru_test::CaseName());

TEST_F(AudioInputTest, FirstAudioIsNotMovedUnlessThatIsAskedFor) {
  start_at_first();
  push(4800, kFirst + 400000);
  m_session->stop();
  EXPECT_EQ(books().silence, 0);
  EXPECT_EQ(encoder().passed(), 4800);
}

// --- silence

TEST_F(AudioInputTest, StopEndsALongSilence) {
  start_at_first();
  std::atomic<bool> done{false};
  std::thread pusher([&] {
    push_silence(kFirst + 29LL * 24 * 3600 * kSec);
    done = true;
  });
  ASSERT_TRUE(meru_test::eventually([&] { return encoder().passed() > 10 * kRate; }));
  EXPECT_FALSE(done);
  m_session->stop();
  pusher.join();
  EXPECT_LT(encoder().passed(), 28LL * 24 * 3600 * kRate);
  EXPECT_TRUE(encoder().balances());
}

TEST_F(AudioInputTest, SilenceOfUnsignedSamplesIsTheirMiddle) {
  m_info.sample_fmt = AV_SAMPLE_FMT_U8;
  struct Seen : IOCvt {
    using IOCvt::IOCvt;
    bool out_frame(bool video, AVFrame* frame, AVRational* tb) override {
      const auto* left = reinterpret_cast<const float*>(frame->data[0]);
      loudest = std::max(loudest, *std::max_element(left, left + frame->nb_samples));
      loudest = std::max(loudest, -*std::min_element(left, left + frame->nb_samples));
      return IOCvt::out_frame(video, frame, tb);
    }
    float loudest = 0;
  };
  start();
  Seen cvt(m_session.get());
  ASSERT_EQ(MERU_audio_dst_frame(m_session.get())->format, AV_SAMPLE_FMT_FLTP);
  cvt.fill_audio_silence(kSec, 0);
  EXPECT_EQ(cvt.loudest, 0.0F);
}

TEST_F(AudioInputTest, NothingFailsWhileTheResamplerGivesNothingYet) {
  m_info.sample_rate_src = 44100;
  start_at_first();
  meru_test::LogCapture log;
  for (int i = 0; i < 20; ++i) push(1, kFirst + i * int64_t{23});
  for (const auto& line : log.lines()) EXPECT_GT(line.level, 2) << line.text;
}

// --- gaps

struct GapCase {
  const char* name;
  int64_t hours;
  int frames;  ///< put into the gap
};

class Gap : public AudioInputTest, public testing::WithParamInterface<GapCase> {};

TEST_P(Gap, IsSplitWhereADurationOfMp4WouldOverflow) {
  start_at_first();
  push(48000, kFirst);
  push(48000, kFirst + GetParam().hours * 3600 * kSec);
  m_session->stop();
  const auto packets = m_writer->of_kind(true);
  int64_t longest = 0;
  for (size_t i = 1; i < packets.size(); ++i) longest = std::max(longest, packets[i].pts - packets[i - 1].pts);
  EXPECT_LE(longest, int64_t{1} << 30);
  EXPECT_EQ(books().silence, int64_t{1024} * GetParam().frames);
  EXPECT_NEAR(static_cast<double>(packets.back().pts) / 48000, static_cast<double>(GetParam().hours * 3600), 2);
}

// 2^30 samples are 6.2 hours.
INSTANTIATE_TEST_SUITE_P(Hours, Gap,
                         testing::Values(GapCase{"One", 1, 0}, GapCase{"Six", 6, 0}, GapCase{"Seven", 7, 1},
                                         GapCase{"Fourteen", 14, 2}, GapCase{"ThirtyDays", 720, 115}),
                         meru_test::CaseName());

TEST_F(AudioInputTest, GapOfAMillionYearsIsNotBridged) {
  start_at_first();
  push(48000, kFirst);
  push(48000, INT64_MAX);
  m_session->stop();
  EXPECT_EQ(books().silence, 0);
}

// --- the end

struct RestCase {
  const char* name;
  int rate;
  int samples;
};

class Rest : public AudioInputTest, public testing::WithParamInterface<RestCase> {};

TEST_P(Rest, OfTheSamplesIsEncodedByTheStop) {
  m_info.sample_rate_src = GetParam().rate;
  start_at_first();
  push(GetParam().samples, kFirst);
  m_session->stop();
  const double expected = static_cast<double>(GetParam().samples) * 48000 / GetParam().rate;
  EXPECT_NEAR(static_cast<double>(encoder().passed()), expected, 2 + expected / 1000);
  EXPECT_EQ(encoder().dropped(), 0);
}

INSTANTIATE_TEST_SUITE_P(All, Rest,
                         testing::Values(RestCase{"One", 48000, 1}, RestCase{"ALittle", kRate, 500},
                                         RestCase{"AFrame", 48000, 1024}, RestCase{"OneMore", kRate, 1025},
                                         RestCase{"Resampled", 44100, 44100}, RestCase{"Up", 8000, 12345},
                                         RestCase{"Down", 192000, 123456}, RestCase{"Odd", 11025, 700}),
                         meru_test::CaseName());

TEST_F(AudioInputTest, SecondStartGoesOnAfterTheRest) {
  m_info.sample_rate_src = 44100;
  start_at_first();
  push(44100, kFirst);
  m_session->stop();
  start();
  push(44100, kFirst + kSec);
  m_session->stop();
  EXPECT_EQ(source().passed(), 2 * 44100);
  EXPECT_NEAR(static_cast<double>(encoder().passed()), 96000.0, 100);
}

}  // namespace

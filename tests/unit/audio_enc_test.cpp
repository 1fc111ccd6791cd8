#include "base/audio_enc.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"

namespace {

using meru_test::make_samples;

constexpr AVRational kUsec{1, 1000000};
constexpr int kRate = 48000;

class CountingFilter : public FilterBase {
 public:
  explicit CountingFilter(bool* deleted = nullptr) : m_deleted(deleted) {}
  ~CountingFilter() override {
    if (m_deleted != nullptr) *m_deleted = true;
  }
  int on_audio_packet(AVPacket* packet) override {
    stamps.push_back(packet->pts);
    return -1;  // the result is of no account
  }
  AVFrame* on_video_frame(AVFrame* frame) override { return frame; }

  std::vector<int64_t> stamps;

 private:
  bool* m_deleted;
};

class AudioEncTest : public testing::Test {
 protected:
  void open(const char* codec_name, AVSampleFormat format, int rate = kRate) {
    m_info.sample_rate_dst = rate;
    const AVCodec* codec = avcodec_find_encoder_by_name(codec_name);
    ASSERT_NE(codec, nullptr);
    AVFormatContext* oc = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "matroska", nullptr), 0);
    m_oc.reset(oc);
    avformat_new_stream(oc, nullptr);  // so that the audio stream is not number 0
    m_ost.st = avformat_new_stream(oc, nullptr);
    m_ost.enc.reset(avcodec_alloc_context3(codec));
    m_ost.enc->sample_fmt = format;
    m_ost.enc->sample_rate = rate;
    m_ost.enc->bit_rate = 64000;
    m_ost.enc->time_base = {1, rate};
    meru_compat::set_layout(m_ost.enc.get(), AV_CH_LAYOUT_STEREO);
    m_enc.open_audio(oc, codec, &m_ost, nullptr, m_info);
  }
  void open_aac() { open("aac", AV_SAMPLE_FMT_FLTP); }

  int write(int64_t pts, int count = 1024) {
    const FramePtr frame = make_samples(m_ost.enc->sample_fmt, AV_CH_LAYOUT_STEREO, m_ost.enc->sample_rate, count);
    frame->pts = pts;
    return m_enc.write_audio_frame(m_oc.get(), &m_ost, frame.get());
  }
  int drain() { return m_enc.write_audio_frame(m_oc.get(), &m_ost, nullptr); }

  MovieInfo m_info = meru_test::small_movie("x.mp4");
  FormatContextPtr m_oc;
  OutputStream m_ost;
  meru_test::FakeWriter m_writer;
  AudioEnc m_enc{&m_writer};
};

struct FrameSizeCase {
  const char* codec;
  AVSampleFormat format;
  int expected;
};

class EncoderFrameSize : public AudioEncTest, public testing::WithParamInterface<FrameSizeCase> {};

TEST_P(EncoderFrameSize, IsThatOfTheInputFrame) {
  open(GetParam().codec, GetParam().format);
  ASSERT_NE(m_ost.frame, nullptr);
  EXPECT_EQ(m_ost.frame->nb_samples, GetParam().expected);
  EXPECT_EQ(m_ost.frame->format, GetParam().format);
  EXPECT_EQ(m_ost.frame->sample_rate, kRate);
  EXPECT_EQ(meru_compat::channels_of(m_ost.frame.get()), 2);
  EXPECT_NE(m_ost.frame->buf[0], nullptr);
  EXPECT_EQ(m_ost.tmp_frame, nullptr);
  EXPECT_EQ(m_ost.st->codecpar->codec_id, m_ost.enc->codec_id);
}

INSTANTIATE_TEST_SUITE_P(Codecs, EncoderFrameSize,
                         testing::Values(FrameSizeCase{"aac", AV_SAMPLE_FMT_FLTP, 1024},
                                         FrameSizeCase{"pcm_s16le", AV_SAMPLE_FMT_S16, 10000}),
                         [](const auto& row) { return std::string(row.param.codec); });

TEST_F(AudioEncTest, PacketsReachTheWriterWithTheEncodersTimeBase) {
  open("pcm_s16le", AV_SAMPLE_FMT_S16);
  EXPECT_EQ(write(0, 10000), 1);
  EXPECT_EQ(write(10000, 10000), 1);
  ASSERT_EQ(m_writer.packets.size(), 2U);
  EXPECT_EQ(m_writer.packets[1].stream_index, 1);
  EXPECT_EQ(m_writer.packets[1].pts, 10000);
  EXPECT_TRUE(m_writer.packets[1].audio);
  EXPECT_EQ(av_cmp_q(m_writer.packets[1].time_base, {1, kRate}), 0);
  EXPECT_EQ(m_writer.packets[1].data.size(), 40000U);
}

TEST_F(AudioEncTest, FirstFrameIsKeptAndDrainedLater) {
  meru_test::LogCapture log;
  open_aac();
  EXPECT_EQ(write(0), 0);
  EXPECT_EQ(write(1024), 1);
  EXPECT_EQ(write(2048), 1);
  EXPECT_EQ(drain(), 2);  // the frame kept and the transform's tail
  EXPECT_EQ(m_writer.packets.size(), 4U);
  EXPECT_EQ(log.count(2, "NULL ------------> flush audio encoder"), 1);
}

TEST_F(AudioEncTest, EqualStampIsEncoded) {
  open("pcm_s16le", AV_SAMPLE_FMT_S16);
  EXPECT_EQ(write(100, 10000), 1);
  EXPECT_EQ(write(100, 10000), 1);
}

TEST_F(AudioEncTest, WithoutAContextNothingIsEncoded) {
  open_aac();
  EXPECT_EQ(m_enc.write_audio_frame(nullptr, &m_ost, m_ost.frame.get()), -1);
  EXPECT_EQ(m_enc.write_audio_frame(nullptr, &m_ost, nullptr), -1);
}

TEST_F(AudioEncTest, FrameThatTheEncoderRefusesIsReported) {
  meru_test::LogCapture log;
  open_aac();
  EXPECT_EQ(write(0, 2000), -2);
  EXPECT_EQ(log.count(2, "Error encoding audio frame: Invalid argument"), 1);
  EXPECT_EQ(write(0), 0);
  EXPECT_EQ(write(1024), 1);
}

TEST_F(AudioEncTest, RefusingWriterIsReportedAndTheNextFrameStillEncoded) {
  meru_test::LogCapture log;
  open("pcm_s16le", AV_SAMPLE_FMT_S16);
  m_writer.packet_result = -7;
  EXPECT_EQ(write(0, 10000), -3);
  EXPECT_EQ(log.count(2, "[write-packet] error while writing audio frame: ret=-7"), 1);
  m_writer.packet_result = 0;
  EXPECT_EQ(write(10000, 10000), 1);
}

TEST_F(AudioEncTest, RefusingWriterStopsTheDrainAtOnce) {
  open_aac();
  write(0);
  write(1024);
  const int before = m_writer.calls;
  m_writer.packet_result = -1;
  EXPECT_EQ(drain(), -3);
  EXPECT_EQ(m_writer.calls, before + 1);
}

TEST_F(AudioEncTest, FilterSeesEveryPacketTheDrainedOnesToo) {
  CountingFilter filter;
  open_aac();
  m_enc.set_filter(&filter);
  write(0);
  write(1024);
  drain();
  ASSERT_EQ(filter.stamps.size(), m_writer.packets.size());
  for (size_t i = 0; i < filter.stamps.size(); ++i) EXPECT_EQ(filter.stamps[i], m_writer.packets[i].pts);
  EXPECT_EQ(filter.stamps.size(), 3U);
}

TEST(AudioEncFilterTest, OutlivesTheEncoder) {
  bool deleted = false;
  CountingFilter filter(&deleted);
  {
    AudioEnc enc(nullptr);
    enc.set_filter(&filter);
  }
  EXPECT_FALSE(deleted);
}

TEST_F(AudioEncTest, ToneFollowsItsFormula) {
  open_aac();
  const AVFrame* frame = m_enc.get_audio_frame_test(&m_ost, kUsec);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->format, m_info.sample_fmt);
  EXPECT_EQ(frame->nb_samples, 1024);
  EXPECT_EQ(frame->pts, 0);
  float phase = 0;
  float step = 691.1504F / 48000.0F;
  const float growth = step / 48000.0F;
  int64_t made = 0;
  for (int call = 0; call < 3; ++call) {
    EXPECT_EQ(frame->pts, av_rescale_q(made, {1, kRate}, kUsec));
    const auto* samples = reinterpret_cast<const int16_t*>(frame->data[0]);
    for (int i = 0; i < frame->nb_samples; ++i) {
      const auto expected = static_cast<int16_t>(std::sin(phase) * 10000);
      ASSERT_NEAR(samples[2 * i], expected, 1) << "call " << call << " sample " << i;
      ASSERT_EQ(samples[2 * i + 1], samples[2 * i]);
      phase += step;
      step += growth;
    }
    made += frame->nb_samples;
    EXPECT_EQ(m_ost.next_pts, made);
    frame = m_enc.get_audio_frame_test(&m_ost, kUsec);
  }
}

TEST_F(AudioEncTest, ToneStartsAnewEveryTenSeconds) {
  open_aac();
  const AVFrame* frame = m_enc.get_audio_frame_test(&m_ost, kUsec);
  const std::vector<int16_t> first(reinterpret_cast<const int16_t*>(frame->data[0]),
                                   reinterpret_cast<const int16_t*>(frame->data[0]) + 2048);
  const auto is_first = [&first](const AVFrame* f) {
    return std::equal(first.begin(), first.end(), reinterpret_cast<const int16_t*>(f->data[0]));
  };
  std::vector<int64_t> restarts;
  while (m_ost.next_pts < 21 * kRate) {
    const int64_t at = m_ost.next_pts;
    if (is_first(m_enc.get_audio_frame_test(&m_ost, kUsec))) restarts.push_back(at);
  }
  // The first pieces that begin at 10 and at 20 seconds or later.
  EXPECT_EQ(restarts, (std::vector<int64_t>{480256, 960512}));
}

TEST_F(AudioEncTest, TonePieceOfAnotherRateIsRoundedUp) {
  m_info.sample_rate_src = 44100;
  open_aac();
  const AVFrame* frame = m_enc.get_audio_frame_test(&m_ost, {1, 44100});
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->nb_samples, 941);  // 1024 * 44100 / 48000 = 940.8
  EXPECT_EQ(frame->sample_rate, 44100);
  EXPECT_EQ(m_enc.get_audio_frame_test(&m_ost, {1, 44100})->pts, 941);
}

TEST_F(AudioEncTest, ToneStaysInsideAMonoFrame) {
  m_info.channels = 1;
  open_aac();
  const AVFrame* frame = m_enc.get_audio_frame_test(&m_ost, kUsec);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(meru_compat::channels_of(frame), 1);
  EXPECT_EQ(m_ost.next_pts, 1024);
}

TEST_F(AudioEncTest, ToneInAnUnknownFormatIsRefused) {
  m_info.sample_fmt = 999;
  open_aac();
  testing::internal::CaptureStderr();
  EXPECT_EQ(m_enc.get_audio_frame_test(&m_ost, kUsec), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Could not allocate temporary audio samples\n");
}

using AudioEncDeathTest = AudioEncTest;

TEST_F(AudioEncDeathTest, EncoderThatRefusesEndsTheProcess) {
  EXPECT_EXIT(open("aac", AV_SAMPLE_FMT_FLTP, 12345), testing::ExitedWithCode(1),
              "Could not open audio codec: Invalid argument");
}

TEST_F(AudioEncDeathTest, BuffersThatCannotBeHadEndTheProcess) {
  EXPECT_EXIT(AudioEnc::alloc_audio_frame(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, kRate, -1),
              testing::ExitedWithCode(1), "\\[C\\+\\+\\] Error allocating an audio buffer\n");
}

TEST(AudioFrameTest, NoSamplesMeansNoBuffers) {
  const FramePtr frame = AudioEnc::alloc_audio_frame(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_MONO, 8000, 0);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->buf[0], nullptr);
  EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
  EXPECT_EQ(frame->sample_rate, 8000);
  EXPECT_EQ(meru_compat::channels_of(frame.get()), 1);
}

}  // namespace

#include "IO_Cvt/io_cvt.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "capture/movie_capture2.h"
#include "support/av_log_capture.h"
#include "support/case_name.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/sanitized.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int kLine = 64 * 4;

/// Keeps what passes through the two places that a subclass may look at.
class ProbedCvt : public IOCvt {
 public:
  explicit ProbedCvt(MovieCapture2* owner) : IOCvt(owner), session(owner) {}
  struct Input {
    const AVFrame* frame;
    const uint8_t* data;
    int nb_samples;
    int64_t pts;
    int linesize;
    int16_t first;  // of the sound's samples
  };
  int in_frame(bool video, AVFrame* frame, const AVRational* tb) override {
    inputs.push_back({frame, frame->data[0], frame->nb_samples, frame->pts, frame->linesize[0], first(frame)});
    in_base = *tb;
    return convert ? IOCvt::in_frame(video, frame, tb) : 5;
  }
  bool out_frame(bool video, AVFrame* frame, AVRational* tb) override {
    stamps.push_back(frame->pts);
    if (hand_on) return IOCvt::out_frame(video, frame, tb);
    if (!video) session->books().encoder_samples.drop(MR::Drop::kEncoder, frame->nb_samples);
    return true;
  }
  static int16_t first(const AVFrame* frame) {
    return frame->nb_samples > 0 ? *reinterpret_cast<const int16_t*>(frame->data[0]) : int16_t{-1};
  }
  int64_t samples() const {
    int64_t sum = 0;
    for (const Input& input : inputs) sum += input.nb_samples;
    return sum;
  }

  MovieCapture2* session;
  bool convert = true;
  bool hand_on = true;
  std::vector<Input> inputs;
  AVRational in_base{0, 1};
  std::vector<int64_t> stamps;
};

long peak_memory_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

class IOCvtTest : public testing::Test {
 protected:
  IOCvtTest() : m_info(meru_test::small_movie(m_dir.file("a.mp4"))) {}
  void start() { m_session->start(m_info, nullptr, nullptr, false); }
  std::unique_ptr<ProbedCvt> started_cvt() {
    start();
    return std::make_unique<ProbedCvt>(m_session.get());
  }
  int fill_image(ProbedCvt* cvt, int64_t pts, int linesize = kLine) {
    return cvt->fill_video_bgra(m_image.data(), 1, pts, linesize);
  }

  meru_test::TempDir m_dir;
  MovieInfo m_info;
  meru_test::FakeWriter* m_writer = new meru_test::FakeWriter;  // the session's
  std::unique_ptr<MovieCapture2> m_session = std::make_unique<MovieCapture2>(m_writer);
  std::vector<uint8_t> m_image = std::vector<uint8_t>(2 * kLine * 48, 90);
  FramePtr m_ramp = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 4800);
  uint8_t* m_pcm = m_ramp->data[0];
};

TEST(IOCvtDeathTest, NullOwnerEndsTheProcess) { EXPECT_EXIT(IOCvt(nullptr), testing::ExitedWithCode(1), ""); }

TEST_F(IOCvtTest, BeforeTheStartNothingIsTakenAndLaterItIs) {
  ProbedCvt cvt(m_session.get());
  EXPECT_EQ(fill_image(&cvt, 0), 0);
  EXPECT_EQ(cvt.fill_audio_pcm(m_pcm, 8192, 0), 0);
  EXPECT_EQ(cvt.fill_audio_silence(1000000, 0), 0);
  EXPECT_TRUE(cvt.inputs.empty());
  start();
  EXPECT_EQ(fill_image(&cvt, 0), 1);
  EXPECT_EQ(cvt.fill_audio_pcm(m_pcm, 8192, 0), 1);
}

TEST_F(IOCvtTest, FreshRecordSaysWhetherTheSessionHasStarted) {
  EXPECT_FALSE(ProbedCvt(m_session.get()).update_movie_info());
  start();
  EXPECT_TRUE(ProbedCvt(m_session.get()).update_movie_info());
}

TEST_F(IOCvtTest, InitSetsUpEachDirectionOnce) {
  ProbedCvt cvt(m_session.get());
  EXPECT_FALSE(cvt.init());
  start();
  EXPECT_TRUE(cvt.init());
  EXPECT_FALSE(cvt.init_resample());
  EXPECT_FALSE(cvt.init_rescale());
  EXPECT_TRUE(cvt.update_movie_info());
}

TEST_F(IOCvtTest, MissingStreamsAreLogged) {
  m_info.no_audio = true;
  start();
  meru_test::LogCapture log;
  ProbedCvt cvt(m_session.get());
  EXPECT_EQ(log.count(2, "=== No audio dst_frame .."), 1);
  EXPECT_EQ(log.count(2, "=== No video dst_frame .."), 0);
  EXPECT_EQ(cvt.fill_audio_pcm(m_pcm, 8192, 0), 0);
  EXPECT_EQ(log.count(2, "=== No audio dst_frame .."), 2);
}

TEST_F(IOCvtTest, MissingVideoIsLogged) {
  m_info.no_video = true;
  start();
  meru_test::LogCapture log;
  const ProbedCvt cvt(m_session.get());
  EXPECT_EQ(log.count(2, "=== No video dst_frame .."), 1);
}

TEST_F(IOCvtTest, FormatsThatCannotBeConvertedAreLogged) {
  m_info.channels = 0;
  m_info.pix_fmt_src = AV_PIX_FMT_VAAPI;
  start();
  meru_test::LogCapture log;
  ProbedCvt cvt(m_session.get());
  EXPECT_EQ(log.count(2, "=== config QVResample failed .."), 1);
  EXPECT_EQ(log.count(2, "=== config QVRescale failed .."), 1);
  EXPECT_EQ(fill_image(&cvt, 0), 0);
  EXPECT_EQ(cvt.fill_audio_pcm(m_pcm, 8192, 0), 0);
  EXPECT_EQ(cvt.fill_audio_silence(1000, 0), 0);
}

struct PcmCase {
  const char* name;
  int nbytes;
  int samples;
};

class PcmSize : public IOCvtTest, public testing::WithParamInterface<PcmCase> {};

TEST_P(PcmSize, RemainderIsIgnored) {
  const auto cvt = started_cvt();
  cvt->convert = false;
  EXPECT_EQ(cvt->fill_audio_pcm(m_pcm, GetParam().nbytes, 777), 5);
  ASSERT_EQ(cvt->inputs.size(), 1U);
  EXPECT_EQ(cvt->inputs[0].nb_samples, GetParam().samples);
  EXPECT_EQ(cvt->inputs[0].data, m_pcm);
  EXPECT_EQ(cvt->inputs[0].pts, 777);
  EXPECT_EQ(av_cmp_q(cvt->in_base, kUsec), 0);
  EXPECT_EQ(cvt->audio_samples(), GetParam().samples);
  m_session->books().source_samples.drop(MR::Drop::kRefused, GetParam().samples);
}

INSTANTIATE_TEST_SUITE_P(Sizes, PcmSize,
                         testing::Values(PcmCase{"Whole", 4096, 1024}, PcmCase{"OneByteMore", 4097, 1024},
                                         PcmCase{"ThreeBytesMore", 4099, 1024}, PcmCase{"OneByteLess", 4095, 1023}),
                         meru_test::CaseName());

TEST_F(IOCvtTest, SamplesThatCannotBeWrappedAreRefused) {
  const auto cvt = started_cvt();
  EXPECT_EQ(cvt->fill_audio_pcm(nullptr, 4096, 0), 0);
  EXPECT_EQ(cvt->fill_audio_pcm(m_pcm, -4, 0), 0);
  EXPECT_TRUE(cvt->inputs.empty());
  EXPECT_EQ(cvt->audio_samples(), 0);
}

TEST_F(IOCvtTest, OneCallMayGiveSeveralFramesToTheMuxer) {
  const auto cvt = started_cvt();
  EXPECT_EQ(cvt->fill_audio_pcm(m_pcm, 1000 * 4, 0), 0);
  EXPECT_EQ(cvt->fill_audio_pcm(m_pcm, 1048 * 4, 20833), 1);
  EXPECT_EQ(cvt->stamps, (std::vector<int64_t>{0, 1024}));
  EXPECT_EQ(cvt->inputs.size(), 2U);
  EXPECT_EQ(m_writer->of_kind(true).size(), 1U);  // the encoder keeps one frame
}

TEST_F(IOCvtTest, SilenceOfNoLengthWrapsNoSamples) {
  const auto cvt = started_cvt();
  EXPECT_EQ(cvt->fill_audio_silence(0, 50), 0);
  EXPECT_EQ(cvt->samples(), 0);
  EXPECT_EQ(cvt->audio_samples(), 0);
  EXPECT_TRUE(cvt->stamps.empty());
}

TEST_F(IOCvtTest, NegativeSilenceIsNone) {
  const auto cvt = started_cvt();
  cvt->fill_audio_silence(-1000000, 0);
  EXPECT_EQ(cvt->samples(), 0);
  EXPECT_TRUE(cvt->stamps.empty());
}

TEST_F(IOCvtTest, SilenceComesInPiecesOfAtMostASecond) {
  const auto cvt = started_cvt();
  cvt->convert = false;
  cvt->fill_audio_silence(2500000, 1000000);
  ASSERT_EQ(cvt->inputs.size(), 3U);
  EXPECT_EQ(cvt->inputs[0].nb_samples, 48000);
  EXPECT_EQ(cvt->inputs[1].nb_samples, 48000);
  EXPECT_EQ(cvt->inputs[2].nb_samples, 24000);
  EXPECT_EQ(cvt->inputs[0].pts, 1000000);
  EXPECT_EQ(cvt->inputs[1].pts, 2000000);
  EXPECT_EQ(cvt->inputs[2].pts, 3000000);
  for (int i = 0; i < 48000 * 4; ++i) ASSERT_EQ(cvt->inputs[0].data[i], 0);
}

TEST_F(IOCvtTest, SilenceOfHalfAnHourCostsNoMemory) {
  if (meru_test::kSanitized) GTEST_SKIP() << "a sanitizer keeps freed memory back";
  m_info.sample_rate_src = m_info.sample_rate_dst = 8000;
  const auto cvt = started_cvt();
  cvt->hand_on = false;
  cvt->fill_audio_silence(1000000, 0);
  const long before = peak_memory_kib();
  ASSERT_GT(before, 0);
  cvt->fill_audio_silence(1800LL * 1000000, 1000000);
  EXPECT_EQ(cvt->samples(), 1801LL * 8000);
  EXPECT_EQ(cvt->stamps.back() + 1024, 1801LL * 8000 / 1024 * 1024);
  EXPECT_LT(peak_memory_kib() - before, 8 * 1024);  // the samples would take 55 MiB
}

TEST_F(IOCvtTest, SilenceOfDaysIsCountedInSixtyFourBits) {
  const auto cvt = started_cvt();
  cvt->convert = false;
  cvt->fill_audio_silence(3LL * 24 * 3600 * 1000000, 0);
  EXPECT_EQ(cvt->samples(), 3LL * 24 * 3600 * 48000);
}

TEST_F(IOCvtTest, ImageIsBorrowedWithItsLineSize) {
  const auto cvt = started_cvt();
  EXPECT_EQ(fill_image(cvt.get(), 40000, kLine + 64), 1);
  ASSERT_EQ(cvt->inputs.size(), 1U);
  EXPECT_EQ(cvt->inputs[0].data, m_image.data());
  EXPECT_EQ(cvt->inputs[0].linesize, kLine + 64);
  EXPECT_EQ(cvt->inputs[0].pts, 40000);
  EXPECT_EQ(cvt->stamps, (std::vector<int64_t>{1}));
  EXPECT_EQ(cvt->video_frames(), 1);
}

TEST_F(IOCvtTest, WrapperIsReusedUntilTheLineSizeChanges) {
  const auto cvt = started_cvt();
  fill_image(cvt.get(), 0);
  fill_image(cvt.get(), 40000);
  fill_image(cvt.get(), 80000, kLine + 16);
  fill_image(cvt.get(), 120000, kLine + 16);
  ASSERT_EQ(cvt->inputs.size(), 4U);
  EXPECT_EQ(cvt->inputs[1].frame, cvt->inputs[0].frame);
  EXPECT_NE(cvt->inputs[2].frame, cvt->inputs[1].frame);
  EXPECT_EQ(cvt->inputs[3].frame, cvt->inputs[2].frame);
  EXPECT_EQ(cvt->inputs[3].linesize, kLine + 16);
}

TEST_F(IOCvtTest, RowsAreReadAtTheirDistance) {
  m_info.pix_fmt = AV_PIX_FMT_YUV420P;
  const auto cvt = started_cvt();
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_BGRA, 64, 48, 4);
  struct Kept : ProbedCvt {
    using ProbedCvt::ProbedCvt;
    bool out_frame(bool, AVFrame* frame, AVRational*) override {
      kept.push_back(meru_test::pixels(frame));
      return true;
    }
    std::vector<std::vector<uint8_t>> kept;
  } kept(m_session.get());
  for (const int linesize : {kLine, kLine + 52}) {
    std::vector<uint8_t> image(static_cast<size_t>(linesize) * 48, 0xEE);
    for (int y = 0; y < 48; ++y) {
      std::copy_n(picture->data[0] + y * picture->linesize[0], kLine, image.data() + y * linesize);
    }
    ASSERT_EQ(kept.fill_video_bgra(image.data(), 1, 0, linesize), 1);
  }
  ASSERT_EQ(kept.kept.size(), 2U);
  EXPECT_EQ(kept.kept[0], kept.kept[1]);
}

TEST_F(IOCvtTest, NullImageAndTooSmallLinesAreRefused) {
  const auto cvt = started_cvt();
  EXPECT_EQ(cvt->fill_video_bgra(nullptr, 1, 0, kLine), 0);
  for (const int linesize : {kLine - 1, 0, -kLine}) EXPECT_EQ(fill_image(cvt.get(), 0, linesize), 0) << linesize;
  EXPECT_TRUE(cvt->inputs.empty());
  EXPECT_EQ(cvt->video_frames(), 0);
  EXPECT_EQ(fill_image(cvt.get(), 0), 1);
}

TEST_F(IOCvtTest, ImageThatCannotBeWrappedIsReported) {
  const auto cvt = started_cvt();
  meru_test::AvLogCapture av_log;
  EXPECT_EQ(fill_image(cvt.get(), 0, 0x7fffff00), 0);
  EXPECT_TRUE(av_log.has("###---> image fill error: Invalid argument\n"));
  EXPECT_EQ(cvt->video_frames(), 0);
}

TEST_F(IOCvtTest, ReadyFramesAreCountedAndConverted) {
  const auto cvt = started_cvt();
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_BGRA, 64, 48);
  picture->pts = 120000;
  EXPECT_EQ(cvt->fill_video_frame(picture.get(), &kUsec), 1);
  const FramePtr samples = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 2100);
  samples->pts = 0;
  EXPECT_EQ(cvt->fill_audio_frame(samples.get(), &kUsec), 1);
  EXPECT_EQ(cvt->stamps, (std::vector<int64_t>{3, 0, 1024}));
  EXPECT_EQ(cvt->video_frames(), 1);
  EXPECT_EQ(cvt->audio_samples(), 2100);
}

TEST_F(IOCvtTest, SmallGapAfterAPauseIsFilledWithSilence) {
  const auto cvt = started_cvt();
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 0);
  cvt->realign_audio();
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 110000);  // 10 ms after the end of the first buffer
  EXPECT_EQ(cvt->samples(), 4800 + 480 + 4800);
}

TEST_F(IOCvtTest, EmptyBufferAfterAPauseLeavesTheNextToBeAligned) {
  const auto cvt = started_cvt();
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 0);
  cvt->realign_audio();
  cvt->fill_audio_pcm(m_pcm, 0, 105000);
  cvt->fill_audio_silence(0, 105000);
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 110000);
  EXPECT_EQ(cvt->samples(), 4800 + 480 + 4800);
}

TEST_F(IOCvtTest, SmallOverlapAfterAPauseIsCut) {
  const auto cvt = started_cvt();
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 0);
  cvt->realign_audio();
  cvt->fill_audio_pcm(m_pcm, 4800 * 4, 90000);
  EXPECT_EQ(cvt->samples(), 4800 + 4320);
  EXPECT_EQ(cvt->inputs.back().first, 480);
  EXPECT_EQ(cvt->inputs.back().pts, 100000);
}

TEST_F(IOCvtTest, DestructionTellsWhatExisted) {
  start();
  std::vector<std::string> lines;
  {
    ProbedCvt* cvt = new ProbedCvt(m_session.get());
    fill_image(cvt, 0);
    meru_test::LogCapture log;
    delete cvt;
    for (const auto& line : log.lines()) {
      EXPECT_EQ(line.level, 4);
      lines.push_back(line.text);
    }
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"\"Begin ...\"\n", "\"delete evr ok!\"\n", "\"delete evs ok!\"\n",
                                             "\"free pcm\"\n", "\"free bgra\"\n", "\"OK\"\n"}));
}

TEST_F(IOCvtTest, DestructionWithoutAnythingSaysOnlyItsFrame) {
  std::vector<std::string> lines;
  {
    ProbedCvt* cvt = new ProbedCvt(m_session.get());
    meru_test::LogCapture log;
    delete cvt;
    for (const auto& line : log.lines()) lines.push_back(line.text);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"\"Begin ...\"\n", "\"OK\"\n"}));
}

TEST(WrapperFrameTest, DescribesTheHostsFormats) {
  const MovieInfo info = meru_test::small_movie("x.mp4");
  const FramePtr pcm = IOCvt::alloc_audio_pcm_frame(&info);
  EXPECT_EQ(pcm->format, info.sample_fmt);
  EXPECT_EQ(pcm->sample_rate, 48000);
  EXPECT_EQ(meru_compat::layout_of(pcm.get()), static_cast<uint64_t>(AV_CH_LAYOUT_STEREO));
  const FramePtr image = IOCvt::alloc_video_bgra_frame(&info, 300);
  EXPECT_EQ(image->format, info.pix_fmt_src);
  EXPECT_EQ(image->width, 64);
  EXPECT_EQ(image->height, 48);
  EXPECT_EQ(image->linesize[0], 300);
  EXPECT_EQ(image->linesize[1], 0);
}

TEST(WrapperFrameTest, PlanesOfAPlanarFormatFollowTheFirstOnesStride) {
  MovieInfo info = meru_test::small_movie("x.mp4");
  info.pix_fmt_src = AV_PIX_FMT_YUV420P;
  const FramePtr image = IOCvt::alloc_video_bgra_frame(&info, 128);
  EXPECT_EQ(image->linesize[1], 64);
  EXPECT_EQ(image->linesize[2], 64);
}

}  // namespace

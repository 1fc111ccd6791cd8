#include <gtest/gtest.h>

#include <new>
#include <string>

#include "capture/movie_capture2.h"
#include "capture/movie_convert.h"
#include "meru/recording.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using meru_test::make_picture;
using MR::Drop;

constexpr AVRational kUsec{1, 1000000};
constexpr int kLine = 64 * 4;
constexpr int64_t kFrameUsec = 40000;

/// Does with frames what the test says.
class TestFilter : public FilterBase {
 public:
  enum class Way { kPass, kNull, kThrow };
  int on_audio_packet(AVPacket* /*packet*/) override { return 0; }
  AVFrame* on_video_frame(AVFrame* frame) override {
    if (way == Way::kThrow) throw std::bad_alloc();
    return way == Way::kNull ? nullptr : frame;
  }
  Way way = Way::kPass;
};

class VideoBooksTest : public testing::Test {
 protected:
  void start() { m_session->start(m_info, nullptr, nullptr, false); }
  int push(int64_t pts, int linesize = kLine) {
    return MERU_write_video_bgra(m_session.get(), m_image.data(), static_cast<int>(m_image.size()), pts, linesize);
  }
  int push_frame(int64_t pts, AVPixelFormat format = AV_PIX_FMT_BGRA, int width = 64, int height = 48) {
    const FramePtr frame = make_picture(format, width, height);
    frame->pts = pts;
    return MERU_write_video_frame(m_session.get(), frame.get(), kUsec);
  }
  const MR::Ledger& books() { return m_session->books().video_frames; }
  long dropped_lines(const std::string& reason) {
    long lines = 0;
    for (const auto& line : m_log.lines()) {
      lines += line.level == 2 && line.text.find("video frame dropped (" + reason + ")") != std::string::npos ? 1 : 0;
    }
    return lines;
  }
  /// After a stop, which drains the encoder.
  void expect_books(int64_t passed, Drop reason, int64_t dropped) {
    m_session->stop();
    EXPECT_EQ(books().taken(), passed + dropped);
    EXPECT_EQ(books().passed(), passed);
    EXPECT_EQ(books().dropped(reason), dropped) << drop_text(reason);
    EXPECT_EQ(books().dropped(), dropped);
    EXPECT_TRUE(books().balances());
    EXPECT_EQ(static_cast<int64_t>(m_writer->of_kind(false).size()), passed);
  }

  meru_test::LogCapture m_log;
  meru_test::TempDir m_dir;
  MovieInfo m_info = meru_test::small_movie(m_dir.file("a.mp4"));
  meru_test::FakeWriter* m_writer = new meru_test::FakeWriter;  // the session's
  std::unique_ptr<MovieCapture2> m_session = std::make_unique<MovieCapture2>(m_writer);
  std::vector<uint8_t> m_image = std::vector<uint8_t>(kLine * 48, 100);
};

TEST_F(VideoBooksTest, EncodedFramesArePassed) {
  start();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(push(i * kFrameUsec), 1);
  for (int i = 5; i < 10; ++i) EXPECT_EQ(push_frame(i * kFrameUsec), 1);
  expect_books(10, Drop::kTimestamp, 0);
}

TEST_F(VideoBooksTest, FramesThatTheEncoderHoldsArePassedOnceItIsDrained) {
  m_info.tune = 0;
  m_info.preset = QUALITY_VERYFAST;
  start();
  for (int i = 0; i < 10; ++i) push(i * kFrameUsec);
  EXPECT_LT(m_writer->of_kind(false).size(), 10U);
  expect_books(10, Drop::kEncoder, 0);
}

TEST_F(VideoBooksTest, FramesBeforeTheStart) {
  EXPECT_EQ(push(0), 0);
  EXPECT_EQ(push_frame(kFrameUsec), 0);
  expect_books(0, Drop::kNotStarted, 2);
}

TEST_F(VideoBooksTest, FramesAfterTheStop) {
  start();
  push(0);
  m_session->stop();
  EXPECT_EQ(push(kFrameUsec), 0);
  EXPECT_EQ(push_frame(2 * kFrameUsec), 0);
  expect_books(1, Drop::kNotStarted, 2);
}

TEST_F(VideoBooksTest, FramesOfAPause) {
  start();
  push(0);
  ASSERT_TRUE(m_session->pause());
  EXPECT_EQ(push(kFrameUsec), 0);
  EXPECT_EQ(push_frame(2 * kFrameUsec), 0);
  expect_books(1, Drop::kPaused, 2);
}

TEST_F(VideoBooksTest, FramesOfADisabledTrack) {
  m_info.no_video = true;
  start();
  EXPECT_EQ(push(0), 0);
  EXPECT_EQ(push_frame(kFrameUsec), 0);
  expect_books(0, Drop::kDisabled, 2);
}

TEST_F(VideoBooksTest, ImagesThatAreRefused) {
  start();
  EXPECT_EQ(push(0, kLine - 1), 0);
  EXPECT_EQ(MERU_write_video_bgra(m_session.get(), nullptr, 0, kFrameUsec, kLine), 0);
  EXPECT_EQ(push(2 * kFrameUsec), 1);
  expect_books(1, Drop::kRefused, 2);
}

TEST_F(VideoBooksTest, FramesThatAreNotWhatTheRecordAnnouncesAreReportedOnce) {
  start();
  EXPECT_EQ(push_frame(0, AV_PIX_FMT_BGRA, 62, 48), 0);
  EXPECT_EQ(push_frame(kFrameUsec, AV_PIX_FMT_BGRA, 64, 50), 0);
  EXPECT_EQ(push_frame(2 * kFrameUsec, AV_PIX_FMT_RGB24), 0);
  EXPECT_EQ(push_frame(3 * kFrameUsec), 1);
  EXPECT_EQ(dropped_lines("refused"), 1);
  expect_books(1, Drop::kRefused, 3);
}

TEST_F(VideoBooksTest, FramesOfTheEncodersFormatThatAreTooSmall) {
  m_info.pix_fmt_src = AV_PIX_FMT_YUV420P;
  start();
  EXPECT_EQ(push_frame(0, AV_PIX_FMT_YUV420P), 1);
  push_frame(kFrameUsec, AV_PIX_FMT_YUV420P, 62, 48);
  expect_books(1, Drop::kRefused, 1);
}

TEST_F(VideoBooksTest, FramesWithoutPixelsAreRefused) {
  start();
  const FramePtr frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_BGRA;
  frame->width = 64;
  frame->height = 48;
  EXPECT_EQ(MERU_write_video_frame(m_session.get(), frame.get(), kUsec), 0);
  expect_books(0, Drop::kRefused, 1);
}

TEST_F(VideoBooksTest, ImagesThatCannotBeConverted) {
  m_info.pix_fmt_src = AV_PIX_FMT_VAAPI;
  start();
  EXPECT_EQ(push(0), 0);
  expect_books(0, Drop::kRefused, 1);
}

TEST_F(VideoBooksTest, FramesWhoseTimestampsDoNotRiseAreReportedOnce) {
  start();
  for (int i = 0; i < 100; ++i) push(0);
  for (int i = 0; i < 6; ++i) push_frame(i * kFrameUsec / 3);  // 3 timestamps of a frame's length, the first again
  EXPECT_EQ(dropped_lines("timestamp"), 1);
  expect_books(3, Drop::kTimestamp, 103);
}

TEST_F(VideoBooksTest, FramesThatTheFilterDropsEndTheStream) {
  start();
  auto* filter = new TestFilter;
  ASSERT_TRUE(m_session->add_video_filter(filter));
  push(0);
  filter->way = TestFilter::Way::kNull;
  push(kFrameUsec);
  filter->way = TestFilter::Way::kPass;
  push(2 * kFrameUsec);  // the encoder has been drained
  push(3 * kFrameUsec);
  m_session->stop();
  EXPECT_EQ(dropped_lines("encoder"), 1);
  EXPECT_EQ(books().passed(), 1);
  EXPECT_EQ(books().dropped(Drop::kFilter), 1);
  EXPECT_EQ(books().dropped(Drop::kEncoder), 2);
  EXPECT_EQ(books().taken(), 4);
  EXPECT_TRUE(books().balances());
}

TEST_F(VideoBooksTest, FramesWithoutMemory) {
  start();
  auto* filter = new TestFilter;
  ASSERT_TRUE(m_session->add_video_filter(filter));
  push(0);
  filter->way = TestFilter::Way::kThrow;
  EXPECT_EQ(push(kFrameUsec), 0);
  filter->way = TestFilter::Way::kPass;
  push(2 * kFrameUsec);
  expect_books(2, Drop::kMemory, 1);
}

TEST_F(VideoBooksTest, PacketsThatTheWriterRefusesAreEncodedFrames) {
  start();
  m_writer->packet_result = -1;
  for (int i = 0; i < 3; ++i) push(i * kFrameUsec);
  m_session->stop();
  EXPECT_EQ(books().passed(), 3);
  EXPECT_TRUE(books().balances());
}

TEST_F(VideoBooksTest, FramesPushedStraightToTheMuxerCountOnce) {
  auto* writer = new meru_test::FakeWriter;
  MovieConvert session(writer);
  session.start(m_info, nullptr, nullptr, false);
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  for (const int64_t pts : {0, 1, 1, 2}) {
    frame->pts = pts;
    session.write_video_frame(frame.get(), nullptr);
  }
  session.stop();
  EXPECT_EQ(session.write_video_frame(frame.get(), nullptr), 0);
  const MR::Ledger& books = session.books().video_frames;
  EXPECT_EQ(books.taken(), 5);
  EXPECT_EQ(books.passed(), 3);
  EXPECT_EQ(books.dropped(Drop::kTimestamp), 1);
  EXPECT_EQ(books.dropped(Drop::kNotStarted), 1);
  EXPECT_TRUE(books.balances());
}

}  // namespace

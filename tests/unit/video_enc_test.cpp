#include "base/video_enc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace {

using meru_test::make_picture;
using meru_test::pixels;

constexpr AVRational kTb{1, 25};
constexpr int kWidth = 64;
constexpr int kHeight = 48;

/// A filter that hands on what the test says, and tells when it is deleted.
class TestFilter : public FilterBase {
 public:
  explicit TestFilter(int* deleted) : m_deleted(deleted) {}
  ~TestFilter() override { ++*m_deleted; }
  int on_audio_packet(AVPacket* /*packet*/) override { return 0; }
  AVFrame* on_video_frame(AVFrame* frame) override {
    ++seen;
    if (drop) return nullptr;
    return replacement != nullptr ? replacement : frame;
  }

  int seen = 0;
  bool drop = false;
  AVFrame* replacement = nullptr;

 private:
  int* m_deleted;
};

class VideoEncTest : public testing::Test {
 protected:
  void prepare(const char* codec_name, AVPixelFormat format = AV_PIX_FMT_YUV420P) {
    m_codec = avcodec_find_encoder_by_name(codec_name);
    ASSERT_NE(m_codec, nullptr);
    AVFormatContext* oc = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "matroska", nullptr), 0);
    m_oc.reset(oc);
    avformat_new_stream(oc, nullptr);  // so that the video stream is not number 0
    m_ost.st = avformat_new_stream(oc, nullptr);
    m_ost.enc.reset(avcodec_alloc_context3(m_codec));
    m_ost.enc->width = kWidth;
    m_ost.enc->height = kHeight;
    m_ost.enc->pix_fmt = format;
    m_ost.enc->time_base = kTb;
    m_ost.enc->thread_count = 1;
  }
  void open() { m_enc.open_video(m_oc.get(), m_codec, &m_ost, nullptr, m_info); }
  void open(const char* codec_name, AVPixelFormat format = AV_PIX_FMT_YUV420P) {
    prepare(codec_name, format);
    open();
  }
  /// An encoder that holds every picture until it is drained.
  void open_delayed() {
    prepare("libx264");
    av_opt_set(m_ost.enc->priv_data, "preset", "ultrafast", 0);
    av_opt_set(m_ost.enc->priv_data, "x264-params", "rc-lookahead=20:sync-lookahead=0:bframes=0:mbtree=1:force-cfr=1",
               0);
    open();
  }
  int write(int64_t pts, AVPixelFormat format = AV_PIX_FMT_YUV420P, int width = kWidth, int height = kHeight) {
    const FramePtr frame = make_picture(format, width, height, static_cast<int>(pts));
    frame->pts = pts;
    return m_enc.write_video_frame(m_oc.get(), &m_ost, frame.get());
  }
  int drain() { return m_enc.write_video_frame(m_oc.get(), &m_ost, nullptr); }

  MovieInfo m_info = meru_test::small_movie("x.mkv");
  const AVCodec* m_codec = nullptr;
  FormatContextPtr m_oc;
  OutputStream m_ost;
  meru_test::FakeWriter m_writer;
  VideoEnc m_enc{&m_writer};
};

TEST_F(VideoEncTest, OpeningMakesTheEncodersInputFrame) {
  prepare("mpeg4");
  m_ost.enc->colorspace = AVCOL_SPC_BT709;
  m_ost.enc->color_range = AVCOL_RANGE_MPEG;
  open();
  ASSERT_NE(m_ost.frame, nullptr);
  EXPECT_EQ(m_ost.frame->width, kWidth);
  EXPECT_EQ(m_ost.frame->height, kHeight);
  EXPECT_EQ(m_ost.frame->format, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(m_ost.frame->colorspace, AVCOL_SPC_BT709);
  EXPECT_EQ(m_ost.frame->color_range, AVCOL_RANGE_MPEG);
  EXPECT_NE(m_ost.frame->buf[0], nullptr);
  EXPECT_EQ(m_ost.tmp_frame, nullptr);
  EXPECT_EQ(m_ost.st->codecpar->width, kWidth);
}

TEST_F(VideoEncTest, EncoderThatRefusesRaisesItsText) {
  prepare("mpeg4");
  m_ost.enc->time_base = {0, 1};
  testing::internal::CaptureStderr();
  std::string text;
  try {
    open();
  } catch (const std::string& e) {
    text = e;
  }
  EXPECT_EQ(text, "Could not open video codec: Invalid argument");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not open video codec: Invalid argument\n"),
            std::string::npos);
}

TEST_F(VideoEncTest, PacketsReachTheWriterWithTheEncodersTimeBase) {
  open("mpeg4");
  EXPECT_EQ(write(0), 1);
  EXPECT_EQ(write(5), 1);
  ASSERT_EQ(m_writer.packets.size(), 2U);
  EXPECT_EQ(m_writer.packets[1].stream_index, 1);
  EXPECT_EQ(m_writer.packets[1].pts, 5);
  EXPECT_FALSE(m_writer.packets[1].audio);
  EXPECT_TRUE(m_writer.packets[0].key);
  EXPECT_EQ(av_cmp_q(m_writer.packets[1].time_base, kTb), 0);
}

TEST_F(VideoEncTest, WithoutAContextNothingIsEncoded) {
  open("mpeg4");
  EXPECT_EQ(m_enc.write_video_frame(nullptr, &m_ost, m_ost.frame.get()), -1);
  EXPECT_EQ(m_enc.write_video_frame(nullptr, &m_ost, nullptr), -1);
}

TEST_F(VideoEncTest, ErrorOfTheEncoderIsReportedAndTheNextFrameStillEncoded) {
  meru_test::LogCapture log;
  open("mpeg4");
  EXPECT_EQ(write(3), 1);
  EXPECT_EQ(write(3), -2);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].level, 2);
  // FFmpeg's versions differ in the code, and so in the text in the middle.
  EXPECT_THAT(log.lines()[0].text, testing::MatchesRegex("\"Error encoding video frame: [A-Z][a-z ]+\\\\n\"\n"));
  EXPECT_EQ(write(4), 1);
}

TEST_F(VideoEncTest, ImageSmallerThanTheEncodersIsRefused) {
  meru_test::LogCapture log;
  open("mpeg4");
  EXPECT_EQ(write(0, AV_PIX_FMT_YUV420P, kWidth - 2, kHeight), -2);
  EXPECT_EQ(write(0, AV_PIX_FMT_YUV420P, kWidth, kHeight - 2), -2);
  EXPECT_EQ(log.count(2, "Error encoding video frame: the image has not the size and the format that are encoded\\n"),
            2);
  EXPECT_EQ(write(0), 1);
}

TEST_F(VideoEncTest, ImageUnlikeTheFirstOfAnotherFormatIsRefused) {
  open("mpeg4");
  EXPECT_EQ(write(0, AV_PIX_FMT_BGRA, 2 * kWidth, 2 * kHeight), 1);
  EXPECT_EQ(write(1, AV_PIX_FMT_BGRA, kWidth, 2 * kHeight), -2);
  EXPECT_EQ(write(1, AV_PIX_FMT_BGRA, 2 * kWidth, kHeight), -2);
  EXPECT_EQ(write(1, AV_PIX_FMT_RGB24, 2 * kWidth, 2 * kHeight), -2);
  EXPECT_EQ(write(1, AV_PIX_FMT_BGRA, 2 * kWidth, 2 * kHeight), 1);
}

TEST_F(VideoEncTest, SharedBuffersOfTheInputFrameAreNotConvertedInto) {
  open("mpeg4");
  const FramePtr sharer(av_frame_clone(m_ost.frame.get()));
  const std::vector<uint8_t> before = pixels(sharer.get());
  const FramePtr frame = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight, 9);
  const AVFrame* out = m_enc.check_frame_format(&m_ost, frame.get());
  ASSERT_NE(out, nullptr);
  EXPECT_NE(out, m_ost.frame.get());
  EXPECT_EQ(pixels(sharer.get()), before);
  EXPECT_NE(pixels(out), before);
}

TEST_F(VideoEncTest, RefusingWriterIsReportedAndTheNextFrameStillEncoded) {
  meru_test::LogCapture log;
  open("mpeg4");
  m_writer.packet_result = -9;
  EXPECT_EQ(write(0), -3);
  EXPECT_EQ(log.count(2, "[write-packet] error while writing video frame: ret=-9"), 1);
  m_writer.packet_result = 0;
  EXPECT_EQ(write(1), 1);
}

TEST_F(VideoEncTest, DrainingGivesTheDelayedPacketsAndTheirNumber) {
  meru_test::LogCapture log;
  open_delayed();
  for (int64_t pts = 0; pts < 3; ++pts) ASSERT_EQ(write(pts), 0);
  EXPECT_EQ(drain(), 3);
  EXPECT_EQ(m_writer.packets.size(), 3U);
  EXPECT_EQ(log.count(2, "NULL ------------> flush video encoder"), 1);
  EXPECT_EQ(drain(), 0);
}

TEST_F(VideoEncTest, RefusingWriterStopsTheDrainAtOnce) {
  open_delayed();
  for (int64_t pts = 0; pts < 3; ++pts) ASSERT_EQ(write(pts), 0);
  m_writer.packet_result = -1;
  EXPECT_EQ(drain(), -3);
  EXPECT_EQ(m_writer.calls, 1);
}

TEST_F(VideoEncTest, FilterThatReturnsNullDrains) {
  int deleted = 0;
  auto* filter = new TestFilter(&deleted);
  open_delayed();
  m_enc.set_filter(filter);
  for (int64_t pts = 0; pts < 2; ++pts) ASSERT_EQ(write(pts), 0);
  filter->drop = true;
  EXPECT_EQ(write(2), 2);
  EXPECT_EQ(m_writer.packets.size(), 2U);
  EXPECT_EQ(filter->seen, 3);
}

TEST_F(VideoEncTest, FramesThatTheFilterReturnsAreEncoded) {
  int deleted = 0;
  auto* filter = new TestFilter(&deleted);
  open("rawvideo");
  m_enc.set_filter(filter);
  const FramePtr other = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight, 77);
  filter->replacement = other.get();
  EXPECT_EQ(write(0), 1);
  ASSERT_EQ(m_writer.packets.size(), 1U);
  EXPECT_EQ(m_writer.packets[0].data, pixels(other.get()));
}

TEST_F(VideoEncTest, FilterIsNotAskedWhenDraining) {
  int deleted = 0;
  auto* filter = new TestFilter(&deleted);
  open("mpeg4");
  m_enc.set_filter(filter);
  EXPECT_EQ(drain(), 0);
  EXPECT_EQ(filter->seen, 0);
}

TEST(VideoEncFilterTest, IsDeletedWithTheEncoderOrItsSuccessor) {
  int deleted = 0;
  {
    VideoEnc enc(nullptr);
    enc.set_filter(new TestFilter(&deleted));
    enc.set_filter(new TestFilter(&deleted));
    EXPECT_EQ(deleted, 1);
  }
  EXPECT_EQ(deleted, 2);
}

TEST_F(VideoEncTest, FrameOfTheEncodersFormatIsPassedThroughWhateverItsSize) {
  open("mpeg4");
  const FramePtr frame = make_picture(AV_PIX_FMT_YUV420P, 100, 80);
  EXPECT_EQ(m_enc.check_frame_format(&m_ost, frame.get()), frame.get());
}

TEST_F(VideoEncTest, FrameOfAnotherFormatIsConvertedIntoTheEncodersFrame) {
  open("mpeg4");
  const FramePtr frame = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight, 9);
  frame->pts = 5000000000;
  frame->colorspace = AVCOL_SPC_RGB;
  frame->color_range = AVCOL_RANGE_JPEG;
  testing::internal::CaptureStderr();
  const AVFrame* out = m_enc.check_frame_format(&m_ost, frame.get());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "---------- V pts: 5000000000\n");
  ASSERT_EQ(out, m_ost.frame.get());
  EXPECT_EQ(out->pts, 5000000000);
  EXPECT_EQ(out->colorspace, AVCOL_SPC_RGB);
  EXPECT_EQ(out->color_range, AVCOL_RANGE_JPEG);
  const SwsPtr sws(sws_getContext(kWidth, kHeight, AV_PIX_FMT_BGRA, kWidth, kHeight, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                                  nullptr, nullptr, nullptr));
  const FramePtr expected = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  sws_scale(sws.get(), frame->data, frame->linesize, 0, kHeight, expected->data, expected->linesize);
  EXPECT_EQ(pixels(out), pixels(expected.get()));
}

TEST_F(VideoEncTest, FrameOfAnotherFormatAndSizeIsScaled) {
  open("rawvideo");
  EXPECT_EQ(write(0, AV_PIX_FMT_BGRA, 2 * kWidth, 2 * kHeight), 1);
  ASSERT_EQ(m_writer.packets.size(), 1U);
  EXPECT_EQ(m_writer.packets[0].data.size(), static_cast<size_t>(kWidth * kHeight * 3 / 2));
  EXPECT_EQ(m_writer.packets[0].data, pixels(m_ost.frame.get()));
}

TEST(PictureTest, WithoutMemoryForItsBuffersIsKept) {
  testing::internal::CaptureStderr();
  const FramePtr picture = VideoEnc::alloc_picture(AV_PIX_FMT_YUV420P, 0, kHeight);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Could not allocate frame data.\n");
  ASSERT_NE(picture, nullptr);
  EXPECT_EQ(picture->buf[0], nullptr);
  EXPECT_EQ(picture->height, kHeight);
}

using VideoEncDeathTest = VideoEncTest;

TEST_F(VideoEncDeathTest, FormatThatCannotBeConvertedEndsTheProcess) {
  open("mpeg4");
  const FramePtr frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_VAAPI;
  frame->width = kWidth;
  frame->height = kHeight;
  EXPECT_EXIT(m_enc.check_frame_format(&m_ost, frame.get()), testing::ExitedWithCode(1),
              "Could not initialize the conversion context\n");
}

}  // namespace

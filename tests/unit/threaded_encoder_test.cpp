// Frame-threaded encoders keep their input frames while the next images are converted. What they encode, lossless, is
// decoded again and must be what was pushed, picture by picture.
#include <gtest/gtest.h>

#include <string>

#include "ReSample/qv_resample.h"
#include "base/video_enc.h"
#include "support/fake_writer.h"
#include "support/media_frames.h"
#include "support/small_movie.h"

namespace {

using meru_test::make_picture;
using meru_test::pixels;

constexpr AVRational kTb{1, 25};
constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kPictures = 24;

std::vector<uint8_t> converted(const AVFrame* src) {
  const SwsPtr sws(sws_getContext(src->width, src->height, static_cast<AVPixelFormat>(src->format), kWidth, kHeight,
                                  AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
  const FramePtr dst = make_picture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  sws_scale(sws.get(), src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
  return pixels(dst.get());
}

class ThreadedEncoder : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const AVCodec* codec = avcodec_find_encoder_by_name(GetParam());
    ASSERT_NE(codec, nullptr);
    AVFormatContext* oc = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "matroska", nullptr), 0);
    m_oc.reset(oc);
    m_ost.st = avformat_new_stream(oc, nullptr);
    m_ost.enc.reset(avcodec_alloc_context3(codec));
    m_ost.enc->width = kWidth;
    m_ost.enc->height = kHeight;
    m_ost.enc->pix_fmt = AV_PIX_FMT_YUV420P;
    m_ost.enc->time_base = kTb;
    m_ost.enc->thread_type = FF_THREAD_FRAME;
    m_ost.enc->thread_count = 4;
    m_enc.open_video(oc, codec, &m_ost, nullptr, meru_test::small_movie("x.mkv"));
    ASSERT_EQ(m_ost.enc->active_thread_type, FF_THREAD_FRAME);
  }

  std::vector<std::vector<uint8_t>> decode() {
    CodecContextPtr dec(avcodec_alloc_context3(avcodec_find_decoder(m_ost.enc->codec_id)));
    avcodec_parameters_to_context(dec.get(), m_ost.st->codecpar);
    dec->thread_count = 1;
    EXPECT_GE(avcodec_open2(dec.get(), nullptr, nullptr), 0);
    std::vector<std::vector<uint8_t>> pictures;
    const FramePtr frame(av_frame_alloc());
    const PacketPtr packet(av_packet_alloc());
    for (const auto& written : m_writer.packets) {
      av_new_packet(packet.get(), static_cast<int>(written.data.size()));
      std::copy(written.data.begin(), written.data.end(), packet->data);
      EXPECT_GE(avcodec_send_packet(dec.get(), packet.get()), 0);
      av_packet_unref(packet.get());
      while (avcodec_receive_frame(dec.get(), frame.get()) >= 0) pictures.push_back(pixels(frame.get()));
    }
    return pictures;
  }

  void expect_decoded(const std::vector<std::vector<uint8_t>>& expected) {
    const auto decoded = decode();
    ASSERT_EQ(decoded.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(decoded[i] == expected[i]) << "picture " << i;
  }

  FormatContextPtr m_oc;
  OutputStream m_ost;
  meru_test::FakeWriter m_writer;
  VideoEnc m_enc{&m_writer};
};

TEST_P(ThreadedEncoder, EncodesEveryRescaledPictureUnchanged) {
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(m_ost.frame.get(), make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight).get(), kTb), 0);
  std::vector<std::vector<uint8_t>> expected;
  int delayed = 0;
  for (int i = 0; i < kPictures; ++i) {
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight, i);
    src->pts = i;
    const FramePtr alone = make_picture(static_cast<AVPixelFormat>(m_ost.frame->format), kWidth, kHeight);
    MR::QVRescale once;
    ASSERT_EQ(once.qv_config_frame(alone.get(), src.get(), kTb), 0);
    expected.push_back(pixels(once.qv_convert_frame(src.get(), &kTb)));
    const int ret = m_enc.write_video_frame(m_oc.get(), &m_ost, rescale.qv_convert_frame(src.get(), &kTb));
    ASSERT_GE(ret, 0);
    delayed += ret == 0 ? 1 : 0;
  }
  ASSERT_GT(delayed, 0) << "the encoder holds no frames, so nothing was tested";
  EXPECT_EQ(m_enc.write_video_frame(m_oc.get(), &m_ost, nullptr), delayed);
  expect_decoded(expected);
}

TEST_P(ThreadedEncoder, EncodesEveryPictureThatItConvertsItselfUnchanged) {
  std::vector<std::vector<uint8_t>> expected;
  int delayed = 0;
  for (int i = 0; i < kPictures; ++i) {
    const FramePtr src = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight, i);
    src->pts = i;
    expected.push_back(converted(src.get()));
    const int ret = m_enc.write_video_frame(m_oc.get(), &m_ost, src.get());
    ASSERT_GE(ret, 0);
    delayed += ret == 0 ? 1 : 0;
  }
  ASSERT_GT(delayed, 0) << "the encoder holds no frames, so nothing was tested";
  EXPECT_EQ(m_enc.write_video_frame(m_oc.get(), &m_ost, nullptr), delayed);
  expect_decoded(expected);
}

INSTANTIATE_TEST_SUITE_P(Codecs, ThreadedEncoder, testing::Values("ffvhuff", "utvideo"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace

#include "base/enc_base.h"

#include <gtest/gtest.h>

#include "support/media_frames.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace {

class EncProbe : public EncBase {
 public:
  using EncBase::EncBase;
  using EncBase::encode;
  using EncBase::m_info;
  using EncBase::open_encoder;
};

class EncBaseTest : public testing::Test {
 protected:
  void SetUp() override {
    AVFormatContext* oc = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "mp4", nullptr), 0);
    m_oc.reset(oc);
    m_ost.st = avformat_new_stream(oc, nullptr);
  }
  void prepare(const char* name) {
    m_codec = avcodec_find_encoder_by_name(name);
    ASSERT_NE(m_codec, nullptr);
    m_ost.enc.reset(avcodec_alloc_context3(m_codec));
    m_ost.enc->width = 64;
    m_ost.enc->height = 48;
    m_ost.enc->pix_fmt = AV_PIX_FMT_YUV420P;
    m_ost.enc->time_base = {1, 25};
  }
  FormatContextPtr m_oc;
  OutputStream m_ost;
  const AVCodec* m_codec = nullptr;
};

TEST(EncBaseDefaultsTest, RecordStartsWithTheDefaultQuantizers) {
  const EncProbe enc(nullptr);
  EXPECT_EQ(enc.m_info.crf, 23);
  EXPECT_EQ(enc.m_info.qp, 20);
  EXPECT_EQ(enc.m_info.timeout_sec, 0);
}

TEST_F(EncBaseTest, OpeningCopiesTheParametersToTheStream) {
  prepare("mpeg4");
  EXPECT_GE(EncProbe::open_encoder(m_codec, &m_ost, nullptr), 0);
  EXPECT_EQ(m_ost.st->codecpar->codec_id, AV_CODEC_ID_MPEG4);
  EXPECT_EQ(m_ost.st->codecpar->width, 64);
  EXPECT_EQ(m_ost.st->codecpar->format, AV_PIX_FMT_YUV420P);
}

TEST_F(EncBaseTest, CallersOptionsAreReadButNotConsumed) {
  prepare("mpeg4");
  AVDictionary* options = nullptr;
  av_dict_set(&options, "g", "7", 0);
  EXPECT_GE(EncProbe::open_encoder(m_codec, &m_ost, options), 0);
  EXPECT_EQ(m_ost.enc->gop_size, 7);
  EXPECT_NE(av_dict_get(options, "g", nullptr, 0), nullptr);
  av_dict_free(&options);
}

TEST_F(EncBaseTest, EmptyPresetTextsDoNotKeepTheEncoderFromOpening) {
  prepare("libx264");
  for (const char* name : {"preset", "profile", "tune"}) av_opt_set(m_ost.enc->priv_data, name, "", 0);
  EXPECT_GE(EncProbe::open_encoder(m_codec, &m_ost, nullptr), 0);
}

TEST_F(EncBaseTest, RefusalIsReturned) {
  prepare("mpeg4");
  m_ost.enc->pix_fmt = AV_PIX_FMT_RGB24;
  EXPECT_EQ(EncProbe::open_encoder(m_codec, &m_ost, nullptr), AVERROR(EINVAL));
}

TEST_F(EncBaseTest, OneCallGivesAtMostOnePacket) {
  prepare("mpeg4");
  ASSERT_GE(EncProbe::open_encoder(m_codec, &m_ost, nullptr), 0);
  const PacketPtr packet(av_packet_alloc());
  const FramePtr frame = meru_test::make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  frame->pts = 0;
  EncodeResult result = EncProbe::encode(m_ost.enc.get(), frame.get(), packet.get());
  EXPECT_EQ(result.error, 0);
  EXPECT_TRUE(result.got_packet);
  EXPECT_GT(packet->size, 0);
  av_packet_unref(packet.get());
  for (int call = 0; call < 2; ++call) {  // a drained encoder stays drained
    result = EncProbe::encode(m_ost.enc.get(), nullptr, packet.get());
    EXPECT_EQ(result.error, 0);
    EXPECT_FALSE(result.got_packet);
  }
}

}  // namespace

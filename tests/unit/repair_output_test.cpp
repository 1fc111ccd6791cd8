#include "MVRepair/restore/repair_output.h"

#include <gtest/gtest.h>

#include "common/ffmpeg_compat.h"
#include "support/hex.h"
#include "support/temp_dir.h"

namespace {

using meru_test::hex;

class RepairOutput : public testing::Test {
 protected:
  void SetUp() override {
    header.video_codec = "h264";
    header.pix_fmt = "yuv422p";
    header.width = 64;
    header.height = 48;
    header.video_tb_num = 1;
    header.video_tb_den = 15360;
    header.video_extradata = "AWQADP/hAAVnZAAMrAEAA2jvPA==";
    header.audio_codec = "aac";
    header.sample_fmt = "flt";
    header.sample_rate = 44100;
    header.channels = 1;
    header.frame_size = 960;
    header.audio_tb_num = 1;
    header.audio_tb_den = 44100;
    header.audio_extradata = "EZA=";
  }
  int open() { return open_repair_output(dir.file("a.mp4").c_str(), dir.file("b"), dir.file("c"), header, &out); }

  meru_test::TempDir dir;
  MVHeader header;
  OutputPtr out;
};

TEST_F(RepairOutput, PicturesComeBeforeSoundWithTheIndexsParameters) {
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(out->nb_streams, 2U);
  const AVCodecParameters* video = out->streams[0]->codecpar;
  EXPECT_EQ(video->codec_type, AVMEDIA_TYPE_VIDEO);
  EXPECT_EQ(video->codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(video->width, 64);
  EXPECT_EQ(video->height, 48);
  EXPECT_EQ(video->format, AV_PIX_FMT_YUV422P);
  EXPECT_EQ(video->bit_rate, 800000);
  EXPECT_EQ(hex(std::string(reinterpret_cast<const char*>(video->extradata), 4)), "0164000c");
  const AVCodecParameters* audio = out->streams[1]->codecpar;
  EXPECT_EQ(audio->codec_type, AVMEDIA_TYPE_AUDIO);
  EXPECT_EQ(audio->codec_id, AV_CODEC_ID_AAC);
  EXPECT_EQ(meru_compat::channels_of(audio), 1);
  EXPECT_EQ(audio->sample_rate, 44100);
  EXPECT_EQ(audio->format, AV_SAMPLE_FMT_FLT);
  EXPECT_EQ(audio->bit_rate, 64000);
  EXPECT_EQ(audio->frame_size, 960);
  ASSERT_EQ(audio->extradata_size, 2);
  EXPECT_EQ(hex(std::string(reinterpret_cast<const char*>(audio->extradata), 2 + 64)), "1190" + std::string(128, '0'));
}

TEST_F(RepairOutput, FormatsThatAreNotKnownAreTheUsualOnes) {
  header.pix_fmt = "nosuch";
  header.sample_fmt = "";
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(out->streams[0]->codecpar->format, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(out->streams[1]->codecpar->format, AV_SAMPLE_FMT_FLTP);
}

TEST_F(RepairOutput, KindWithoutExtradataTextIsLeftOut) {
  header.audio_extradata.reset();
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(out->nb_streams, 1U);
  EXPECT_EQ(out->streams[0]->codecpar->codec_type, AVMEDIA_TYPE_VIDEO);
  header.audio_extradata = "EZA=";
  header.video_extradata.reset();
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(out->nb_streams, 1U);
  EXPECT_EQ(out->streams[0]->codecpar->codec_type, AVMEDIA_TYPE_AUDIO);
}

TEST_F(RepairOutput, AacWithoutParametersGetsThem) {
  for (const char* text : {"", "not Base64!"}) {
    header.audio_extradata = text;
    ASSERT_EQ(open(), 0);
    const AVCodecParameters* audio = out->streams[1]->codecpar;
    ASSERT_EQ(audio->extradata_size, 2);
    EXPECT_EQ(hex(std::string(reinterpret_cast<const char*>(audio->extradata), 2)), "1208");
  }
  header.audio_codec = "mp3";
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(out->streams[1]->codecpar->extradata_size, 0);
}

TEST_F(RepairOutput, NumbersThatNoStreamCanHaveAreRefused) {
  int MVHeader::*const numbers[] = {&MVHeader::video_tb_num, &MVHeader::video_tb_den, &MVHeader::audio_tb_num,
                                    &MVHeader::audio_tb_den, &MVHeader::sample_rate};
  for (const auto number : numbers) {
    for (const int bad : {0, -1}) {
      MVHeader changed = header;
      changed.*number = bad;
      EXPECT_EQ(open_repair_output(dir.file("a.mp4").c_str(), dir.file("b"), dir.file("c"), changed, &out),
                AVERROR_INVALIDDATA);
    }
  }
  header.channels = -1;
  EXPECT_EQ(open(), AVERROR_INVALIDDATA);
  header.channels = 2;
  header.frame_size = -1;
  EXPECT_EQ(open(), AVERROR_INVALIDDATA);
}

TEST_F(RepairOutput, ExtremeNumbersDoNoHarm) {
  int MVHeader::*const numbers[] = {&MVHeader::width,        &MVHeader::height,       &MVHeader::video_tb_num,
                                    &MVHeader::video_tb_den, &MVHeader::audio_tb_num, &MVHeader::audio_tb_den,
                                    &MVHeader::sample_rate,  &MVHeader::channels,     &MVHeader::frame_size};
  for (const char* name : {"a.mp4", "a.mov", "a.mkv", "a.flv", "a.ts", "a.avi"}) {
    for (const auto number : numbers) {
      MVHeader changed = header;
      changed.*number = 2147483647;
      const int ret = open_repair_output(dir.file(name).c_str(), dir.file("b"), dir.file("c"), changed, &out);
      if (ret >= 0) {
        EXPECT_GE(av_write_trailer(out.get()), 0) << name;
      }
    }
  }
}

}  // namespace

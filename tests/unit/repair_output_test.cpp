#include "MVRepair/restore/repair_output.h"

#include <gtest/gtest.h>

#include "common/ffmpeg_compat.h"
#include "support/temp_dir.h"

namespace {

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char digits[3];
    snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

struct ConfigCase {
  int rate, channels;
  const char* config;
};

class AacConfig : public testing::TestWithParam<ConfigCase> {};

TEST_P(AacConfig, NamesRateAndChannels) {
  EXPECT_EQ(hex(aac_config(GetParam().rate, GetParam().channels)), GetParam().config);
}

INSTANTIATE_TEST_SUITE_P(Known, AacConfig,
                         testing::Values(ConfigCase{48000, 2, "1190"}, ConfigCase{44100, 2, "1210"},
                                         ConfigCase{48000, 1, "1188"}, ConfigCase{44100, 1, "1208"},
                                         ConfigCase{96000, 1, "1008"}, ConfigCase{7350, 1, "1608"},
                                         ConfigCase{16000, 6, "1430"}, ConfigCase{48000, 8, "11b8"}));
INSTANTIATE_TEST_SUITE_P(RateInFull, AacConfig, testing::Values(ConfigCase{48001, 2, "17805dc090"}));
INSTANTIATE_TEST_SUITE_P(Inexpressible, AacConfig,
                         testing::Values(ConfigCase{48000, 0, ""}, ConfigCase{48000, 7, ""}, ConfigCase{48000, -1, ""},
                                         ConfigCase{48000, 9, ""}));

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

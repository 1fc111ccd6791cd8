#include <gtest/gtest.h>

#include <string>

#include "base/MR_AVWriter.h"
#include "support/log_capture.h"
#include "support/packets.h"
#include "support/temp_dir.h"

namespace {

using meru_test::LogCapture;
using meru_test::Streams;
using meru_test::TempDir;
using meru_test::TestOutput;
using MR::MR_AVWriter;

/// What clone_fmt_ctx does with an address: whether a context came out, and standard error.
struct Cloned {
  bool made = false;
  std::string printed;
};

Cloned clone(const TestOutput& src, const std::string& url) {
  av_log_set_level(AV_LOG_QUIET);
  const LogCapture log;  // only what is printed directly is looked at
  MR_AVWriter writer(10, 5, url.c_str());
  testing::internal::CaptureStderr();
  AVFormatContext* ctx = writer.clone_fmt_ctx(src.get(), url.c_str());
  Cloned result{ctx != nullptr, testing::internal::GetCapturedStderr()};
  if (ctx != nullptr) {
    avio_closep(&ctx->pb);
    avformat_free_context(ctx);
  }
  return result;
}

TEST(CloneContext, CopiesTheStreams) {
  const TempDir dir;
  const std::string url = dir.file("b.avi");
  TestOutput src("matroska", "", Streams::kVideoAndAudio);
  AVCodecParameters* par = src.get()->streams[0]->codecpar;
  par->codec_tag = 1234;
  par->extradata = static_cast<uint8_t*>(av_mallocz(4 + AV_INPUT_BUFFER_PADDING_SIZE));
  par->extradata_size = 4;
  src.get()->streams[0]->time_base = {1, 1000};  // as a muxer would have replaced it
  MR_AVWriter writer(10, 5, url.c_str());
  AVFormatContext* ctx = writer.clone_fmt_ctx(src.get(), url.c_str());
  ASSERT_NE(ctx, nullptr);
  EXPECT_STREQ(ctx->oformat->name, "avi");
  ASSERT_NE(ctx->pb, nullptr);
  ASSERT_EQ(ctx->nb_streams, 2U);
  const AVStream* video = ctx->streams[0];
  EXPECT_EQ(video->codecpar->codec_id, AV_CODEC_ID_FFV1);
  EXPECT_EQ(video->codecpar->width, 64);
  EXPECT_EQ(video->codecpar->extradata_size, 4);
  EXPECT_EQ(video->codecpar->codec_tag, 0U);
  EXPECT_EQ(av_cmp_q(video->time_base, AVRational{1, 25}), 0) << "the encoder's";
  const AVStream* audio = ctx->streams[1];
  EXPECT_EQ(audio->codecpar->codec_id, AV_CODEC_ID_PCM_S16LE);
  EXPECT_EQ(audio->codecpar->sample_rate, 48000);
  EXPECT_EQ(av_cmp_q(audio->time_base, AVRational{1, 48000}), 0);
  avio_closep(&ctx->pb);
  avformat_free_context(ctx);
}

TEST(CloneContext, TakesTheDefaultCodecsOfTheSource) {
  const TempDir dir;
  const std::string url = dir.file("b.avi");
  const TestOutput src("nut", "");
  MR_AVWriter writer(10, 5, url.c_str());
  AVFormatContext* ctx = writer.clone_fmt_ctx(src.get(), url.c_str());
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->oformat->video_codec, src.get()->oformat->video_codec);
  EXPECT_EQ(ctx->oformat->audio_codec, src.get()->oformat->audio_codec);
  avio_closep(&ctx->pb);
  avformat_free_context(ctx);
}

TEST(CloneContext, OfTheMainWriterIsTheContextItself) {
  const TestOutput src("matroska", "");
  MR_AVWriter writer(10, 5, nullptr);
  EXPECT_EQ(writer.prepare_fmt_ctx(src.get()), src.get());
}

TEST(CloneContextFailure, WithoutAFormat) {
  const TempDir dir;
  const TestOutput src("matroska", "");
  const Cloned result = clone(src, dir.file("b.unknown"));
  EXPECT_FALSE(result.made);
  EXPECT_EQ(result.printed, "Could not create output context...\nError ###: Invalid argument\n");
}

TEST(CloneContextFailure, WhenTheFileCannotBeOpened) {
  const TempDir dir;
  const TestOutput src("matroska", "");
  const Cloned result = clone(src, dir.file("missing/b.avi"));
  EXPECT_FALSE(result.made);
  EXPECT_EQ(result.printed, "io open failed ...\nError ###: No such file or directory\n");
}

TEST(CloneContextFailure, WhenTheServerRefuses) {
  const TestOutput src("matroska", "");
  const Cloned result = clone(src, "rtmp://127.0.0.1:1/app/key");
  EXPECT_FALSE(result.made);
  EXPECT_EQ(result.printed, "io open failed ...\nError ###: Connection refused\n");
}

TEST(CloneContextFailure, WhenAStreamCannotBeMade) {
  const TempDir dir;
  TestOutput src("matroska", "");
  // One stream more than a fresh context allows.
  const int most = src.get()->max_streams;
  src.get()->max_streams = most + 1;
  while (src.get()->nb_streams <= static_cast<unsigned>(most)) {
    ASSERT_NE(avformat_new_stream(src.get(), nullptr), nullptr);
  }
  const Cloned result = clone(src, dir.file("b.nut"));
  EXPECT_FALSE(result.made);
  EXPECT_EQ(result.printed, "failed create output stream...\nError ###: Operation not permitted\n");
}

TEST(CloneContextFailure, WhenTheParametersCannotBeCopied) {
  const TempDir dir;
  TestOutput src("matroska", "");
  constexpr int kExtradata = 1 << 20;
  AVCodecParameters* par = src.get()->streams[0]->codecpar;
  par->extradata = static_cast<uint8_t*>(av_mallocz(kExtradata + AV_INPUT_BUFFER_PADDING_SIZE));
  par->extradata_size = kExtradata;
  av_max_alloc(kExtradata / 2);
  const Cloned result = clone(src, dir.file("b.nut"));
  av_max_alloc(1 << 30);
  EXPECT_FALSE(result.made);
  EXPECT_EQ(result.printed, "failed to copy context...\nError ###: Cannot allocate memory\n");
}

TEST(CloneContext, PrintsNoSecretKey) {
  const TestOutput src("matroska", "");
  const std::string url = "rtmp://127.0.0.1:1/app/secret";
  MR_AVWriter writer(10, 5, url.c_str());
  testing::internal::CaptureStderr();
  EXPECT_EQ(writer.clone_fmt_ctx(src.get(), url.c_str()), nullptr);
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_NE(printed.find("rtmp://127.0.0.1:1/app/***"), std::string::npos) << printed;
  EXPECT_EQ(printed.find("secret"), std::string::npos) << printed;
}

}  // namespace

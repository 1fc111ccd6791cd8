#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "base/MR_AVWriter.h"
#include "base/movie_muxer.h"
#include "support/av_log_capture.h"
#include "support/case_name.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace {

using meru_test::FakeWriter;
using meru_test::LogCapture;
using meru_test::set_text;

struct FormatCase {
  const char* name;
  const char* url;
  const char* format;
};

class GuessedFormat : public testing::TestWithParam<FormatCase> {};

TEST_P(GuessedFormat, FollowsTheAddress) {
  const auto copy = guess_format(meru_test::small_movie(GetParam().url));
  EXPECT_STREQ(copy->get()->name, GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(Addresses, GuessedFormat,
                         testing::Values(FormatCase{"Rtmp", "rtmp://host/live/key", "flv"},
                                         FormatCase{"RtmpMp4", "rtmp://host/a.mp4", "flv"},
                                         FormatCase{"Rtsp", "rtsp://host/name", "rtsp"},
                                         FormatCase{"Mp4", "/tmp/a.mp4", "mp4"}, FormatCase{"Mov", "a.mov", "mov"},
                                         FormatCase{"Mkv", "a.mkv", "matroska"}, FormatCase{"Flv", "a.flv", "flv"},
                                         FormatCase{"NoExtension", "/tmp/movie", "mp4"},
                                         FormatCase{"UnknownExtension", "a.unheard-of", "mp4"},
                                         FormatCase{"SchemeInsideAPath", "/tmp/rtmp://x", "mp4"}),
                         meru_test::CaseName());

TEST(GuessFormatTest, GivesAPrivateCopy) {
  const AVOutputFormat* own = av_guess_format("mp4", nullptr, nullptr);
  const AVCodecID codec = own->video_codec;
  const auto copy = guess_format(meru_test::small_movie("a.mp4"));
  EXPECT_NE(copy->get(), own);
  copy->get()->video_codec = AV_CODEC_ID_NONE;
  EXPECT_EQ(own->video_codec, codec);
}

class MuxerStart : public testing::Test {
 protected:
  void use(BaseWriter* writer) {
    m_writer = nullptr;
    m_muxer = std::make_unique<MovieMuxer>(writer);
  }
  void start(bool async = false) { EXPECT_EQ(m_muxer->start(m_info, &told, this, async), 0); }
  static void told(int id, const char* text, void* user) {
    static_cast<MuxerStart*>(user)->m_told.emplace_back(id, text);
  }
  using Told = std::vector<std::pair<int, std::string>>;

  meru_test::TempDir m_dir;
  MovieInfo m_info = meru_test::small_movie(m_dir.file("a.mp4"));
  FakeWriter* m_writer = new FakeWriter;  // the muxer's
  std::unique_ptr<MovieMuxer> m_muxer = std::make_unique<MovieMuxer>(m_writer);
  Told m_told;
  LogCapture m_log;
};

TEST_F(MuxerStart, SuccessIsReportedAfterTheWriterHasStarted) {
  set_text(m_info.metadata, "title:x");
  m_info.other_urls[0] = "a";
  m_info.other_urls[1] = "b";
  m_info.other_urls[2] = "c";
  m_info.other_urls[3] = "d";
  size_t told_at_start = 99;
  m_writer->on_start = [&] { told_at_start = m_told.size(); };
  start();
  EXPECT_EQ(told_at_start, 0U);
  EXPECT_EQ(m_told, (Told{{0, "start OK"}}));
  EXPECT_EQ(m_writer->starts, 1);
  EXPECT_EQ(m_writer->metadata, "title:x");
  EXPECT_EQ(m_writer->urls, (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(m_log.lines().front().level, 2);
  EXPECT_EQ(m_log.lines().front().text, "\"\\n\\n\\n\"\n");
}

TEST_F(MuxerStart, NullCallbackIsAllowed) {
  m_muxer->start(m_info, nullptr, nullptr, false);
  EXPECT_NE(m_muxer->video_dst_frame(), nullptr);
  m_writer->header_result = -1;
  m_muxer->stop();
  m_muxer->start(m_info, nullptr, nullptr, false);
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
}

TEST_F(MuxerStart, OutputThatCannotBeOpenedIsCode11) {
  set_text(m_info.url, m_dir.file("missing/a.mp4"));
  start();
  EXPECT_EQ(m_told, (Told{{11, "Could not open url"}}));
  EXPECT_EQ(m_log.count(2, "Could not open '': No such file or directory"), 1);
  EXPECT_EQ(m_log.count(2, " ---- catch error --- : Could not open url"), 1);
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
  EXPECT_EQ(m_writer->starts, 0);
}

TEST_F(MuxerStart, HeaderThatCannotBeWrittenIsCode21) {
  m_writer->header_result = AVERROR(EINVAL);
  start();
  EXPECT_EQ(m_told, (Told{{21, "error occurred when write header"}}));
  EXPECT_EQ(m_log.count(2, "Error occurred when opening output file: Invalid argument"), 1);
  EXPECT_EQ(m_log.count(2, " ---- catch error --- : error occurred when write header"), 1);
  EXPECT_EQ(m_writer->starts, 0);
  EXPECT_EQ(m_muxer->stop(), 1);
  EXPECT_EQ(m_log.count(4, "--- free ctx OK."), 1);
}

TEST_F(MuxerStart, ExceptionOfTheWriterKeepsItsCodeAndText) {
  m_writer->on_header = [](AVFormatContext*) { throw MR::MRException("no room for the chain", 77); };
  start();
  EXPECT_EQ(m_told, (Told{{77, "no room for the chain"}}));
}

TEST_F(MuxerStart, Code20IsNeverReported) {
  m_writer->on_start = [] { throw MR::MRException("main writer already exited ...", 20); };
  start();
  EXPECT_TRUE(m_told.empty());
  EXPECT_EQ(m_log.count(2, " ---- catch error --- : main writer already exited ..."), 1);
  EXPECT_EQ(m_log.count(2, "== catch exception: already exited, ignore ..."), 1);
}

TEST_F(MuxerStart, EncoderThatRefusesIsNotReported) {
  m_info.width = 63;  // odd, which YUV420P cannot have
  start();
  EXPECT_TRUE(m_told.empty());
  EXPECT_EQ(m_log.count(2, " ---- catch error --- : Unknow\\n"), 1);
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
  EXPECT_EQ(m_muxer->stop(), 1);
}

TEST_F(MuxerStart, StoppedWhileItStartsItStaysSilentAndCleansUp) {
  m_writer->on_header = [this](AVFormatContext*) {
    EXPECT_EQ(m_muxer->stop(), 1);
    throw MR::MRException("error occurred when write header", 21);
  };
  start();
  EXPECT_TRUE(m_told.empty());
  EXPECT_EQ(m_log.count(4, "end begin... ======  maybe start rtmp thread blocking .."), 1);
  EXPECT_EQ(m_log.count(2, "=#= catch exception: already exited, ignore ..."), 1);
  EXPECT_EQ(m_log.count(4, "--- free ctx OK."), 1);
  EXPECT_EQ(m_writer->stops, 1);
}

TEST_F(MuxerStart, StoppedBeforeTheEndItNeverAcceptsFrames) {
  m_writer->on_header = [this](AVFormatContext*) { m_muxer->stop(); };
  start();
  EXPECT_TRUE(m_told.empty());
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
  EXPECT_EQ(m_writer->stops, 1);
}

TEST_F(MuxerStart, RoutineOfAStoppedRecordingEndsAtOnce) {
  const auto ctx = std::make_shared<StartCtx>();
  bool left = false;
  ctx->gate.close();
  ctx->cb = &told;
  ctx->user = this;
  ctx->gate.leave([&left] { left = true; });
  StartCtx::thread_running(ctx);  // there is no muxer that it could use
  EXPECT_EQ(m_log.count(2, "=^= running begin: already exited,  exit thread"), 1);
  EXPECT_TRUE(left);
  EXPECT_TRUE(m_told.empty());
}

TEST_F(MuxerStart, WithoutStreamsThePlainWriterRefusesTheHeader) {
  m_info.no_audio = m_info.no_video = true;
  use(new BaseWriter);
  start();
  EXPECT_EQ(m_told, (Told{{21, "error occurred when write header"}}));
}

TEST_F(MuxerStart, WithoutStreamsAWriterThatTakesThatIsStarted) {
  m_info.no_audio = m_info.no_video = true;
  unsigned streams = 99;
  m_writer->on_header = [&](AVFormatContext* oc) { streams = oc->nb_streams; };
  start();
  EXPECT_EQ(streams, 0U);
  EXPECT_EQ(m_told, (Told{{0, "start OK"}}));
  EXPECT_EQ(m_muxer->stop(), 1);
  EXPECT_EQ(m_log.count(4, "--- close video OK."), 0);
  EXPECT_EQ(m_log.count(4, "--- close audio OK."), 0);
}

TEST_F(MuxerStart, SideIndexIsOpenedAndAttached) {
  set_text(m_info.snapshot_path, m_dir.file("a.idx"));
  start();
  EXPECT_EQ(m_log.count(2, "启动快照 (success): " + m_dir.file("a.idx")), 1);
  EXPECT_TRUE(std::filesystem::exists(m_dir.file("a.idx")));
}

TEST_F(MuxerStart, EmptyPathMeansNoSideIndex) {
  start();
  for (const auto& line : m_log.lines()) EXPECT_EQ(line.text.find("启动快照"), std::string::npos);
}

TEST_F(MuxerStart, SideIndexThatCannotBeOpenedDoesNotStopTheRecording) {
  const std::string path = m_dir.file("missing/a.idx");
  set_text(m_info.snapshot_path, path);
  start();
  EXPECT_EQ(m_log.count(2, "启动快照失败: " + path), 1);
  EXPECT_EQ(m_told, (Told{{0, "start OK"}}));
  m_muxer->stop();
  m_muxer.reset();
  EXPECT_EQ(m_log.count(4, "delete moov OK"), 1);
}

TEST_F(MuxerStart, SideIndexOfAnOutputWithoutIoIsReported) {
  set_text(m_info.url, m_dir.file("image%03d.jpg"));
  m_info.color_range = AVCOL_RANGE_JPEG;  // the only one that this encoder takes
  set_text(m_info.snapshot_path, m_dir.file("a.idx"));
  start();
  EXPECT_EQ(m_log.count(2, "---> moov: pb==null, not support"), 1);
  EXPECT_EQ(m_log.count(2, "启动快照 (failed): " + m_dir.file("a.idx")), 1);
  EXPECT_EQ(m_told, (Told{{0, "start OK"}}));
}

class RtspStart : public MuxerStart {
 protected:
  RtspStart() { set_text(m_info.url, "rtsp://127.0.0.1:1/name"); }
};

TEST_F(RtspStart, UsesOpusH264AndTcp) {
  set_text(m_info.snapshot_path, m_dir.file("a.idx"));
  bool seen = false;
  m_writer->on_header = [&](AVFormatContext* oc) {
    seen = true;
    EXPECT_STREQ(oc->oformat->name, "rtsp");
    EXPECT_EQ(oc->oformat->audio_codec, AV_CODEC_ID_OPUS);
    EXPECT_EQ(oc->oformat->video_codec, AV_CODEC_ID_H264);
    ASSERT_EQ(oc->nb_streams, 2U);
    EXPECT_EQ(oc->streams[0]->codecpar->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(oc->streams[1]->codecpar->codec_id, AV_CODEC_ID_OPUS);
    EXPECT_EQ(oc->max_interleave_delta, 1000000);
    int64_t transports = 0;
    EXPECT_GE(av_opt_get_int(oc->priv_data, "rtsp_transport", 0, &transports), 0);
    EXPECT_EQ(transports, 2);  // one bit for each transport, the second is TCP
  };
  start();
  EXPECT_TRUE(seen);
  EXPECT_FALSE(std::filesystem::exists(m_dir.file("a.idx")));
  EXPECT_EQ(m_muxer->stop(), 1);
  EXPECT_EQ(m_log.count(4, "--- has rtmp ."), 1);
  EXPECT_EQ(m_log.count(4, "--- close io OK."), 0);
}

struct TimeoutCase {
  const char* name;
  int seconds;
  int64_t option;
};

class RtspTimeout : public RtspStart, public testing::WithParamInterface<TimeoutCase> {};

TEST_P(RtspTimeout, SetsTheOption) {
  m_info.timeout_sec = GetParam().seconds;
  int64_t option = -1;
  int64_t untouched = -2;
  m_writer->on_header = [&](AVFormatContext* oc) {
    const char* name = meru_compat::rtsp_timeout_option();
    EXPECT_GE(av_opt_get_int(oc->priv_data, name, 0, &option), 0);
    untouched = av_opt_find(oc->priv_data, name, nullptr, 0, 0)->default_val.i64;
  };
  start();
  EXPECT_EQ(option, GetParam().option < 0 ? untouched : GetParam().option);
}

INSTANTIATE_TEST_SUITE_P(Seconds, RtspTimeout,
                         testing::Values(TimeoutCase{"None", 0, -1}, TimeoutCase{"Negative", -3, -1},
                                         TimeoutCase{"Five", 5, 5000000}, TimeoutCase{"Wraps", 4296, 1032704}),
                         meru_test::CaseName());

TEST_F(MuxerStart, RtmpAddressThatCannotBeReachedKeepsItsKeySecret) {
  set_text(m_info.url, "rtmp://127.0.0.1:1/live/secret-key");
  meru_test::AvLogCapture av_log;
  start();
  EXPECT_EQ(m_told, (Told{{11, "Could not open url"}}));
  for (const auto& line : m_log.lines()) EXPECT_EQ(line.text.find("secret-key"), std::string::npos) << line.text;
  EXPECT_TRUE(av_log.has("rtmp://127.0.0.1:1/live/***"));
  EXPECT_TRUE(av_log.has("Video: h264"));
  EXPECT_TRUE(av_log.has("Audio: aac"));
}

}  // namespace

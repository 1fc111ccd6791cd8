#include "base/movie_muxer.h"

#include <gtest/gtest.h>

#include <string>

#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/process_counts.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using meru_test::FakeWriter;
using meru_test::LogCapture;
using meru_test::make_picture;
using meru_test::make_samples;

constexpr AVRational kUsec{1, 1000000};
constexpr AVRational kVideoTb{1, 25};

std::vector<std::string> messages(LogCapture& log, int level) {
  std::vector<std::string> texts;
  for (const auto& line : log.lines()) {
    if (line.level == level) texts.push_back(line.text.substr(1, line.text.size() - 3));
  }
  return texts;
}

class Filter : public FilterBase {
 public:
  explicit Filter(bool* deleted) : m_deleted(deleted) {}
  ~Filter() override { *m_deleted = true; }
  int on_audio_packet(AVPacket* /*packet*/) override { return ++seen; }
  AVFrame* on_video_frame(AVFrame* frame) override {
    ++seen;
    return frame;
  }
  int seen = 0;

 private:
  bool* m_deleted;
};

class MovieMuxerTest : public testing::Test {
 protected:
  void start() { m_muxer->start(m_info, nullptr, nullptr, false); }
  int write_picture(int64_t pts, const AVRational* tb = nullptr) {
    const FramePtr picture = make_picture(AV_PIX_FMT_YUV420P, 64, 48, static_cast<int>(pts));
    picture->pts = pts;
    return m_muxer->write_video_frame(picture.get(), tb);
  }
  int write_sound(int64_t pts, const AVRational* tb = nullptr) {
    const FramePtr samples = make_samples(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 48000, 1024);
    samples->pts = pts;
    return m_muxer->write_audio_frame(samples.get(), tb);
  }

  meru_test::TempDir m_dir;
  MovieInfo m_info = meru_test::small_movie(m_dir.file("a.mp4"));
  FakeWriter* m_writer = new FakeWriter;  // the muxer's
  std::unique_ptr<MovieMuxer> m_muxer = std::make_unique<MovieMuxer>(m_writer);
};

TEST_F(MovieMuxerTest, NothingIsTakenBeforeTheStart) {
  bool deleted = false;
  Filter filter(&deleted);
  EXPECT_EQ(write_picture(0), 0);
  EXPECT_EQ(write_sound(0), 0);
  EXPECT_EQ(m_muxer->write_video_frame(nullptr, nullptr), 0);
  EXPECT_FALSE(m_muxer->add_audio_filter(&filter));
  EXPECT_FALSE(m_muxer->add_video_filter(&filter));
  EXPECT_EQ(m_muxer->get_testing_vframe(kUsec), nullptr);
  EXPECT_EQ(m_muxer->get_testing_aframe(kUsec), nullptr);
  EXPECT_EQ(m_muxer->audio_dst_frame(), nullptr);
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
  EXPECT_EQ(m_muxer->last_usec_pts(), -1);
  EXPECT_EQ(m_writer->calls, 0);
}

TEST_F(MovieMuxerTest, NothingIsTakenWhileTheStartRuns) {
  int taken = -1;
  m_writer->on_header = [&](AVFormatContext*) { taken = write_picture(0); };
  start();
  EXPECT_EQ(taken, 0);
  EXPECT_EQ(m_writer->calls, 0);
  EXPECT_EQ(write_picture(0), 1);
}

TEST_F(MovieMuxerTest, VideoStampsMustRise) {
  start();
  LogCapture log;
  EXPECT_EQ(write_picture(3), 1);
  EXPECT_EQ(write_picture(3), 0);
  EXPECT_EQ(write_picture(2), 0);
  EXPECT_EQ(write_picture(4), 1);
  EXPECT_EQ(log.count(5, "@@@ V pts: 3  (frame->pts <= g_last_v_pts 3)"), 1);
  EXPECT_EQ(log.count(5, "@@@ V pts: 2  (frame->pts <= g_last_v_pts 3)"), 1);
  ASSERT_EQ(m_writer->packets.size(), 2U);
  EXPECT_EQ(m_writer->packets[1].pts, 4);
}

TEST_F(MovieMuxerTest, NegativeVideoStampIsDropped) {
  start();
  LogCapture log;
  EXPECT_EQ(write_picture(-1), 0);
  EXPECT_EQ(log.count(5, "@@@ V pts: -1  (frame->pts <= g_last_v_pts -1)"), 1);
}

TEST_F(MovieMuxerTest, StampsThatFallTogetherInTheEncodersTimeBaseAreOne) {
  start();
  EXPECT_EQ(write_picture(40000, &kUsec), 1);
  EXPECT_EQ(write_picture(50000, &kUsec), 0);
  EXPECT_EQ(write_picture(80000, &kUsec), 1);
  ASSERT_EQ(m_writer->packets.size(), 2U);
  EXPECT_EQ(m_writer->packets[0].pts, 1);
  EXPECT_EQ(m_writer->packets[1].pts, 2);
}

TEST_F(MovieMuxerTest, RescaledStampIsPutIntoTheFrame) {
  start();
  const FramePtr picture = make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  picture->pts = 200000;
  m_muxer->write_video_frame(picture.get(), &kUsec);
  EXPECT_EQ(picture->pts, 5);
}

TEST_F(MovieMuxerTest, EqualAudioStampIsEncoded) {
  start();
  EXPECT_EQ(write_sound(0), 0);  // the encoder keeps its first frame
  EXPECT_EQ(write_sound(1024), 1);
  EXPECT_EQ(write_sound(1024), 1);
  EXPECT_EQ(m_writer->packets.size(), 2U);
  EXPECT_TRUE(m_writer->packets[0].audio);
}

TEST_F(MovieMuxerTest, LastTimeIsThatOfTheSoundElseOfTheImages) {
  start();
  EXPECT_EQ(m_muxer->last_usec_pts(), -40000);
  write_picture(3);
  EXPECT_EQ(m_muxer->last_usec_pts(), 120000);
  write_sound(48000);
  EXPECT_EQ(m_muxer->last_usec_pts(), 1000000);
  write_sound(500000, &kUsec);
  EXPECT_EQ(m_muxer->last_usec_pts(), 500000);
}

TEST_F(MovieMuxerTest, VideoComesFirstAndPacketsKeepTheirKind) {
  int streams = 0;
  m_writer->on_header = [&](AVFormatContext* oc) {
    streams = static_cast<int>(oc->nb_streams);
    EXPECT_EQ(oc->streams[0]->codecpar->codec_type, AVMEDIA_TYPE_VIDEO);
    EXPECT_EQ(oc->streams[1]->codecpar->codec_type, AVMEDIA_TYPE_AUDIO);
  };
  start();
  ASSERT_EQ(streams, 2);
  write_picture(0);
  write_sound(0);
  write_sound(1024);
  ASSERT_EQ(m_writer->packets.size(), 2U);
  EXPECT_EQ(m_writer->packets[0].stream_index, 0);
  EXPECT_FALSE(m_writer->packets[0].audio);
  EXPECT_EQ(m_writer->packets[1].stream_index, 1);
  EXPECT_TRUE(m_writer->packets[1].audio);
}

TEST_F(MovieMuxerTest, NullFrameDrains) {
  start();
  write_sound(0);
  EXPECT_EQ(m_muxer->write_audio_frame(nullptr, nullptr), 2);
  write_picture(0);
  EXPECT_EQ(m_muxer->write_video_frame(nullptr, nullptr), 0);
}

TEST_F(MovieMuxerTest, FiltersSeeWhatIsRecorded) {
  bool audio_deleted = false;
  bool video_deleted = false;
  Filter audio(&audio_deleted);
  auto* video = new Filter(&video_deleted);
  start();
  EXPECT_TRUE(m_muxer->add_audio_filter(&audio));
  EXPECT_TRUE(m_muxer->add_video_filter(video));
  write_picture(0);
  write_sound(0);
  write_sound(1024);
  EXPECT_EQ(video->seen, 1);
  EXPECT_EQ(audio.seen, 1);
  m_muxer->stop();
  EXPECT_EQ(audio.seen, 3);  // the drained packets too
  m_muxer.reset();
  EXPECT_TRUE(video_deleted);
  EXPECT_FALSE(audio_deleted);
}

TEST_F(MovieMuxerTest, DisabledStreamHasNoFilterNoTestFramesAndNoInput) {
  m_info.no_audio = true;
  start();
  bool deleted = false;
  Filter filter(&deleted);
  EXPECT_FALSE(m_muxer->add_audio_filter(&filter));
  EXPECT_EQ(m_muxer->get_testing_aframe(kUsec), nullptr);
  EXPECT_EQ(m_muxer->audio_dst_frame(), nullptr);
  EXPECT_EQ(write_sound(0), 0);
  EXPECT_NE(m_muxer->get_testing_vframe(kUsec), nullptr);
  EXPECT_NE(m_muxer->video_dst_frame(), nullptr);
}

TEST_F(MovieMuxerTest, TestFramesAreStampedInTheAskedTimeBase) {
  start();
  m_muxer->get_testing_vframe(kUsec);
  EXPECT_EQ(m_muxer->get_testing_vframe(kUsec)->pts, 40000);
  EXPECT_EQ(m_muxer->get_testing_vframe(kVideoTb)->pts, 2);
  m_muxer->get_testing_aframe(kUsec);
  EXPECT_EQ(m_muxer->get_testing_aframe({1, 48000})->pts, 1024);
}

TEST_F(MovieMuxerTest, StopDrainsClosesAndTellsEachStep) {
  start();
  write_picture(0);
  write_sound(0);
  int packets_at_stop = 0;
  LogCapture log;
  EXPECT_EQ(m_muxer->stop(), 1);
  packets_at_stop = static_cast<int>(m_writer->packets.size());
  EXPECT_EQ(packets_at_stop, 3);
  EXPECT_EQ(m_writer->stops, 1);
  EXPECT_EQ(messages(log, 4),
            (std::vector<std::string>{"begin ...", "before write stop ...", "write stop ok", "--- close video OK.",
                                      "--- close audio OK.", "--- close io OK.", "--- free ctx OK.", "ok"}));
  EXPECT_EQ(messages(log, 2), (std::vector<std::string>{"NULL ------------> flush audio encoder",
                                                        "NULL ------------> flush video encoder"}));
}

TEST_F(MovieMuxerTest, StopOfANetworkRecordingLeavesTheNetwork) {
  m_info.other_urls[0] = "rtmp://127.0.0.1/live/key";
  start();
  EXPECT_EQ(m_writer->urls, (std::vector<std::string>{"rtmp://127.0.0.1/live/key"}));
  LogCapture log;
  m_muxer->stop();
  const auto texts = messages(log, 4);
  ASSERT_EQ(texts.size(), 9U);
  EXPECT_EQ(texts[5], "--- close io OK.");
  EXPECT_EQ(texts[6], "--- has rtmp .");
  EXPECT_EQ(texts[7], "--- free ctx OK.");
}

TEST_F(MovieMuxerTest, SecondStopDoesNothing) {
  start();
  m_muxer->stop();
  LogCapture log;
  EXPECT_EQ(m_muxer->stop(), 1);
  EXPECT_EQ(messages(log, 4), (std::vector<std::string>{"begin ..."}));
  EXPECT_EQ(m_writer->stops, 1);
}

TEST_F(MovieMuxerTest, DestroyedWithoutAStopItGivesItsOutputBack) {
  const auto before = meru_test::ProcessCounts::now();
  start();
  write_picture(0);
  m_muxer.reset();
  meru_test::expect_nothing_left_since(before);
}

TEST_F(MovieMuxerTest, StopWithoutStartDoesNothing) {
  LogCapture log;
  EXPECT_EQ(m_muxer->stop(), 1);
  EXPECT_EQ(messages(log, 4), (std::vector<std::string>{"begin ..."}));
  EXPECT_EQ(m_writer->stops, 0);
}

TEST_F(MovieMuxerTest, NothingIsTakenAfterTheStop) {
  start();
  m_muxer->stop();
  EXPECT_EQ(write_picture(0), 0);
  EXPECT_EQ(write_sound(0), 0);
  EXPECT_EQ(m_muxer->video_dst_frame(), nullptr);
  EXPECT_EQ(m_muxer->last_usec_pts(), -1);
}

TEST_F(MovieMuxerTest, DestructionTellsWhatExisted) {
  meru_test::set_text(m_info.snapshot_path, m_dir.file("a.idx"));
  start();
  m_muxer->stop();
  LogCapture log;
  m_muxer.reset();
  EXPECT_EQ(messages(log, 4), (std::vector<std::string>{"~movie muxer ...", "delete audio OK", "delete video OK",
                                                        "delete moov OK", "~movie muxer OK"}));
}

TEST_F(MovieMuxerTest, DestructionWithoutAStartTellsOnlyItsFrame) {
  LogCapture log;
  m_muxer.reset();
  EXPECT_EQ(messages(log, 4), (std::vector<std::string>{"~movie muxer ...", "~movie muxer OK"}));
}

TEST(MovieBaseTest, NullWriterIsReplacedByAPlainOne) {
  class Probe : public MovieBase {
   public:
    using MovieBase::m_writer;
    using MovieBase::MovieBase;
  };
  const Probe base(nullptr);
  ASSERT_NE(base.m_writer, nullptr);
  const BaseWriter& writer = *base.m_writer;
  EXPECT_EQ(typeid(writer), typeid(BaseWriter));
}

}  // namespace

#include "capture/movie_capture2.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "common/clock.h"
#include "support/eventually.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using meru_test::FakeWriter;

constexpr AVRational kUsec{1, 1000000};
constexpr int kLine = 64 * 4;
constexpr int64_t kFirst = 5000000;

class MovieCapture2Test : public testing::Test {
 protected:
  void start() { start(meru_test::small_movie(m_dir.file("a.mp4"))); }
  void start(const MovieInfo& info) { m_session->start(info, &told, this, false); }
  int push_image(int64_t pts) {
    return m_session->fill_video_frame(m_image.data(), static_cast<int>(m_image.size()), pts, kLine);
  }
  int push_sound(int64_t pts, int bytes = 4096) { return m_session->fill_audio_frame(m_pcm.data(), bytes, pts); }
  bool started() const {
    bool value = false;
    m_session->mInfo(&value);
    return value;
  }
  static void told(int id, const char* /*text*/, void* user) {
    auto* self = static_cast<MovieCapture2Test*>(user);
    self->m_told = id;
    self->m_started_when_told = self->started();
  }

  meru_test::TempDir m_dir;
  FakeWriter* m_writer = new FakeWriter;  // the session's
  std::unique_ptr<MovieCapture2> m_session = std::make_unique<MovieCapture2>(m_writer);
  std::vector<uint8_t> m_image = std::vector<uint8_t>(kLine * 48, 100);
  std::vector<uint8_t> m_pcm = std::vector<uint8_t>(400000, 1);
  int m_told = 99;
  bool m_started_when_told = false;
};

TEST_F(MovieCapture2Test, StartLogsTheClockAndIsConfirmed) {
  meru_test::LogCapture log;
  push_image(kFirst);
  start();
  EXPECT_EQ(log.count(5, "m_start_pts=5000000"), 1);
  EXPECT_EQ(log.count(2, "### statu cb [id=0]: start OK"), 1);
  EXPECT_EQ(m_told, 0);
  EXPECT_TRUE(m_started_when_told);
  EXPECT_TRUE(started());
}

TEST_F(MovieCapture2Test, WriterReportsThroughTheSameRelay) {
  meru_test::LogCapture log;
  start();
  m_writer->m_status_cb(-28, "No space left on device", m_writer->m_status_user);
  EXPECT_EQ(m_told, -28);
  EXPECT_EQ(log.count(2, "### statu cb [id=-28]: No space left on device"), 1);
}

TEST_F(MovieCapture2Test, NullCallbackIsAllowed) {
  m_session->start(meru_test::small_movie(m_dir.file("a.mp4")), nullptr, nullptr, false);
  EXPECT_TRUE(started());
}

TEST_F(MovieCapture2Test, FrameBeforeTheStartIsDroppedButFixesTimeZero) {
  meru_test::LogCapture log;
  EXPECT_EQ(push_image(kFirst), 0);
  EXPECT_EQ(log.count(4, "--start_ok == false"), 1);
  EXPECT_EQ(m_session->movieTime(), 0);
  start();
  EXPECT_EQ(push_image(kFirst + 40000), 1);
  EXPECT_EQ(m_session->movieTime(), 40000);
  ASSERT_EQ(m_writer->packets.size(), 1U);
  EXPECT_EQ(m_writer->packets[0].pts, 1);
}

TEST_F(MovieCapture2Test, EveryKindOfFrameIsDroppedBeforeTheStart) {
  meru_test::LogCapture log;
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_BGRA, 64, 48);
  const FramePtr samples = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 1024);
  picture->pts = samples->pts = 7;
  EXPECT_EQ(push_sound(kFirst), 0);
  EXPECT_EQ(m_session->fill_video_frame(picture.get(), kUsec), 0);
  EXPECT_EQ(m_session->fill_audio_frame(samples.get(), kUsec), 0);
  EXPECT_EQ(picture->pts, 7);
  EXPECT_EQ(log.count(4, "--start_ok == false"), 3);
}

TEST_F(MovieCapture2Test, PushedBufferIsLoggedWithItsSizeAndStamp) {
  start();
  meru_test::LogCapture log;
  push_image(kFirst);
  push_sound(kFirst + 1, 400);
  EXPECT_EQ(log.count(5, "nb=12288, pts=5000000"), 1);
  EXPECT_EQ(log.count(5, "nb=400, pts=5000001"), 1);
}

TEST_F(MovieCapture2Test, MovieTimeIsThatOfTheSoundUntilThereAreImages) {
  start();
  push_sound(kFirst);
  push_sound(kFirst + 700000);
  EXPECT_EQ(m_session->movieTime(), 700000);
  push_image(kFirst + 200000);
  EXPECT_EQ(m_session->movieTime(), 200000);
}

TEST_F(MovieCapture2Test, ReadyFramesAreRestampedOnTheRecordingClock) {
  start();
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_BGRA, 64, 48);
  picture->pts = 100;
  EXPECT_EQ(m_session->fill_video_frame(picture.get(), {1, 25}), 1);
  picture->pts = 103;
  EXPECT_EQ(m_session->fill_video_frame(picture.get(), {1, 25}), 1);
  EXPECT_EQ(picture->pts, 120000);
  EXPECT_EQ(m_session->movieTime(), 120000);
  ASSERT_EQ(m_writer->packets.size(), 2U);
  EXPECT_EQ(m_writer->packets[1].pts, 3);

  const FramePtr samples = meru_test::make_samples(AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000, 1024);
  samples->pts = 4 * 48000;
  EXPECT_EQ(m_session->fill_audio_frame(samples.get(), {1, 48000}), 1);
  EXPECT_EQ(samples->pts, 0);
}

TEST_F(MovieCapture2Test, SilenceIsAskedForFromTheLastSamplesOn) {
  start();
  push_sound(kFirst, 192000);  // a second
  push_sound(kFirst + 1000000);
  meru_test::LogCapture log;
  m_session->fill_audio_frame(nullptr, 0, kFirst + 3000000);
  EXPECT_EQ(log.count(5, "[fill silence] ----> pts=1.000000(sec), dur=2.000000(sec)"), 1);
  EXPECT_EQ(m_session->movieTime(), 3000000);
  // Silence that began anywhere else than at the last samples would make the stamps jump.
  for (const auto& line : log.lines()) EXPECT_GT(line.level, 2) << line.text;
  const auto packets = m_writer->of_kind(true);
  EXPECT_EQ(packets.size(), 140U);  // (48000 + 1024 + 96000) / 1024, less the whole frame that the encoder keeps
  EXPECT_EQ(packets.back().pts - packets.front().pts, 139 * 1024);
}

TEST_F(MovieCapture2Test, PauseNeedsAStart) {
  EXPECT_FALSE(m_session->pause());
  EXPECT_FALSE(m_session->is_paused());
  start();
  EXPECT_TRUE(m_session->pause());
  EXPECT_TRUE(m_session->is_paused());
}

TEST_F(MovieCapture2Test, ResumeWithoutPauseIsRefusedInSilence) {
  start();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(m_session->resume());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(MovieCapture2Test, FramesOfAPauseAreDroppedInSilence) {
  start();
  push_image(kFirst);
  m_session->pause();
  meru_test::LogCapture log;
  EXPECT_EQ(push_image(kFirst + 40000), 0);
  EXPECT_EQ(push_sound(kFirst + 40000), 0);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(m_session->movieTime(), 0);
}

TEST_F(MovieCapture2Test, StreamTimeGoesOnAfterAPauseWhereItStopped) {
  start();
  const int64_t begin = global_pts();
  push_image(begin);
  push_image(begin + 40000);
  ASSERT_TRUE(meru_test::eventually([&] { return global_pts() > begin + 60000; }));
  const int64_t at_pause = global_pts();
  ASSERT_TRUE(m_session->pause());
  ASSERT_TRUE(meru_test::eventually([&] { return global_pts() > at_pause + 200000; }));
  testing::internal::CaptureStderr();
  ASSERT_TRUE(m_session->resume());
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("*** pause_time=", 0), 0U);
  const int64_t after = global_pts();
  push_image(after);
  const int64_t recorded = m_session->movieTime();
  EXPECT_GE(recorded, at_pause - begin);
  EXPECT_LT(recorded, after - begin - 190000);
}

TEST_F(MovieCapture2Test, StopEndsAcceptance) {
  start();
  push_image(kFirst);
  EXPECT_TRUE(m_session->stop());
  EXPECT_FALSE(started());
  EXPECT_EQ(push_image(kFirst + 40000), 0);
}

TEST_F(MovieCapture2Test, ConverterIsMadeByTheFirstAcceptedFrameOnly) {
  meru_test::LogCapture log;
  push_image(kFirst);
  m_session.reset();
  EXPECT_EQ(log.count(4, "Begin ..."), 0);
  EXPECT_EQ(log.count(4, "before delete iocvt"), 1);
  EXPECT_EQ(log.count(4, "delete iocvt OK"), 1);
}

TEST_F(MovieCapture2Test, ConverterIsDestroyedBeforeTheMuxer) {
  start();
  push_image(kFirst);
  m_session->stop();
  std::vector<std::string> order;
  {
    meru_test::LogCapture log;
    m_session.reset();
    for (const auto& line : log.lines()) order.push_back(line.text);
  }
  const std::vector<std::string> expected{"\"before delete iocvt\"\n",
                                          "\"Begin ...\"\n",
                                          "\"delete evr ok!\"\n",
                                          "\"delete evs ok!\"\n",
                                          "\"free pcm\"\n",
                                          "\"free bgra\"\n",
                                          "\"OK\"\n",
                                          "\"delete iocvt OK\"\n",
                                          "\"~movie muxer ...\"\n",
                                          "\"delete audio OK\"\n",
                                          "\"delete video OK\"\n",
                                          "\"~movie muxer OK\"\n"};
  EXPECT_EQ(order, expected);
}

TEST_F(MovieCapture2Test, TextsOfTheRecordAreReadNoFurtherThanTheirFields) {
  MovieInfo info = meru_test::small_movie(m_dir.file("a.mp4"));
  std::fill(std::begin(info.metadata), std::end(info.metadata), 'x');
  start(info);
  EXPECT_EQ(m_writer->metadata, std::string(sizeof(info.metadata) - 1, 'x'));
}

TEST_F(MovieCapture2Test, SecondStartKeepsTimeZero) {
  start();
  push_image(kFirst);
  m_session->stop();
  start(meru_test::small_movie(m_dir.file("b.mp4")));
  EXPECT_EQ(m_session->movieTime(), 0);
  push_image(kFirst + 80000);
  EXPECT_EQ(m_session->movieTime(), 80000);
}

TEST_F(MovieCapture2Test, SoundAndImagesComeFromTwoThreads) {
  start();
  std::thread sound([this] {
    for (int i = 0; i < 50; ++i) push_sound(kFirst + i * 21333, 4096);
  });
  for (int i = 0; i < 25; ++i) push_image(kFirst + i * 40000);
  sound.join();
  m_session->stop();
  EXPECT_EQ(m_writer->of_kind(false).size(), 25U);
  EXPECT_EQ(m_writer->of_kind(true).size(), 51U);  // the encoder adds one for its delay
}

}  // namespace

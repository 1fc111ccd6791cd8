#include "capture/movie_convert.h"

#include <gtest/gtest.h>

#include <string>

#include "support/fake_writer.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using meru_test::FakeWriter;

struct Host {
  MovieConvert* session = nullptr;
  int calls = 0;
  int id = 99;
  std::string text;
  bool started_in_callback = true;

  static void told(int id, const char* text, void* user) {
    auto* host = static_cast<Host*>(user);
    ++host->calls;
    host->id = id;
    host->text = text;
    host->session->mInfo(&host->started_in_callback);
  }
};

class MovieConvertTest : public testing::Test {
 protected:
  MovieConvertTest() { m_host.session = &m_session; }
  bool started() const {
    bool value = false;
    m_session.mInfo(&value);
    return value;
  }
  void start() { m_session.start(meru_test::small_movie(m_dir.file("a.mp4")), &Host::told, &m_host, false); }

  meru_test::TempDir m_dir;
  FakeWriter* m_writer = new FakeWriter;  // the session's
  MovieConvert m_session{m_writer};
  Host m_host;
};

TEST_F(MovieConvertTest, HostIsToldBeforeTheSessionCountsAsStarted) {
  start();
  EXPECT_EQ(m_host.calls, 1);
  EXPECT_EQ(m_host.id, 0);
  EXPECT_EQ(m_host.text, "start OK");
  EXPECT_FALSE(m_host.started_in_callback);
  EXPECT_TRUE(started());
}

TEST_F(MovieConvertTest, ErrorOfTheWriterIsPrintedAndHandedOn) {
  start();
  testing::internal::CaptureStderr();
  m_writer->m_status_cb(-32, "Broken pipe", m_writer->m_status_user);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "=== Writer error: type=-32, describ=Broken pipe\n");
  EXPECT_EQ(m_host.id, -32);
  EXPECT_EQ(m_host.text, "Broken pipe");
  EXPECT_TRUE(started());
}

TEST_F(MovieConvertTest, WriterReachesTheSessionFromItsConstructionOn) {
  testing::internal::CaptureStderr();
  m_writer->m_status_cb(0, "ready", m_writer->m_status_user);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "=== Writer error: type=0, describ=ready\n");
  EXPECT_TRUE(started());
  EXPECT_EQ(m_host.calls, 0);
}

TEST_F(MovieConvertTest, FailedStartLeavesItNotStarted) {
  m_writer->header_result = -1;
  start();
  EXPECT_EQ(m_host.id, 21);
  EXPECT_FALSE(started());
}

TEST_F(MovieConvertTest, FramesGoStraightToTheEncoder) {
  start();
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_YUV420P, 64, 48);
  picture->pts = 80000;
  const AVRational usec{1, 1000000};
  EXPECT_EQ(m_session.write_video_frame(picture.get(), &usec), 1);
  ASSERT_EQ(m_writer->packets.size(), 1U);
  EXPECT_EQ(m_writer->packets[0].pts, 2);  // no clock: the stamp is only brought to the encoder's time base
}

TEST_F(MovieConvertTest, StopEndsItAndItsRecordStays) {
  start();
  EXPECT_TRUE(m_session.stop());
  EXPECT_FALSE(started());
  EXPECT_EQ(m_writer->stops, 1);
  EXPECT_EQ(m_session.mInfo(nullptr).width, 64);
}

}  // namespace

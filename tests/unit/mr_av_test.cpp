#include <gtest/gtest.h>

#include "meru/recording.h"
#include "support/log_capture.h"
#include "support/media_frames.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

constexpr AVRational kUsec{1, 1000000};

TEST(RecordingApiTest, ReadyFramesAreForwardedWithoutAskingForADisabledStream) {
  meru_test::LogCapture log;
  const meru_test::TempDir dir;
  MovieInfo info = meru_test::small_movie(dir.file("a.mp4"));
  info.no_video = true;
  void* session = MERU_start(info, nullptr, nullptr, nullptr, false);
  const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_BGRA, info.width_src, info.height_src, 0);
  picture->pts = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(MERU_write_video_frame(session, picture.get(), kUsec), 0);
  picture->pts = 40000;
  EXPECT_EQ(MERU_write_video_frame(session, picture.get(), kUsec), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr().find("--- disable video"), std::string::npos);
  EXPECT_EQ(MERU_movie_time(session), 40000);
  EXPECT_GT(log.count(2, "=== No video dst_frame .."), 0);
  MERU_stop(&session);
}

}  // namespace

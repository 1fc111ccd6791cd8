// The plain names, as C hosts and loaders use them, harmless without a session. Declared here by hand: the headers give
// C++ programs the other linkage.

#include <gtest/gtest.h>

struct AVFrame;
struct AVRational;

extern "C" {
void MERU_stop(void** session);
bool MERU_pause(void* session);
bool MERU_resume(void* session);
bool MERU_is_paused(void* session);
long long MERU_movie_time(void* session);
int MERU_write_video_bgra(void* session, void* bgra, int nbytes, long long pts_usec, int linesize);
int MERU_write_audio_pcm(void* session, void* pcm, int nbytes, long long pts_usec);
int MERU_write_video_frame(void* session, AVFrame* frame, const AVRational* tb);
int MERU_write_audio_frame(void* session, AVFrame* frame, const AVRational* tb);
bool MERU_add_audio_filter(void* session, void* filter);
bool MERU_add_video_filter(void* session, void* filter);
AVFrame* MERU_audio_dst_frame(void* session);
AVFrame* MERU_video_dst_frame(void* session);
bool MERU_get_mInfo(void* session, void* out);
long long MERU_current_sys_usec();
long long MERU_last_usec_pts(void* session);
AVFrame* MERU_generate_testing_vFrame(void* session, const AVRational* tb);
AVFrame* MERU_generate_testing_aFrame(void* session, const AVRational* tb);
void MERU_StopRepair(void** handle);
bool MERU_Repair_IsRunning(void* handle);
}

namespace {

TEST(PlainNamesTest, NullSessionsAndTimeBasesAreHarmless) {
  void* none = nullptr;
  MERU_stop(nullptr);
  MERU_stop(&none);
  EXPECT_FALSE(MERU_pause(nullptr));
  EXPECT_FALSE(MERU_resume(nullptr));
  EXPECT_FALSE(MERU_is_paused(nullptr));
  EXPECT_EQ(MERU_movie_time(nullptr), 0);
  EXPECT_EQ(MERU_write_video_bgra(nullptr, nullptr, 0, 0, 0), 0);
  EXPECT_EQ(MERU_write_audio_pcm(nullptr, nullptr, 0, 0), 0);
  EXPECT_EQ(MERU_write_video_frame(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(MERU_write_audio_frame(nullptr, nullptr, nullptr), 0);
  EXPECT_FALSE(MERU_add_audio_filter(nullptr, nullptr));
  EXPECT_FALSE(MERU_add_video_filter(nullptr, nullptr));
  EXPECT_EQ(MERU_audio_dst_frame(nullptr), nullptr);
  EXPECT_EQ(MERU_video_dst_frame(nullptr), nullptr);
  EXPECT_FALSE(MERU_get_mInfo(nullptr, nullptr));
  EXPECT_EQ(MERU_last_usec_pts(nullptr), 0);
  EXPECT_EQ(MERU_generate_testing_vFrame(nullptr, nullptr), nullptr);
  EXPECT_EQ(MERU_generate_testing_aFrame(nullptr, nullptr), nullptr);
  MERU_StopRepair(nullptr);
  MERU_StopRepair(&none);
  EXPECT_FALSE(MERU_Repair_IsRunning(nullptr));
}

TEST(PlainNamesTest, ClockRunsOn) {
  const long long before = MERU_current_sys_usec();
  EXPECT_GT(before, 0);
  EXPECT_GE(MERU_current_sys_usec(), before);
}

}  // namespace

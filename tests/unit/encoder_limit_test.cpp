// How many frames an encoder holds, with the bound and without.
#include "base/encoder_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "support/held_frames.h"
#include "support/stream_setup.h"

namespace meru_test {
namespace {

constexpr int64_t kLimitUsec = 300000;

struct FramesCase {
  int64_t limit_usec;
  AVRational rate;
  int frames;
};

class FramesWithin : public testing::TestWithParam<FramesCase> {};

TEST_P(FramesWithin, LeavesOneOnItsWay) {
  EXPECT_EQ(frames_within(GetParam().limit_usec, GetParam().rate), GetParam().frames);
}

INSTANTIATE_TEST_SUITE_P(Rates, FramesWithin,
                         testing::Values(FramesCase{300000, {1, 1}, 0}, FramesCase{300000, {5, 1}, 0},
                                         FramesCase{300000, {7, 1}, 1}, FramesCase{300000, {10, 1}, 2},
                                         FramesCase{300000, {30000, 1001}, 7}, FramesCase{300000, {60, 1}, 17},
                                         FramesCase{1, {60, 1}, 0}, FramesCase{INT64_MAX, {60, 1}, INT16_MAX},
                                         FramesCase{300000, {0, 1}, 0}, FramesCase{300000, {-5, 0}, 0}));

MovieInfo small_record(int fps, Quality_Level preset, Tune_Level tune) {
  MovieInfo info = usual_record();
  std::strcpy(info.snapshot_path, "movie.index");
  info.width = 320;
  info.height = 240;
  info.v_bitrate = 0;
  info.fps = fps;
  info.preset = preset;
  info.profile = PROFILE_NONE;
  info.tune = tune;
  return info;
}

class HeldFrames : public testing::TestWithParam<int> {
 protected:
  Quality_Level preset() const { return static_cast<Quality_Level>(GetParam()); }
};

TEST_P(HeldFrames, AreBoundedAtEveryRate) {
  for (const int fps : {5, 7, 10, 15, 25, 30, 60}) {
    for (const Tune_Level tune : {TUNE_NONE, TUNE_ZEROLATENCY}) {
      for (const Rate_Control control : {RATE_CONTROL_ABR, RATE_CONTROL_CBR}) {
        MovieInfo info = small_record(fps, preset(), tune);
        info.rate_control = control;
        info.v_bitrate = control == RATE_CONTROL_CBR ? 500 : 0;
        EXPECT_LE(held_frames(info, kLimitUsec), frames_within(kLimitUsec, {fps, 1})) << fps << " fps, tune " << tune;
      }
    }
  }
}

TEST_P(HeldFrames, AreTheEncodersOwnWithoutABoundOrAnIndex) {
  const MovieInfo info = small_record(30, preset(), TUNE_NONE);
  MovieInfo without_index = info;
  without_index.snapshot_path[0] = '\0';
  const int own = held_frames(info, 0);
  EXPECT_GT(own, 0);
  EXPECT_EQ(held_frames(without_index, kLimitUsec), own);
  EXPECT_LE(held_frames(info, kLimitUsec), own);
}

INSTANTIATE_TEST_SUITE_P(Presets, HeldFrames, testing::Range(0, static_cast<int>(QUALITY_NONE) + 1));

// The look-ahead is what the bits are saved with: as much of it as fits is kept.
TEST(HeldFramesLimit, KeepsTheLookaheadThatFits) {
  const auto lookahead = [](int fps, Quality_Level preset, Tune_Level tune) {
    StreamSetup setup;
    setup.muxer()->limit_encoder_delay(kLimitUsec);
    MovieInfo info = small_record(fps, preset, tune);
    setup.add(AV_CODEC_ID_H264, &info);
    return setup.option("rc-lookahead");
  };
  EXPECT_EQ(lookahead(5, QUALITY_VERYFAST, TUNE_NONE), "0");
  EXPECT_EQ(lookahead(7, QUALITY_VERYFAST, TUNE_NONE), "1");
  EXPECT_EQ(lookahead(30, QUALITY_VERYFAST, TUNE_NONE), "7");
  EXPECT_EQ(lookahead(60, QUALITY_VERYFAST, TUNE_NONE), "10");
  EXPECT_EQ(lookahead(60, QUALITY_MEDIUM, TUNE_NONE), "16");
  EXPECT_EQ(lookahead(60, QUALITY_ULTRAFAST, TUNE_NONE), "0");
  EXPECT_EQ(lookahead(60, QUALITY_MEDIUM, TUNE_ZEROLATENCY), "0");
}

TEST(HeldFramesLimit, BoundsTheBFramesOfOtherEncoders) {
  for (const int fps : {5, 7, 30}) {
    StreamSetup setup;
    setup.muxer()->limit_encoder_delay(kLimitUsec);
    MovieInfo info = small_record(fps, QUALITY_NONE, TUNE_NONE);
    setup.add(AV_CODEC_ID_MPEG2VIDEO, &info);
    EXPECT_EQ(setup.enc()->max_b_frames, std::min(2, frames_within(kLimitUsec, setup.enc()->framerate))) << fps;
  }
}

}  // namespace
}  // namespace meru_test

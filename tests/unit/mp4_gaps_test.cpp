#include "output/mp4_gaps.h"

#include <gtest/gtest.h>

#include <climits>

#include "base/MR_AVWriter.h"
#include "capture/movie_capture2.h"
#include "support/case_name.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

struct GapCase {
  const char* name;
  const char* file;
  int64_t gap_sec;
  const char* metadata;
};

class LongGap : public testing::TestWithParam<GapCase> {};

/// The key frames complete fragments while the next packet of audio, long after the last one, waits.
TEST_P(LongGap, DoesNotEndTheProcess) {
  const meru_test::TempDir dir;
  MovieInfo info = meru_test::small_movie(dir.file(GetParam().file));
  meru_test::set_text(info.metadata, GetParam().metadata);
  MovieCapture2 session(new MR::MR_AVWriter(60, 1000, nullptr));
  session.start(info, nullptr, nullptr, false);
  std::vector<uint8_t> image(64 * 48 * 4, 50), pcm(48000 * 4);
  const auto push_image = [&](int64_t pts) {
    return session.fill_video_frame(image.data(), static_cast<int>(image.size()), pts, 64 * 4);
  };
  const auto push_audio = [&](int64_t sec) {
    session.fill_audio_frame(pcm.data(), static_cast<int>(pcm.size()), sec * 1000000);
  };
  for (int i = 0; i < 25; ++i) push_image(i * 40000);
  push_audio(0);
  for (int i = 0; i < 3; ++i) push_audio(GetParam().gap_sec + i);
  for (int i = 25; i < 100; ++i) push_image(i * 40000);
  session.stop();
  EXPECT_TRUE(session.books().video_frames.balances());
  EXPECT_EQ(session.books().video_frames.passed(), 100);
}

INSTANTIATE_TEST_SUITE_P(
    Containers, LongGap,
    testing::Values(GapCase{"IsmvOfMinutes", "a.ismv", 300, ""}, GapCase{"Mp4OfDays", "a.mp4", 3600 * 24 * 365, ""},
                    GapCase{"FragmentedMp4OfDays", "a.mp4", 3600 * 24 * 365, "movflags:frag_keyframe"},
                    GapCase{"MovOfDays", "a.mov", 3600 * 24 * 365, "movflags:frag_keyframe+empty_moov"}),
    meru_test::CaseName());

TEST(Mp4GapsTest, PacketsAfterALongGapFollowTheOneBefore) {
  const FormatContextPtr ctx([] {
    AVFormatContext* made = nullptr;
    avformat_alloc_output_context2(&made, nullptr, "mp4", nullptr);
    avformat_new_stream(made, nullptr);
    return made;
  }());
  MR::Mp4Gaps gaps(ctx.get(), 0);
  AVPacket pkt{};
  const auto bound = [&](int64_t dts, int64_t pts) {
    pkt.dts = dts;
    pkt.pts = pts;
    return gaps.bound(&pkt);
  };
  EXPECT_FALSE(bound(-10, 5));
  EXPECT_FALSE(bound(INT_MAX - 11, INT_MAX - 11));
  EXPECT_TRUE(bound(int64_t{INT_MAX} * 3, int64_t{INT_MAX} * 3 + 7));
  EXPECT_EQ(pkt.dts, INT_MAX - 10);
  EXPECT_EQ(pkt.pts, INT_MAX - 10 + 7);
  EXPECT_TRUE(bound(INT64_MAX, INT64_MAX));
  EXPECT_EQ(pkt.dts, INT_MAX - 9);
  EXPECT_FALSE(bound(int64_t{INT_MAX} + 9, int64_t{INT_MAX} + 9));
}

TEST(Mp4GapsTest, OtherContainersHoldAnyGap) {
  const FormatContextPtr ctx([] {
    AVFormatContext* made = nullptr;
    avformat_alloc_output_context2(&made, nullptr, "matroska", nullptr);
    avformat_new_stream(made, nullptr);
    return made;
  }());
  MR::Mp4Gaps gaps(ctx.get(), 0);
  AVPacket pkt{};
  gaps.bound(&pkt);
  pkt.dts = pkt.pts = INT64_MAX;
  EXPECT_FALSE(gaps.bound(&pkt));
  EXPECT_EQ(pkt.dts, INT64_MAX);
}

}  // namespace

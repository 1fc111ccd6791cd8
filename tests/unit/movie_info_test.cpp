#include "meru/movie_info.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>
#include <vector>

#include "base/MR_AVWriter.h"
#include "support/case_name.h"

namespace {

struct FieldCase {
  const char* name;
  size_t offset, size;
  size_t expected_offset, expected_size;
};

#define FIELD(name, offset, size) \
  FieldCase { #name, offsetof(MovieInfo, name), sizeof(MovieInfo::name), offset, size }

class MovieInfoField : public testing::TestWithParam<FieldCase> {};

TEST_P(MovieInfoField, LiesWhereHostsExpectIt) {
  EXPECT_EQ(GetParam().offset, GetParam().expected_offset);
  EXPECT_EQ(GetParam().size, GetParam().expected_size);
}

INSTANTIATE_TEST_SUITE_P(
    Record, MovieInfoField,
    testing::Values(FIELD(url, 0, 512), FIELD(snapshot_path, 512, 512), FIELD(metadata, 1024, 256),
                    FIELD(other_urls, 1280, 32), FIELD(no_audio, 1312, 1), FIELD(a_bitrate, 1316, 4),
                    FIELD(sample_rate_src, 1320, 4), FIELD(sample_rate_dst, 1324, 4), FIELD(channels, 1328, 4),
                    FIELD(sample_fmt, 1332, 4), FIELD(no_video, 1336, 1), FIELD(rate_control, 1340, 4),
                    FIELD(v_bitrate, 1344, 4), FIELD(width, 1348, 4), FIELD(height, 1352, 4), FIELD(width_src, 1356, 4),
                    FIELD(height_src, 1360, 4), FIELD(fps, 1364, 4), FIELD(gop_size, 1368, 4),
                    FIELD(pix_fmt_src, 1372, 4), FIELD(pix_fmt, 1376, 4), FIELD(color_primaries, 1380, 4),
                    FIELD(color_trc, 1384, 4), FIELD(colorspace, 1388, 4), FIELD(color_range, 1392, 4),
                    FIELD(preset, 1396, 4), FIELD(profile, 1400, 4), FIELD(tune, 1404, 4), FIELD(use_hardware, 1408, 1),
                    FIELD(crf, 1412, 4), FIELD(qp, 1416, 4), FIELD(timeout_sec, 1420, 4)),
    meru_test::CaseName());

TEST(MovieInfoRecord, IsPlainDataOf1424Bytes) {
  EXPECT_EQ(sizeof(MovieInfo), 1424U);
  EXPECT_TRUE(std::is_trivial_v<MovieInfo>);
  EXPECT_TRUE(std::is_standard_layout_v<MovieInfo>);
}

struct RtmpCase {
  const char* name;
  const char* url;
  std::vector<const char*> others;
  bool expected;
};

class HasRtmpStream : public testing::TestWithParam<RtmpCase> {};

TEST_P(HasRtmpStream, LooksAtTheBeginningOfEachOutput) {
  MovieInfo info{};
  std::strncpy(info.url, GetParam().url, sizeof(info.url) - 1);
  for (size_t i = 0; i < GetParam().others.size(); ++i) info.other_urls[i] = GetParam().others[i];
  EXPECT_EQ(info.hasRtmpStream(), GetParam().expected);
}

constexpr const char* kLive = "rtmp://server/app/key";

INSTANTIATE_TEST_SUITE_P(
    Outputs, HasRtmpStream,
    testing::Values(RtmpCase{"Main", kLive, {}, true}, RtmpCase{"SevenBytesAreEnough", "rtmp://", {}, true},
                    RtmpCase{"SixBytesAreNot", "rtmp:/", {}, false}, RtmpCase{"Empty", "", {}, false},
                    RtmpCase{"UpperCase", "RTMP://server/app/key", {}, false},
                    RtmpCase{"MixedCase", "rtmP://server/app/key", {}, false},
                    RtmpCase{"NotAtTheStart", " rtmp://server/app/key", {}, false},
                    RtmpCase{"InsideAPath", "/tmp/rtmp://server.mp4", {}, false},
                    RtmpCase{"OtherScheme", "rtmps://server/app/key", {}, false},
                    RtmpCase{"Rtsp", "rtsp://server/path", {}, false}, RtmpCase{"FirstFurther", "a.mp4", {kLive}, true},
                    RtmpCase{"SecondFurther", "a.mp4", {"b.mp4", kLive}, true},
                    RtmpCase{"BehindANull", "a.mp4", {"b.mp4", nullptr, kLive}, false},
                    RtmpCase{"FirstIsNull", "a.mp4", {nullptr, kLive, kLive, kLive}, false},
                    RtmpCase{"FourthOfFour", "a.mp4", {"b.mp4", "c.mp4", "d.mp4", kLive}, true},
                    RtmpCase{"NoneOfFour", "a.mp4", {"b.mp4", "c.mp4", "d.mp4", "e.mp4"}, false},
                    RtmpCase{"FurtherInUpperCase", "a.mp4", {"RTMP://server/app/key"}, false}),
    meru_test::CaseName());

TEST(HasRtmpStreamOfAFullField, ReadsNoFurtherThanTheField) {
  MovieInfo info{};
  std::memset(info.url, 'r', sizeof(info.url) - 1);
  EXPECT_FALSE(info.hasRtmpStream());
  std::memcpy(info.url, "rtmp://", 7);
  EXPECT_TRUE(info.hasRtmpStream());
}

struct SchemeCase {
  const char* name;
  const char* url;
  bool rtmp, rtsp;
};

class Scheme : public testing::TestWithParam<SchemeCase> {};

TEST_P(Scheme, IsTheFirstSevenBytes) {
  EXPECT_EQ(MR::isRtmpStream(GetParam().url), GetParam().rtmp);
  EXPECT_EQ(MR::isRtspStream(GetParam().url), GetParam().rtsp);
  EXPECT_EQ(MR::isLiveStream(GetParam().url), GetParam().rtmp || GetParam().rtsp);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, Scheme,
    testing::Values(SchemeCase{"Rtmp", "rtmp://s/a/k", true, false}, SchemeCase{"Rtsp", "rtsp://s/p", false, true},
                    SchemeCase{"Null", nullptr, false, false}, SchemeCase{"Empty", "", false, false},
                    SchemeCase{"Cut", "rtmp:/", false, false}, SchemeCase{"UpperCase", "RTMP://s/a/k", false, false},
                    SchemeCase{"UpperCaseRtsp", "Rtsp://s/p", false, false},
                    SchemeCase{"File", "movie.mp4", false, false}),
    meru_test::CaseName());

}  // namespace

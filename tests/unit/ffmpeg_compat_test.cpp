#include "common/ffmpeg_compat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "common/ffmpeg_handles.h"
#include "support/case_name.h"
#include "support/temp_dir.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace {

constexpr auto kStereo = static_cast<uint64_t>(AV_CH_LAYOUT_STEREO);
constexpr auto kMono = static_cast<uint64_t>(AV_CH_LAYOUT_MONO);

struct LayoutCase {
  const char* name;
  int channels;
  uint64_t mask;
};

class DefaultLayout : public testing::TestWithParam<LayoutCase> {};

TEST_P(DefaultLayout, HasAsManyChannels) {
  EXPECT_EQ(meru_compat::default_layout(GetParam().channels), GetParam().mask);
  EXPECT_EQ(meru_compat::layout_channels(GetParam().mask), std::max(GetParam().channels, 0));
}

INSTANTIATE_TEST_SUITE_P(Counts, DefaultLayout,
                         testing::Values(LayoutCase{"None", 0, 0}, LayoutCase{"Negative", -2, 0},
                                         LayoutCase{"Mono", 1, kMono}, LayoutCase{"Stereo", 2, kStereo},
                                         LayoutCase{"Six", 6, static_cast<uint64_t>(AV_CH_LAYOUT_5POINT1_BACK)}),
                         meru_test::CaseName());

TEST(CompatLayoutTest, FramesAndContextsGiveBackWhatWasSet) {
  const FramePtr frame(av_frame_alloc());
  meru_compat::set_layout(frame.get(), kStereo);
  EXPECT_EQ(meru_compat::layout_of(frame.get()), kStereo);
  EXPECT_EQ(meru_compat::channels_of(frame.get()), 2);
  const FramePtr other(av_frame_alloc());
  meru_compat::copy_layout(other.get(), frame.get());
  EXPECT_EQ(meru_compat::layout_of(other.get()), kStereo);
  const CodecContextPtr context(avcodec_alloc_context3(nullptr));
  meru_compat::set_layout(context.get(), kMono);
  EXPECT_EQ(meru_compat::layout_of(context.get()), kMono);
  EXPECT_EQ(meru_compat::channels_of(context.get()), 1);
}

TEST(CompatLayoutTest, ResamplerIsSetUpOnBothSides) {
  const SwrPtr swr(swr_alloc());
  EXPECT_GE(meru_compat::set_resampler_layout(swr.get(), 'i', kMono), 0);
  EXPECT_GE(meru_compat::set_resampler_layout(swr.get(), 'o', kStereo), 0);
  for (const char* name : {"isr", "osr"}) av_opt_set_int(swr.get(), name, 48000, 0);
  for (const char* name : {"isf", "osf"}) av_opt_set_int(swr.get(), name, AV_SAMPLE_FMT_S16, 0);
  ASSERT_GE(swr_init(swr.get()), 0);
  const int16_t in[] = {100, 200, 300};
  int16_t out[6] = {};
  const auto* in_data = reinterpret_cast<const uint8_t*>(in);
  auto* out_data = reinterpret_cast<uint8_t*>(out);
  EXPECT_EQ(swr_convert(swr.get(), &out_data, 3, &in_data, 3), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out[2 * i], out[2 * i + 1]) << i;
  EXPECT_LT(out[0], out[4]);
}

template <class T>
bool lists(const T* list, T end, T wanted) {
  for (; list != nullptr && *list != end; ++list) {
    if (*list == wanted) return true;
  }
  return false;
}

TEST(CompatListsTest, EncodersSayWhatTheySupport) {
  const AVCodec* aac = avcodec_find_encoder_by_name("aac");
  EXPECT_TRUE(lists(meru_compat::supported_sample_fmts(aac), AV_SAMPLE_FMT_NONE, AV_SAMPLE_FMT_FLTP));
  EXPECT_TRUE(lists(meru_compat::supported_sample_rates(aac), 0, 48000));
  EXPECT_EQ(*meru_compat::supported_sample_rates(aac), 96000);
  const AVCodec* mpeg2 = avcodec_find_encoder_by_name("mpeg2video");
  EXPECT_TRUE(lists(meru_compat::supported_pix_fmts(mpeg2), AV_PIX_FMT_NONE, AV_PIX_FMT_YUV420P));
  EXPECT_NE(meru_compat::supported_frame_rates(mpeg2), nullptr);
}

TEST(CompatListsTest, SilenceOfAnEncoderIsNull) {
  EXPECT_EQ(meru_compat::supported_frame_rates(avcodec_find_encoder_by_name("mpeg4")), nullptr);
  EXPECT_EQ(meru_compat::supported_sample_rates(avcodec_find_encoder_by_name("pcm_s16le")), nullptr);
  EXPECT_EQ(meru_compat::supported_pix_fmts(avcodec_find_encoder_by_name("rawvideo")), nullptr);
}

TEST(CompatListsTest, WantedLayoutIsKeptWhenListedOrNotSaid) {
  EXPECT_EQ(meru_compat::choose_layout(avcodec_find_encoder_by_name("ac3"), kStereo), kStereo);
  EXPECT_EQ(meru_compat::choose_layout(avcodec_find_encoder_by_name("pcm_s16le"), kStereo), kStereo);
}

TEST(CompatListsTest, FirstListedLayoutStandsInForAnUnlistedOne) {
  const AVCodec* ac3 = avcodec_find_encoder_by_name("ac3");
  EXPECT_EQ(meru_compat::choose_layout(ac3, static_cast<uint64_t>(AV_CH_LAYOUT_7POINT1)), kMono);
}

TEST(CompatPacketTest, EmptyPacketHasNoDataAndNoStamps) {
  AVPacket packet;
  std::memset(static_cast<void*>(&packet), 0x5a, sizeof(packet));
  meru_compat::init_packet(&packet);
  EXPECT_EQ(packet.data, nullptr);
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.buf, nullptr);
  EXPECT_EQ(packet.side_data, nullptr);
  EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet.dts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet.pos, -1);
}

struct DurationCase {
  const char* name;
  AVMediaType type;
  AVRational frame_rate;
  int64_t given, expected;
};

class CompleteDuration : public testing::TestWithParam<DurationCase> {};

TEST_P(CompleteDuration, IsThatOfTheFrameRateWherePicturesHaveNone) {
  const FormatContextPtr oc(avformat_alloc_context());
  AVStream* st = avformat_new_stream(oc.get(), nullptr);
  st->codecpar->codec_type = GetParam().type;
  st->avg_frame_rate = GetParam().frame_rate;
  st->time_base = {1, 12800};
  AVPacket packet;
  meru_compat::init_packet(&packet);
  packet.duration = GetParam().given;
  meru_compat::complete_duration(st, &packet);
  EXPECT_EQ(packet.duration, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Packets, CompleteDuration,
                         testing::Values(DurationCase{"Picture", AVMEDIA_TYPE_VIDEO, {25, 1}, 0, 512},
                                         DurationCase{"PictureThatHasOne", AVMEDIA_TYPE_VIDEO, {25, 1}, 700, 700},
                                         DurationCase{"NoFrameRate", AVMEDIA_TYPE_VIDEO, {0, 1}, 0, 0},
                                         DurationCase{"BadFrameRate", AVMEDIA_TYPE_VIDEO, {25, 0}, 0, 0},
                                         DurationCase{"Sound", AVMEDIA_TYPE_AUDIO, {25, 1}, 0, 0}),
                         meru_test::CaseName());

TEST(CompatFileTest, Utf8PathIsOpened) {
  const meru_test::TempDir dir;
  const std::string path = dir.file("影片.idx");
  EXPECT_NE(FilePtr(meru_compat::fopen_utf8(path.c_str(), "w")), nullptr);
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(FilePtr(meru_compat::fopen_utf8(dir.file("none/a").c_str(), "w")), nullptr);
}

TEST(CompatFileTest, TextModesAreTaken) {
  const meru_test::TempDir dir;
  const std::string path = dir.file("a.idx");
  for (const char* mode : {"wt", "rt", "at", "r+t"}) {
    EXPECT_NE(FilePtr(meru_compat::fopen_utf8(path.c_str(), mode)), nullptr) << mode;
  }
}

TEST(CompatRtspTest, TimeoutOptionExists) {
  AVFormatContext* oc = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "rtsp", "rtsp://127.0.0.1/x"), 0);
  const FormatContextPtr owner(oc);
  EXPECT_NE(av_opt_find(oc->priv_data, meru_compat::rtsp_timeout_option(), nullptr, 0, 0), nullptr);
}

int fake_header(AVFormatContext* /*oc*/) { return 4711; }
int fake_packet(AVFormatContext* /*oc*/, AVPacket* /*packet*/) { return 4712; }
constexpr meru_compat::MuxerEntry kHooks{&fake_header, &fake_packet};

class FormatCopy : public testing::Test {
 protected:
  FormatContextPtr context(const meru_compat::OutputFormatCopy& copy) {
    AVFormatContext* oc = nullptr;
    EXPECT_GE(avformat_alloc_output_context2(&oc, copy.get(), nullptr, "x"), 0);
    return FormatContextPtr(oc);
  }
  meru_compat::OutputFormatCopy m_mp4{av_guess_format("mp4", nullptr, nullptr)};
};

TEST_F(FormatCopy, HooksReplaceTheEntriesOfTheCopyOnly) {
  const FormatContextPtr oc = context(m_mp4);
  const meru_compat::MuxerEntry own = meru_compat::original_entry(oc.get());
  ASSERT_NE(own.write_packet, nullptr);
  ASSERT_TRUE(meru_compat::install_hooks(oc.get(), kHooks));
  // A second copy of the same muxer is made from FFmpeg's own format, which no hook may reach.
  const meru_compat::OutputFormatCopy fresh(av_guess_format("mp4", nullptr, nullptr));
  const FormatContextPtr other = context(fresh);
  EXPECT_EQ(meru_compat::original_entry(other.get()).write_packet, own.write_packet);
  EXPECT_NE(own.write_packet, &fake_packet);
}

TEST_F(FormatCopy, HooksAreNeverTakenForOriginals) {
  const FormatContextPtr oc = context(m_mp4);
  const meru_compat::MuxerEntry own = meru_compat::original_entry(oc.get());
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(meru_compat::install_hooks(oc.get(), kHooks));
    EXPECT_EQ(meru_compat::original_entry(oc.get()).write_header, own.write_header);
    EXPECT_EQ(meru_compat::original_entry(oc.get()).write_packet, own.write_packet);
  }
}

TEST_F(FormatCopy, EveryMuxerKeepsItsOwnOriginals) {
  const meru_compat::OutputFormatCopy flv(av_guess_format("flv", nullptr, nullptr));
  const FormatContextPtr one = context(m_mp4);
  const FormatContextPtr two = context(flv);
  ASSERT_TRUE(meru_compat::install_hooks(one.get(), kHooks));
  ASSERT_TRUE(meru_compat::install_hooks(two.get(), kHooks));
  EXPECT_NE(meru_compat::original_entry(one.get()).write_packet, meru_compat::original_entry(two.get()).write_packet);
}

TEST_F(FormatCopy, MuxerCallsTheHooks) {
  const FormatContextPtr oc = context(m_mp4);
  ASSERT_TRUE(meru_compat::install_hooks(oc.get(), {[](AVFormatContext*) { return AVERROR(EDOM); }, &fake_packet}));
  AVStream* st = avformat_new_stream(oc.get(), nullptr);
  st->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  st->codecpar->codec_id = AV_CODEC_ID_MPEG4;
  st->codecpar->width = st->codecpar->height = 16;
  const meru_test::TempDir dir;
  ASSERT_GE(avio_open(&oc->pb, dir.file("a.mp4").c_str(), AVIO_FLAG_WRITE), 0);
  EXPECT_EQ(avformat_write_header(oc.get(), nullptr), AVERROR(EDOM));
  avio_closep(&oc->pb);
}

TEST_F(FormatCopy, ForeignFormatIsNotHooked) {
  AVFormatContext* oc = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "mp4", "x"), 0);
  const FormatContextPtr owner(oc);
  EXPECT_FALSE(meru_compat::install_hooks(oc, kHooks));
}

}  // namespace

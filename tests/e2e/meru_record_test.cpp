// The command `meru record`: its sources and its settings.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <ostream>
#include <tuple>
#include <vector>

#include "support/case_name.h"
#include "support/meru_tool.h"
#include "support/probe.h"

namespace meru_test {
namespace {

constexpr double kAacFrame = 1024.0 / 48000;
constexpr int kFps = 25;

double stream_seconds(const std::string& path, const std::string& type) {
  return number(probe_stream(path, type), "duration", -1);
}

/// Where the pictures stand, in seconds from the first.
std::vector<double> picture_times(const std::string& path) {
  std::vector<double> times;
  for (const ProbedPacket& packet : probe_packets(path, "v:0")) times.push_back(packet.pts);
  for (size_t i = times.size(); i-- > 0;) times[i] -= times[0];
  return times;
}

class MeruRecordTest : public testing::Test {
 protected:
  void make_images(const std::string& name, double seconds, const std::string& output = "-pix_fmt bgra -f rawvideo") {
    m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=25:duration=" + std::to_string(seconds) + " " + output + " " +
                  name);
  }
  void make_sound(const std::string& name, double seconds) {
    m_folder.make("-f lavfi -i sine=frequency=1000:sample_rate=48000:duration=" + std::to_string(seconds) +
                  " -ac 2 -f s16le " + name);
  }
  /// Expects a clean run and a sound movie.
  void expect_movie(const ToolRun& run, const std::string& name, int frames) {
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(decode_errors(m_folder.file(name)), "");
    EXPECT_EQ(count_frames(m_folder.file(name)), frames);
  }

  ToolFolder m_folder;
  const std::string m_raw = "--video-raw v.raw --size 64x48 --fps 25 --pix-fmt bgra ";
};

TEST_F(MeruRecordTest, RecordsTheTestPictureAndTone) {
  const ToolRun run = m_folder.record("--test --size 64x48 --fps 24 --seconds 1.5 -o m.mp4");
  expect_movie(run, "m.mp4", 36);
  EXPECT_DOUBLE_EQ(stream_seconds(m_folder.file("m.mp4"), "video"), 1.5);
  EXPECT_NEAR(stream_seconds(m_folder.file("m.mp4"), "audio"), 1.5, kAacFrame);
  const std::vector<int16_t> sound = decoded_sound(m_folder.file("m.mp4"));
  EXPECT_GT(*std::max_element(sound.begin(), sound.end()), 5000);
}

TEST_F(MeruRecordTest, RecordsRawImagesAndSoundToTheirEnd) {
  make_images("v.raw", 2);
  make_sound("a.raw", 2);
  const ToolRun run = m_folder.record(m_raw + "--audio-raw a.raw --rate 48000 --channels 2 --sample-fmt s16 -o m.mkv");
  expect_movie(run, "m.mkv", 50);
  EXPECT_NEAR(static_cast<double>(decoded_sound(m_folder.file("m.mkv")).size()) / 48000, 2, 2 * kAacFrame);
  const std::vector<double> times = picture_times(m_folder.file("m.mkv"));
  ASSERT_EQ(times.size(), 50U);
  for (size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(times[i], static_cast<double>(i) / kFps, 0.001) << i;
}

TEST_F(MeruRecordTest, SecondsCutsBothTracks) {
  make_images("v.raw", 3);
  make_sound("a.raw", 3);
  expect_movie(m_folder.record(m_raw + "--audio-raw a.raw --seconds 1 -o m.mp4"), "m.mp4", kFps);
  EXPECT_NEAR(stream_seconds(m_folder.file("m.mp4"), "audio"), 1, kAacFrame);
}

TEST_F(MeruRecordTest, ReadsImagesFromStandardInput) {
  make_images("v.raw", 1);
  expect_movie(m_folder.record("--video-raw - --size 64x48 --fps 25 -o m.mp4", "cat v.raw |"), "m.mp4", kFps);
}

TEST_F(MeruRecordTest, ReadsSoundFromStandardInput) {
  make_sound("a.raw", 1);
  const ToolRun run = m_folder.record("--audio-raw - -o m.m4a", "cat a.raw |");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("m.m4a")), "");
  EXPECT_NEAR(stream_seconds(m_folder.file("m.m4a"), "audio"), 1, kAacFrame);
}

TEST_F(MeruRecordTest, ReadsY4mFromStandardInput) {
  make_images("v.y4m", 1, "-pix_fmt yuv420p");
  expect_movie(m_folder.record("--y4m - -o m.mp4", "cat v.y4m |"), "m.mp4", kFps);
}

TEST_F(MeruRecordTest, ReadsTwoNamedPipes) {
  make_images("v.raw", 2);
  make_sound("a.raw", 2);
  const std::string pipes = "mkfifo v a; cat a.raw > a & cd " + quoted(m_folder.path()) + " && cat v.raw > v & cd " +
                            quoted(m_folder.path()) + " &&";
  expect_movie(m_folder.record("--video-raw v --size 64x48 --fps 25 --audio-raw a -o m.mp4", pipes), "m.mp4", 50);
  EXPECT_NEAR(stream_seconds(m_folder.file("m.mp4"), "audio"), 2, kAacFrame);
}

TEST_F(MeruRecordTest, TestToneEndsWithTheImages) {
  make_images("v.raw", 2);
  expect_movie(m_folder.record(m_raw + "--test -o m.mp4"), "m.mp4", 50);
  EXPECT_NEAR(stream_seconds(m_folder.file("m.mp4"), "audio"), 2, 2 * kAacFrame);
}

TEST_F(MeruRecordTest, TestPictureEndsWithTheSound) {
  make_sound("a.raw", 2);
  const ToolRun run = m_folder.record("--test --size 64x48 --fps 25 --audio-raw a.raw -o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NEAR(count_frames(m_folder.file("m.mp4")), 50, 1);
}

TEST_F(MeruRecordTest, NoAudioLeavesTheSoundOut) {
  expect_movie(m_folder.record("--test --size 64x48 --seconds 1 --no-audio -o m.mp4"), "m.mp4", 30);
  EXPECT_TRUE(probe_stream(m_folder.file("m.mp4"), "audio").is_null());
}

TEST_F(MeruRecordTest, NoVideoLeavesTheImagesOut) {
  make_images("v.raw", 1);
  const ToolRun run = m_folder.record("--test " + m_raw + "--seconds 1 --no-video -o m.m4a");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(probe_stream(m_folder.file("m.m4a"), "video").is_null());
  EXPECT_NEAR(stream_seconds(m_folder.file("m.m4a"), "audio"), 1, kAacFrame);
}

TEST_F(MeruRecordTest, Y4mFrameRateWithDenominatorKeepsItsTimes) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=30000/1001:duration=20 -pix_fmt yuv420p v.y4m");
  expect_movie(m_folder.record("--y4m v.y4m --preset ultrafast -o m.mkv"), "m.mkv", 600);
  const std::vector<double> times = picture_times(m_folder.file("m.mkv"));
  ASSERT_EQ(times.size(), 600U);
  // The movie counts in thirtieths, so a picture may stand half of one away from its own time.
  for (size_t i = 0; i < times.size(); ++i)
    ASSERT_NEAR(times[i], static_cast<double>(i) * 1001 / 30000, 0.5 / 30 + 0.001);
}

TEST_F(MeruRecordTest, Y4mFrameRateBetweenWholeOnesLosesNoImage) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=62/5:duration=5 -pix_fmt yuv420p v.y4m");
  expect_movie(m_folder.record("--y4m v.y4m -o m.mp4"), "m.mp4", 62);
}

TEST_F(MeruRecordTest, Y4mRangeGoesIntoTheMovie) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=25:duration=1 -pix_fmt yuv420p -color_range pc -strict -1 v.y4m");
  ASSERT_NE(file_text(m_folder.file("v.y4m")).find("XCOLORRANGE=FULL"), std::string::npos);
  expect_movie(m_folder.record("--y4m v.y4m -o m.mp4"), "m.mp4", kFps);
  EXPECT_EQ(probe_stream(m_folder.file("m.mp4"), "video").at("color_range"), "pc");
}

/// A format in which red images are handed over.
struct FormatCase {
  const char* name;
  const char* make;    ///< how ffmpeg writes them
  const char* source;  ///< how the command is told
};

class MeruRecordFormatTest : public MeruRecordTest, public testing::WithParamInterface<FormatCase> {};

TEST_P(MeruRecordFormatTest, KeepsTheColour) {
  m_folder.make(std::string("-f lavfi -i color=red:size=64x48:rate=25:duration=0.4 ") + GetParam().make);
  expect_movie(m_folder.record(std::string(GetParam().source) + " -o m.mp4"), "m.mp4", 10);
  const std::string pixels = decoded(m_folder.file("m.mp4"), "-frames:v 1 -pix_fmt rgb24 -f rawvideo");
  ASSERT_EQ(pixels.size(), 64U * 48 * 3);
  for (const size_t at : {size_t{0}, pixels.size() / 6 * 3, pixels.size() - 3}) {
    EXPECT_GT(static_cast<uint8_t>(pixels[at]), 230);
    EXPECT_LT(static_cast<uint8_t>(pixels[at + 1]), 25);
    EXPECT_LT(static_cast<uint8_t>(pixels[at + 2]), 25);
  }
}

#define RAW_CASE(name) \
  FormatCase { name, "-pix_fmt " name " -f rawvideo v", "--video-raw v --size 64x48 --fps 25 --pix-fmt " name }
#define Y4M_CASE(name) \
  FormatCase { "y4m_" name, "-pix_fmt " name " -f yuv4mpegpipe v", "--y4m v" }
INSTANTIATE_TEST_SUITE_P(All, MeruRecordFormatTest,
                         testing::Values(RAW_CASE("bgra"), RAW_CASE("rgba"), RAW_CASE("argb"), RAW_CASE("abgr"),
                                         RAW_CASE("bgr24"), RAW_CASE("rgb24"), RAW_CASE("yuv420p"), RAW_CASE("nv12"),
                                         RAW_CASE("yuv422p"), RAW_CASE("yuv444p"), Y4M_CASE("yuv420p"),
                                         Y4M_CASE("yuv422p"), Y4M_CASE("yuv444p")),
                         CaseName());

/// A sample format of the sound.
struct SoundCase {
  const char* name;
  const char* ffmpeg;
  int channels;
};

class MeruRecordSoundTest : public MeruRecordTest, public testing::WithParamInterface<SoundCase> {};

TEST_P(MeruRecordSoundTest, KeepsLengthAndLoudness) {
  const std::string channels = std::to_string(GetParam().channels);
  m_folder.make("-f lavfi -i sine=frequency=1000:sample_rate=44100:duration=1,volume=6 -ac " + channels + " -f " +
                std::string(GetParam().ffmpeg) + " a.raw");
  const ToolRun run = m_folder.record("--audio-raw a.raw --rate 44100 --channels " + channels + " --sample-fmt " +
                                      GetParam().name + " -o m.m4a");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("m.m4a")), "");
  const std::vector<int16_t> sound = decoded_sound(m_folder.file("m.m4a"));
  EXPECT_NEAR(static_cast<double>(sound.size()), 44100, 2 * 1024);
  double power = 0;
  for (const int16_t sample : sound) power += static_cast<double>(sample) * sample;
  // A sine of three quarters of the full scale has a root mean square of 0.53 of it, and one channel made two, here by
  // ffmpeg or in the recording, is made quieter by the square root of two.
  EXPECT_NEAR(std::sqrt(power / static_cast<double>(sound.size())), 0.375 * 32768, 0.02 * 32768);
}

INSTANTIATE_TEST_SUITE_P(All, MeruRecordSoundTest,
                         testing::Values(SoundCase{"u8", "u8", 2}, SoundCase{"s16", "s16le", 1},
                                         SoundCase{"s32", "s32le", 2}, SoundCase{"flt", "f32le", 2},
                                         SoundCase{"dbl", "f64le", 2}),
                         CaseName());

/// Options that show in what the movie says of a stream.
struct SettingCase {
  const char* name;
  const char* options;
  const char* type;
  const char* key;
  const char* value;
};

void PrintTo(const SettingCase& c, std::ostream* out) { *out << c.options; }

class MeruRecordSettingTest : public MeruRecordTest, public testing::WithParamInterface<SettingCase> {};

TEST_P(MeruRecordSettingTest, ShowsInTheMovie) {
  const SettingCase& c = GetParam();
  expect_movie(m_folder.record(std::string("--test --size 64x48 --seconds 0.5 --fps 24 -o m.mp4 ") + c.options),
               "m.mp4", 12);
  const nlohmann::json stream = probe_stream(m_folder.file("m.mp4"), c.type);
  ASSERT_TRUE(stream.contains(c.key)) << stream.dump();
  const nlohmann::json& value = stream.at(c.key);
  EXPECT_EQ(value.is_string() ? value.get<std::string>() : value.dump(), c.value);
}

INSTANTIATE_TEST_SUITE_P(
    All, MeruRecordSettingTest,
    testing::Values(SettingCase{"preset_ultrafast", "--preset ultrafast", "video", "profile", "Constrained Baseline"},
                    SettingCase{"preset_medium", "--preset medium", "video", "profile", "High"},
                    SettingCase{"profile_baseline", "--profile baseline", "video", "profile", "Constrained Baseline"},
                    SettingCase{"profile_main", "--profile main", "video", "profile", "Main"},
                    SettingCase{"profile_high", "--profile high", "video", "profile", "High"},
                    SettingCase{"out_size", "--out-size 32x24", "video", "width", "32"},
                    SettingCase{"frame_rate", "", "video", "r_frame_rate", "24/1"},
                    SettingCase{"colour_space", "--color-space bt709", "video", "color_space", "bt709"},
                    SettingCase{"colour_curve", "--color-space bt2020", "video", "color_transfer", "bt2020-10"},
                    SettingCase{"colour_range", "--color-range full", "video", "color_range", "pc"},
                    SettingCase{"sample_rate", "--rate 44100", "audio", "sample_rate", "44100"}),
    CaseName());

/// Options of which the first leave a smaller movie than the second.
struct SizeCase {
  const char* name;
  const char* smaller;
  const char* larger;
};

void PrintTo(const SizeCase& c, std::ostream* out) { *out << c.smaller << " < " << c.larger; }

class MeruRecordSizeTest : public MeruRecordTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(MeruRecordSizeTest, FollowsTheSetting) {
  make_images("v.raw", 2);
  expect_movie(m_folder.record(m_raw + GetParam().smaller + " -o small.mp4"), "small.mp4", 50);
  expect_movie(m_folder.record(m_raw + GetParam().larger + " -o large.mp4"), "large.mp4", 50);
  EXPECT_LT(std::filesystem::file_size(m_folder.file("small.mp4")),
            std::filesystem::file_size(m_folder.file("large.mp4")));
}

INSTANTIATE_TEST_SUITE_P(
    All, MeruRecordSizeTest,
    testing::Values(SizeCase{"crf", "--crf 40", "--crf 20"}, SizeCase{"qp", "--qp 40", "--qp 20"},
                    SizeCase{"abr", "--rate-control abr --v-bitrate 40", "--rate-control abr --v-bitrate 400"},
                    SizeCase{"cbr", "--rate-control cbr --v-bitrate 40", "--rate-control cbr --v-bitrate 400"},
                    SizeCase{"vbr", "--rate-control vbr --v-bitrate 40", "--rate-control vbr --v-bitrate 400"},
                    SizeCase{"tune", "--qp 26", "--qp 26 --tune fastdecode"},
                    SizeCase{"gop", "--qp 26 --gop 50", "--qp 26 --gop 5"},
                    SizeCase{"audio", "--test --a-bitrate 16", "--test --a-bitrate 192"}),
    CaseName());

TEST_F(MeruRecordTest, GopSaysHowFarKeyFramesAreApart) {
  expect_movie(m_folder.record("--test --size 64x48 --fps 10 --seconds 2 --gop 5 -o m.mp4"), "m.mp4", 20);
  const std::vector<ProbedPacket> packets = probe_packets(m_folder.file("m.mp4"), "v:0");
  for (size_t i = 0; i < packets.size(); i += 5) EXPECT_TRUE(packets[i].key) << i;
}

TEST_F(MeruRecordTest, HardwareFallsBackToSoftware) {
  expect_movie(m_folder.record("--test --size 64x48 --seconds 0.5 --hardware -o m.mp4"), "m.mp4", 15);
}

TEST_F(MeruRecordTest, MetadataBecomesTags) {
  expect_movie(
      m_folder.record("--test --size 64x48 --seconds 0.5 --metadata 'title:A walk;comment:rain: heavy' -o m.mp4"),
      "m.mp4", 15);
  const nlohmann::json tags = probe(m_folder.file("m.mp4"), "-show_format").at("format").at("tags");
  EXPECT_EQ(tags.at("title"), "A walk");
  EXPECT_EQ(tags.at("comment"), "rain: heavy");
}

TEST_F(MeruRecordTest, IndexIsWrittenBesideTheMovie) {
  expect_movie(m_folder.record("--test --size 64x48 --seconds 1 --index m.idx -o m.mp4"), "m.mp4", 30);
  const std::string index = file_text(m_folder.file("m.idx"));
  EXPECT_NE(index.find("\"codec\":\"h264\""), std::string::npos);
  EXPECT_NE(index.find("\"codec\":\"aac\""), std::string::npos);
}

TEST_F(MeruRecordTest, FurtherOutputsHoldTheSameImages) {
  expect_movie(
      m_folder.record("--test --size 64x48 --seconds 1 -o m.mp4 --also 1.mkv --also 2.mov --also 3.ts --also 4.mp4"),
      "m.mp4", 30);
  for (const char* name : {"1.mkv", "2.mov", "3.ts", "4.mp4"}) {
    EXPECT_EQ(count_frames(m_folder.file(name)), 30) << name;
    EXPECT_EQ(decode_errors(m_folder.file(name)), "") << name;
  }
}

}  // namespace
}  // namespace meru_test

// The command `meru record` when something is wrong: one line that says what and why, and an exit status that is not 0.

#include <gtest/gtest.h>

#include <ostream>

#include "support/case_name.h"
#include "support/local_listener.h"
#include "support/meru_tool.h"
#include "support/probe.h"

namespace meru_test {
namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;

struct FailureCase {
  const char* name;
  const char* arguments;  ///< behind "meru "
  int status;
  const char* says;  ///< what the line holds
};

void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.arguments; }

#define TEST_SOURCE "record --test --size 64x48 --seconds 0.5 "
#define TEST_MOVIE TEST_SOURCE "-o m.mp4 "

class MeruRecordFailureTest : public testing::TestWithParam<FailureCase> {
 protected:
  void SetUp() override {
    write_file(m_folder.file("v.raw"), std::string(64UL * 48 * 4 * 2, '\x40'));
    write_file(m_folder.file("empty.raw"), "");
    write_file(m_folder.file("short.raw"), "0123456789");
    write_file(m_folder.file("odd.y4m"), "YUV4MPEG2 W63 H47 F25:1\nFRAME\n" + std::string(10000, 'x'));
    write_file(m_folder.file("mono.y4m"), "YUV4MPEG2 W64 H48 F25:1 Cmono\nFRAME\n");
    write_file(m_folder.file("deep.y4m"), "YUV4MPEG2 W64 H48 F25:1 C420p10\nFRAME\n");
    write_file(m_folder.file("rate.y4m"), "YUV4MPEG2 W64 H48 F0:0\nFRAME\n");
    write_file(m_folder.file("size.y4m"), "YUV4MPEG2 W64 F25:1\nFRAME\n");
    write_file(m_folder.file("header.y4m"), "YUV4MPEG2 W64 H48 F25:1\n");
    write_file(m_folder.file("noframe.y4m"), "YUV4MPEG2 W64 H48 F25:1\nFRAMES\n" + std::string(10000, 'x'));
  }
  ToolFolder m_folder;
};

TEST_P(MeruRecordFailureTest, IsOneLine) {
  const FailureCase& c = GetParam();
  const ToolRun run = m_folder.run(c.arguments);
  EXPECT_EQ(run.status, c.status);
  EXPECT_EQ(run.err.rfind("meru: ", 0), 0U) << run.err;
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, MeruRecordFailureTest,
    testing::Values(FailureCase{"nothing", "", kUsage, "subcommand"},
                    FailureCase{"unknown_subcommand", "play", kUsage, "subcommand"},
                    FailureCase{"unknown_option", TEST_MOVIE "--bogus", kUsage, "--bogus"},
                    FailureCase{"no_output", TEST_SOURCE, kUsage, "--output"},
                    FailureCase{"empty_output", TEST_SOURCE "-o ''", kUsage, "-o"},
                    FailureCase{"no_source", "record -o m.mp4", kUsage, "no source"},
                    FailureCase{"nothing_left", TEST_MOVIE "--no-video --no-audio", kUsage, "nothing is left"},
                    FailureCase{"two_videos", TEST_MOVIE "--y4m a --video-raw b", kUsage, "--y4m"},
                    FailureCase{"one_input_twice", "record --y4m - --audio-raw - -o m.mp4", kUsage, "standard input"},
                    FailureCase{"no_size", "record --video-raw v.raw -o m.mp4", kUsage, "--size"},
                    FailureCase{"bad_size", "record --test --size 64 -o m.mp4", kUsage, "'64'"},
                    FailureCase{"zero_size", "record --test --size 0x48 -o m.mp4", kUsage, "--size"},
                    FailureCase{"size_with_tail", "record --test --size 64x48p -o m.mp4", kUsage, "64x48p"},
                    FailureCase{"odd_size", "record --video-raw v.raw --size 63x48 -o m.mp4", kUsage, "even"},
                    FailureCase{"odd_out_size", TEST_MOVIE "--out-size 63x48", kUsage, "--out-size"},
                    FailureCase{"bad_pix_fmt", TEST_MOVIE "--pix-fmt cmyk", kUsage, "bgra, rgba"},
                    FailureCase{"bad_sample_fmt", TEST_MOVIE "--sample-fmt s24", kUsage, "u8, s16"},
                    FailureCase{"mono_test", TEST_MOVIE "--channels 1", kUsage, "stereo"},
                    FailureCase{"bad_preset", TEST_MOVIE "--preset fastest", kUsage, "ultrafast"},
                    FailureCase{"upper_case", TEST_MOVIE "--preset Fast", kUsage, "'Fast'"},
                    FailureCase{"bad_profile", TEST_MOVIE "--profile best", kUsage, "baseline"},
                    FailureCase{"bad_tune", TEST_MOVIE "--tune piano", kUsage, "film"},
                    FailureCase{"bad_mode", TEST_MOVIE "--rate-control best", kUsage, "abr"},
                    FailureCase{"bad_colours", TEST_MOVIE "--color-space sepia", kUsage, "bt709"},
                    FailureCase{"bad_range", TEST_MOVIE "--color-range wide", kUsage, "limited"}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Numbers, MeruRecordFailureTest,
    testing::Values(FailureCase{"fps", TEST_MOVIE "--fps 0", kUsage, "--fps"},
                    FailureCase{"fps_text", TEST_MOVIE "--fps many", kUsage, "--fps"},
                    FailureCase{"rate", TEST_MOVIE "--rate 1", kUsage, "--rate"},
                    FailureCase{"channels", TEST_MOVIE "--channels 9", kUsage, "--channels"},
                    FailureCase{"crf_zero", TEST_MOVIE "--crf 0", kUsage, "--crf"},
                    FailureCase{"crf_high", TEST_MOVIE "--crf 52", kUsage, "--crf"},
                    FailureCase{"qp_high", TEST_MOVIE "--qp 52", kUsage, "--qp"},
                    FailureCase{"gop", TEST_MOVIE "--gop 0", kUsage, "--gop"},
                    FailureCase{"seconds", "record --test -o m.mp4 --seconds 0", kUsage, "--seconds"},
                    FailureCase{"seconds_nan", "record --test -o m.mp4 --seconds nan", kUsage, "--seconds"},
                    FailureCase{"timeout", TEST_MOVIE "--timeout -1", kUsage, "--timeout"},
                    FailureCase{"v_bitrate", TEST_MOVIE "--v-bitrate -1", kUsage, "--v-bitrate"},
                    FailureCase{"a_bitrate", TEST_MOVIE "--a-bitrate 0", kUsage, "--a-bitrate"},
                    FailureCase{"crf_without_cbr", TEST_MOVIE "--crf 20 --rate-control abr", kUsage, "cbr"},
                    FailureCase{"qp_without_cqp", TEST_MOVIE "--qp 20 --rate-control vbr", kUsage, "cqp"},
                    FailureCase{"cqp_without_qp", TEST_MOVIE "--rate-control cqp", kUsage, "--qp"},
                    FailureCase{"cbr_alone", TEST_MOVIE "--rate-control cbr", kUsage, "--v-bitrate"},
                    FailureCase{"vbr_alone", TEST_MOVIE "--rate-control vbr", kUsage, "--v-bitrate"}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Sources, MeruRecordFailureTest,
    testing::Values(
        FailureCase{"missing_video", "record --video-raw none.raw --size 64x48 -o m.mp4", kFailure,
                    "none.raw: No such"},
        FailureCase{"missing_y4m", "record --y4m none.y4m -o m.mp4", kFailure, "none.y4m: No such"},
        FailureCase{"missing_sound", "record --audio-raw none.pcm -o m.mp4", kFailure, "none.pcm: No such"},
        FailureCase{"folder", "record --audio-raw . -o m.mp4", kFailure, "folder"},
        FailureCase{"empty_video", "record --video-raw empty.raw --size 64x48 -o m.mp4", kFailure,
                    "empty.raw is empty"},
        FailureCase{"empty_sound", "record --audio-raw empty.raw -o m.mp4", kFailure, "empty.raw is empty"},
        FailureCase{"empty_input", "record --y4m - -o m.mp4 </dev/null", kFailure, "standard input: it is empty"},
        FailureCase{"less_than_an_image", "record --video-raw short.raw --size 64x48 -o m.mp4", kFailure,
                    "10 of 12288"},
        FailureCase{"no_y4m", "record --y4m v.raw -o m.mp4", kFailure, "YUV4MPEG2"},
        FailureCase{"odd_y4m", "record --y4m odd.y4m -o m.mp4", kUsage, "--out-size"},
        FailureCase{"mono_y4m", "record --y4m mono.y4m -o m.mp4", kFailure, "Cmono"},
        FailureCase{"deep_y4m", "record --y4m deep.y4m -o m.mp4", kFailure, "C420p10"},
        FailureCase{"y4m_rate", "record --y4m rate.y4m -o m.mp4", kFailure, "frame rate"},
        FailureCase{"y4m_size", "record --y4m size.y4m -o m.mp4", kFailure, "size"},
        FailureCase{"y4m_header_alone", "record --y4m header.y4m -o m.mp4", kFailure, "header.y4m is empty"},
        FailureCase{"y4m_without_frame", "record --y4m noframe.y4m -o m.mp4", kFailure, "FRAME"}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Outputs, MeruRecordFailureTest,
    testing::Values(
        FailureCase{"no_folder", TEST_SOURCE "-o none/m.mp4", kFailure, "the folder none: No such"},
        FailureCase{"is_folder", TEST_SOURCE "-o .", kFailure, "it is a folder"},
        FailureCase{"below_a_file", TEST_SOURCE "-o v.raw/m.mp4", kFailure, "v.raw is not a folder"},
        FailureCase{"is_source", "record --video-raw v.raw --size 64x48 -o ./v.raw", kUsage, "is a source"},
        FailureCase{"index_is_movie", TEST_MOVIE "--index m.mp4", kUsage, "twice"},
        FailureCase{"no_index_folder", TEST_MOVIE "--index none/m.idx", kFailure, "the index none/m.idx"},
        FailureCase{"no_also_folder", TEST_MOVIE "--also none/m.mkv", kFailure, "none/m.mkv"},
        FailureCase{"five_outputs", TEST_MOVIE "--also 1.ts --also 2.ts --also 3.ts --also 4.ts --also 5.ts", kUsage,
                    "at most four"},
        FailureCase{"no_log_folder", TEST_MOVIE "--log none/m.log", kFailure, "the log none/m.log"},
        FailureCase{"full_disk", "record --test --size 64x48 -o /dev/full", kFailure, "No space left on device"},
        FailureCase{"no_images", TEST_SOURCE "-o m.wav", kFailure, "no images"},
        FailureCase{"no_sound", TEST_SOURCE "-o m.gif", kFailure, "no sound"},
        FailureCase{"no_encoder", TEST_SOURCE "--no-video -o m.amr", kFailure, "Could not find encoder for 'amr_nb'"},
        FailureCase{"refused_settings", "record --test --size 64x16384 --out-size 16384x16384 -o m.mp4", kFailure,
                    "Could not open video codec: "},
        FailureCase{"nobody_listens", TEST_SOURCE "-o rtmp://127.0.0.1:1/live/key", kFailure,
                    "rtmp://127.0.0.1:1/live/***: Could not open url: Connection refused"}),
    CaseName());

using MeruRecordTroubleTest = MeruRecordFailureTest;

TEST_F(MeruRecordTroubleTest, TooLongTextsAreRefused) {
  for (const char* option : {"--metadata", "--index", "-o"}) {
    const ToolRun run = m_folder.run(TEST_MOVIE + std::string(option) + " " + std::string(600, 'x'));
    EXPECT_EQ(run.status, kUsage) << option;
    EXPECT_EQ(line_count(run.err), 1) << run.err;
  }
}

TEST_F(MeruRecordTroubleTest, DiskThatFillsUpIsToldOnce) {
  // A limit on the size of files stands in for a full disk: the same failing write.
  const ToolRun run =
      m_folder.record("--test --size 640x480 --qp 1 --preset ultrafast --seconds 60 -o m.mp4", "ulimit -f 512;");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_EQ(run.err, "meru: the recording of m.mp4 failed: File too large\n");
}

TEST_F(MeruRecordTroubleTest, IncompleteLastImageIsLeftOutAndTold) {
  write_file(m_folder.file("cut.raw"), std::string(64UL * 48 * 4 * 3 + 100, '\x40'));
  for (const char* source : {"--video-raw cut.raw", "--video-raw - <cut.raw", "--video-raw cut.raw --test"}) {
    const ToolRun run = m_folder.record(std::string(source) + " --size 64x48 -o m.mp4");
    EXPECT_EQ(run.status, kFailure) << source;
    EXPECT_EQ(line_count(run.err), 1) << run.err;
    EXPECT_NE(run.err.find("the last image is incomplete (100 of 12288 bytes)"), std::string::npos) << run.err;
    EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 3) << source;
    EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "") << source;
  }
}

TEST_F(MeruRecordTroubleTest, EndThatIsNotReachedIsNotTold) {
  write_file(m_folder.file("cut.raw"), std::string(64UL * 48 * 4 * 3 + 100, '\x40'));
  write_file(m_folder.file("cut.pcm"), std::string(4801UL * 4 + 3, '\0'));
  const ToolRun run = m_folder.record("--video-raw - --size 64x48 --audio-raw cut.pcm --seconds 0.1 -o m.mp4 <cut.raw");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 3);
}

TEST_F(MeruRecordTroubleTest, IncompleteLastY4mImageIsLeftOutAndTold) {
  const std::string image = "FRAME Ip\n" + std::string(64UL * 48 * 3 / 2, '\x40');
  write_file(m_folder.file("cut.y4m"), "YUV4MPEG2 W64 H48 F25:1 C420jpeg\n" + image + image + image.substr(0, 1009));
  for (const char* before : {"", "cat cut.y4m |"}) {
    const ToolRun run =
        m_folder.record(std::string("--y4m ") + (*before == '\0' ? "cut.y4m" : "-") + " -o m.mp4", before);
    EXPECT_EQ(run.status, kFailure);
    EXPECT_NE(run.err.find("the last image is incomplete (1000 of 4608 bytes)"), std::string::npos) << run.err;
    EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 2);
  }
}

TEST_F(MeruRecordTroubleTest, IncompleteLastSampleIsLeftOutAndTold) {
  write_file(m_folder.file("cut.pcm"), std::string(48000UL * 4 + 3, '\0'));
  const ToolRun run = m_folder.record("--audio-raw cut.pcm -o m.m4a");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_EQ(run.err, "meru: cut.pcm: the last sample is incomplete (3 of 4 bytes) and was left out\n");
  EXPECT_NEAR(number(probe_stream(m_folder.file("m.m4a"), "audio"), "duration"), 1, 1024.0 / 48000);
}

TEST_F(MeruRecordTroubleTest, SourceOfTheOtherTrackMayBeUnusedAndMissing) {
  const ToolRun run = m_folder.run(TEST_MOVIE "--audio-raw none.pcm --no-audio");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 15);
}

TEST_F(MeruRecordTroubleTest, FurtherOutputThatFailsIsToldAndTheMovieIsComplete) {
  const ToolRun run = m_folder.run(TEST_MOVIE "--also rtmp://127.0.0.1:1/live/key");
  EXPECT_EQ(run.status, kFailure);
  EXPECT_EQ(run.err, "meru: the further output rtmp://127.0.0.1:1/live/*** failed: Connection refused\n");
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 15);
}

TEST_F(MeruRecordTroubleTest, ServerThatNeverAnswersIsGivenUp) {
  const SilentServer server;
  const auto begin = std::chrono::steady_clock::now();
  const ToolRun run = m_folder.run(TEST_SOURCE "--timeout 1 -o " + server.url("rtmp"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(6));
  EXPECT_EQ(run.status, kFailure);
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_NE(run.err.find("cannot record rtmp://"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("key"), std::string::npos) << run.err;
}

using MeruCommandTest = MeruRecordFailureTest;

TEST_F(MeruCommandTest, VersionIsOneLine) {
  const ToolRun run = m_folder.run("--version");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("meru ", 0), 0U);
  EXPECT_EQ(line_count(run.out), 1);
}

TEST_F(MeruCommandTest, HelpNamesEveryOption) {
  EXPECT_NE(m_folder.run("--help").out.find("record"), std::string::npos);
  const ToolRun run = m_folder.record("--help");
  EXPECT_EQ(run.status, 0);
  for (const char* option :
       {"--test",     "--video-raw",    "--size",        "--fps",         "--pix-fmt",  "--audio-raw",
        "--rate",     "--channels",     "--sample-fmt",  "--y4m",         "--no-video", "--no-audio",
        "-o",         "--index",        "--also",        "--metadata",    "--preset",   "--profile",
        "--tune",     "--rate-control", "--v-bitrate",   "--a-bitrate",   "--crf",      "--qp",
        "--gop",      "--out-size",     "--color-space", "--color-range", "--hardware", "--seconds",
        "--realtime", "--timeout",      "--log",         "--verbose",     "SIGUSR1"}) {
    EXPECT_NE(run.out.find(option), std::string::npos) << option;
  }
}

TEST_F(MeruCommandTest, LogIsAppendedTo) {
  write_file(m_folder.file("m.log"), "what stood there before\n");
  const ToolRun run = m_folder.run(TEST_MOVIE "--log m.log");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const std::string log = file_text(m_folder.file("m.log"));
  EXPECT_EQ(log.rfind("what stood there before\n", 0), 0U);
  EXPECT_NE(log.find("libx264"), std::string::npos);
  EXPECT_EQ(log.find("before stop"), std::string::npos);
  EXPECT_EQ(m_folder.run(TEST_MOVIE "--log m.log --verbose").status, 0);
  EXPECT_NE(file_text(m_folder.file("m.log")).find("before stop"), std::string::npos);
}

TEST_F(MeruCommandTest, VerboseShowsTheDiagnostics) {
  const ToolRun run = m_folder.run(TEST_MOVIE "--verbose");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("libx264"), std::string::npos);
  EXPECT_NE(run.err.find("before stop"), std::string::npos);
  EXPECT_NE(run.out.find("recorded "), std::string::npos);
}

TEST_F(MeruCommandTest, ClosedStandardDescriptorsDoNotReachTheMovie) {
  const CommandResult run =
      run_command("cd " + quoted(m_folder.path()) + " && " MERU_TOOL " " TEST_MOVIE " <&- >&- 2>&-");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 15);
  EXPECT_EQ(decode_errors(m_folder.file("m.mp4")), "");
}

}  // namespace
}  // namespace meru_test

// The command `meru remux`: movies whose timestamps do not begin at 0, and movies with B-frames, lose nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "support/case_name.h"
#include "support/meru_tool.h"
#include "support/probe.h"

namespace meru_test {
namespace {

/// How a movie is made of a source of ten seconds. Its timestamps begin elsewhere than at 0.
struct Making {
  const char* name;
  const char* movie;
  const char* before;  ///< arguments of the ffmpeg command before the source
  const char* after;   ///< and after it
};
void PrintTo(const Making& m, std::ostream* out) { *out << m.name; }

const Making kMakings[] = {
    {"AsItIs", "cut.mp4", "", ""},
    {"TrimmedWithinAGroup", "cut.mp4", "-ss 3", ""},
    {"TrimmedWithinAGroupMkv", "cut.mkv", "-ss 3", ""},
    {"TrimmedShortly", "cut.mp4", "-ss 0.1", ""},
    {"TrimmedAtBothEnds", "cut.mp4", "-ss 4.3", "-t 3"},
    {"TenSecondsLate", "cut.mp4", "", "-output_ts_offset 10"},
    {"TenSecondsLateMkv", "cut.mkv", "", "-output_ts_offset 10"},
    {"TenMinutesLate", "cut.mkv", "", "-output_ts_offset 600"},
    {"AnHourLate", "cut.mkv", "", "-output_ts_offset 3600"},
    {"AnHourLateTs", "cut.ts", "", "-output_ts_offset 3600"},
    {"TwoSecondsEarly", "cut.mp4", "-itsoffset -2", ""},
    {"TwoSecondsEarlyTs", "cut.ts", "-itsoffset -2", ""},
    {"Flv", "cut.flv", "-ss 3", ""},
};

class RemuxTimestampsTest : public testing::TestWithParam<std::tuple<Making, int>> {
 protected:
  static const ToolFolder& sources() {
    static const ToolFolder folder;
    static bool made = false;
    if (!made) {
      for (const char* b_frames : {"0", "3"}) {
        folder.make(std::string("-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=sample_rate=48000 -t 10 "
                                "-c:v libx264 -preset veryfast -g 50 -sc_threshold 0 -bf ") +
                    b_frames + " -c:a aac -b:a 64k source" + b_frames + ".mp4");
      }
      made = true;
    }
    return folder;
  }
  size_t packets(const std::string& movie, const std::string& stream) const {
    return probe_packets(m_folder.file(movie), stream).size();
  }
  /// What is shown of a movie, frame by frame, without the timestamps.
  std::string frames(const std::string& movie) const {
    return run_command("ffmpeg -nostdin -v error -xerror -i " + meru_test::quoted(m_folder.file(movie)) + " -map 0:v " +
                       every_picture() + " -f framemd5 - | grep -v '^#' | sed 's/.*, //'")
        .output;
  }

  ToolFolder m_folder;
};

TEST_P(RemuxTimestampsTest, EveryPacketAndFrameIsThere) {
  const auto& [making, b_frames] = GetParam();
  m_folder.make(std::string(making.before) + " -i " +
                meru_test::quoted(sources().file("source" + std::to_string(b_frames) + ".mp4")) + " -c copy " +
                making.after + " " + making.movie);
  const size_t video = packets(making.movie, "v:0");
  ASSERT_GT(video, 50U);
  for (const char* out : {"out.mp4", "out.mkv"}) {
    SCOPED_TRACE(out);
    const ToolRun run = m_folder.run(std::string("remux ") + making.movie + " -o " + out);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(packets(out, "v:0"), video);
    EXPECT_EQ(packets(out, "a:0"), packets(making.movie, "a:0"));
    EXPECT_EQ(decode_errors(m_folder.file(out)), "");
  }
  // An edit list hides what a trimmed movie holds before its beginning. Matroska has none, and shows it.
  EXPECT_EQ(frames("out.mp4"), frames(making.movie));
  const std::string all = frames("out.mkv");
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), '\n')), video);
  const auto begins = probe_packets(m_folder.file("out.mp4"), "v:0");
  const auto shown = std::find_if(begins.begin(), begins.end(), [](const auto& packet) { return packet.pts >= 0; });
  ASSERT_NE(shown, begins.end());
  EXPECT_LT(shown->pts, 0.2);
}

INSTANTIATE_TEST_SUITE_P(All, RemuxTimestampsTest, testing::Combine(testing::ValuesIn(kMakings), testing::Values(0, 3)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param).name) +
                                  (std::get<1>(row.param) > 0 ? "WithBFrames" : "");
                         });

class RemuxBFramesTest : public testing::TestWithParam<const char*> {};

/// Elementary streams have no timestamps, movies have both.
TEST_P(RemuxBFramesTest, ComeThroughInEveryContainer) {
  ToolFolder folder;
  folder.make("-f lavfi -i testsrc2=size=160x120:rate=25 -t 4 -c:v libx264 -preset veryfast -bf 3 -g 25 movie.mp4");
  folder.make("-i movie.mp4 -c copy -f h264 v.h264");
  const std::string frames = decoded(folder.file("movie.mp4"), every_picture() + " -f md5");
  const std::string out = std::string("out.") + GetParam();
  for (const char* source : {"movie.mp4", "--video v.h264 --fps 25"}) {
    SCOPED_TRACE(source);
    const ToolRun run = folder.run(std::string("remux ") + source + " -o " + out);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(decode_errors(folder.file(out)), "");
    EXPECT_EQ(decoded(folder.file(out), every_picture() + " -f md5"), frames);
    EXPECT_EQ(probe_packets(folder.file(out), "v:0").size(), 100U);
  }
}
INSTANTIATE_TEST_SUITE_P(Containers, RemuxBFramesTest, testing::Values("mp4", "mkv", "flv", "ts"),
                         [](const auto& container) { return std::string(container.param); });

/// The encoder announces B-frames, and one frame has none.
TEST(RemuxOneFrameTest, IsNotRefusedAndShown) {
  const ToolFolder folder;
  folder.make("-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 1 -c:v libx264 one.mp4");
  for (const char* out : {"out.mp4", "out.mkv", "out.flv"}) {
    const ToolRun run = folder.run(std::string("remux one.mp4 -o ") + out);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(count_frames(folder.file(out)), 1);
  }
  EXPECT_GT(number(probe_stream(folder.file("out.mp4"), "video"), "duration"), 0);
}

}  // namespace
}  // namespace meru_test

// The command `meru remux`: packets come through byte for byte, from elementary streams and from movies.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/case_name.h"
#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/raw_media.h"

namespace meru_test {
namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;

class MeruRemuxTest : public testing::Test {
 protected:
  void SetUp() override {
    m_folder.make(
        "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=sample_rate=48000 -t 4 -c:v libx264 -preset "
        "ultrafast -bf 0 -g 25 -c:a aac -b:a 64k movie.mp4");
    m_folder.make("-i movie.mp4 -map 0:v -c copy -f h264 v.h264 -map 0:a -c copy a.aac");
  }

  std::vector<std::string> hashes_of(const std::string& movie, const std::string& stream) const {
    std::vector<std::string> hashes;
    for (const auto& packet : probe_packets(m_folder.file(movie), stream)) hashes.push_back(packet.hash);
    return hashes;
  }
  /// The pictures that decode and the packets of the sound are those of the movie.
  void expect_same(const std::string& remuxed) const {
    EXPECT_EQ(decode_errors(m_folder.file(remuxed)), "");
    EXPECT_EQ(decoded(m_folder.file(remuxed), "-map 0:v -f md5"),
              decoded(m_folder.file("movie.mp4"), "-map 0:v -f md5"));
    EXPECT_EQ(hashes_of(remuxed, "a:0"), hashes_of("movie.mp4", "a:0"));
  }

  ToolFolder m_folder;
};

class MeruRemuxContainerTest : public MeruRemuxTest, public testing::WithParamInterface<const char*> {};

TEST_P(MeruRemuxContainerTest, ElementaryStreamsComeThrough) {
  const std::string out = std::string("out.") + GetParam();
  const ToolRun run = m_folder.run("remux --video v.h264 --fps 25 --audio a.aac -o " + out);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("remuxed 00:00:0"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("100 frames"), std::string::npos) << run.out;
  const RawPackets sound = [&] {
    RawPackets packets;
    for (std::string& frame : split_adts(file_bytes(m_folder.file("a.aac")))) packets.push_back({std::move(frame), 0});
    return packets;
  }();
  EXPECT_EQ(hashes_of(out, "a:0"), audio_hashes(sound));
  const auto video = probe_packets(m_folder.file(out), "v:0");
  ASSERT_EQ(video.size(), 100U);
  for (size_t i = 0; i < video.size(); ++i) EXPECT_NEAR(video[i].pts, static_cast<double>(i) / 25, 0.001) << i;
}

TEST_P(MeruRemuxContainerTest, MovieComesThroughWithItsStamps) {
  const std::string out = std::string("out.") + GetParam();
  const ToolRun run = m_folder.run("remux movie.mp4 -o " + out);
  ASSERT_EQ(run.status, 0) << run.err;
  expect_same(out);
  const auto before = probe_packets(m_folder.file("movie.mp4"), "v:0");
  const auto after = probe_packets(m_folder.file(out), "v:0");
  ASSERT_EQ(after.size(), before.size());
  // All stamps move together: the sound begins before the pictures.
  const double shift = after[0].pts - before[0].pts;
  EXPECT_LT(std::abs(shift), 0.1);
  for (size_t i = 0; i < after.size(); ++i) EXPECT_NEAR(after[i].pts - before[i].pts, shift, 0.0011) << i;
}

INSTANTIATE_TEST_SUITE_P(Containers, MeruRemuxContainerTest, testing::Values("mp4", "mkv", "flv"),
                         [](const auto& container) { return std::string(container.param); });

TEST_F(MeruRemuxTest, OneMediumAlone) {
  ASSERT_EQ(m_folder.run("remux movie.mp4 --no-audio -o v.mp4").status, 0);
  ASSERT_EQ(m_folder.run("remux movie.mp4 --no-video -o a.mp4").status, 0);
  ASSERT_EQ(m_folder.run("remux v.h264 -o plain.mkv").status, 0);
  EXPECT_EQ(probe(m_folder.file("v.mp4"), "-show_streams").at("streams").size(), 1U);
  EXPECT_EQ(probe(m_folder.file("a.mp4"), "-show_streams").at("streams").size(), 1U);
  EXPECT_EQ(probe_packets(m_folder.file("v.mp4"), "v:0").size(), 100U);
  EXPECT_EQ(hashes_of("a.mp4", "a:0"), hashes_of("movie.mp4", "a:0"));
  EXPECT_EQ(probe_packets(m_folder.file("plain.mkv"), "v:0").size(), 100U);
}

TEST_F(MeruRemuxTest, FurtherOutputHoldsTheSame) {
  const ToolRun run = m_folder.run("remux movie.mp4 -o out.mp4 --also further.mkv");
  ASSERT_EQ(run.status, 0) << run.err;
  expect_same("out.mp4");
  expect_same("further.mkv");
}

TEST_F(MeruRemuxTest, SoundThatIsMuchShorterIsNoObstacle) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=30 -t 60 -c:v libx264 -preset ultrafast -bf 0 -f h264 long.h264");
  const ToolRun run = m_folder.run("remux --video long.h264 --fps 30 --audio a.aac -o out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(probe_packets(m_folder.file("out.mp4"), "v:0").size(), 1800U);
  EXPECT_EQ(hashes_of("out.mp4", "a:0"), hashes_of("movie.mp4", "a:0"));
}

struct RareImages {
  const char* name;
  const char* rate;
  int seconds;
  size_t count;
};
void PrintTo(const RareImages& c, std::ostream* out) { *out << c.rate; }

class MeruRemuxRareImagesTest : public MeruRemuxTest, public testing::WithParamInterface<RareImages> {};

/// As a screen recorder leaves it that writes an image when something has changed.
TEST_P(MeruRemuxRareImagesTest, AreNoObstacleToTheSound) {
  const std::string seconds = std::to_string(GetParam().seconds);
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=" + std::string(GetParam().rate) + ":duration=" + seconds +
                " -f lavfi -i sine=sample_rate=48000:duration=" + seconds +
                " -c:v libx264 -preset ultrafast -bf 0 -c:a aac rare.mp4");
  const auto before = probe_packets(m_folder.file("rare.mp4"), "v:0");
  ASSERT_EQ(before.size(), GetParam().count);
  const ToolRun run = m_folder.run("remux rare.mp4 -o out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(hashes_of("out.mp4", "a:0"), hashes_of("rare.mp4", "a:0"));
  const auto after = probe_packets(m_folder.file("out.mp4"), "v:0");
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) EXPECT_NEAR(after[i].pts, before[i].pts, 0.1) << i;
}

INSTANTIATE_TEST_SUITE_P(Rates, MeruRemuxRareImagesTest,
                         testing::Values(RareImages{"SixAMinute", "1/10", 40, 4},
                                         RareImages{"TwentyInAllSixAMinute", "1/10", 200, 20},
                                         RareImages{"OneAMinute", "1/60", 180, 3}),
                         CaseName());

TEST_F(MeruRemuxTest, OnePictureUnderALongSound) {
  m_folder.make(
      "-f lavfi -i color=red:size=64x48:rate=1:duration=1 -f lavfi -i sine=sample_rate=48000:duration=30 -c:v libx264 "
      "-bf 0 -c:a aac one.mp4");
  const ToolRun run = m_folder.run("remux one.mp4 -o out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(probe_packets(m_folder.file("out.mp4"), "v:0").size(), 1U);
  EXPECT_EQ(hashes_of("out.mp4", "a:0"), hashes_of("one.mp4", "a:0"));
}

TEST_F(MeruRemuxTest, KilledRemuxIsRepairedWithPicturesAndSound) {
  m_folder.make(
      "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=sample_rate=48000 -t 60 -c:v libx264 -preset "
      "ultrafast "
      "-bf 0 -g 25 -c:a aac long.mp4");
  ToolProcess process(m_folder, "long.mp4 --realtime --progress 20 -o cut.mp4 --index cut.index", -1, "remux");
  ASSERT_TRUE(process.reaches(2)) << process.err();
  process.send(SIGKILL);
  ASSERT_EQ(process.wait(), 128 + SIGKILL);
  const ToolRun run = m_folder.run("repair --json cut.mp4 cut.index out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
  const auto video = hashes_of("out.mp4", "v:0");
  const auto audio = hashes_of("out.mp4", "a:0");
  // Six packets of each medium are held back for their order, some more are on their way through the demuxers.
  ASSERT_GT(video.size(), 25U);
  ASSERT_GT(audio.size(), 45U);
  const auto source = hashes_of("long.mp4", "a:0");
  EXPECT_TRUE(std::equal(audio.begin(), audio.end(), source.begin()));
  EXPECT_GT(decoded_sound(m_folder.file("out.mp4")).size(), 40000U);
}

/// The side index keeps both timestamps of each frame.
TEST_F(MeruRemuxTest, KilledRemuxWithBFramesIsRepairedWithItsTimestamps) {
  m_folder.make(
      "-f lavfi -i testsrc2=size=160x120:rate=25 -t 30 -c:v libx264 -preset ultrafast -bf 3 -g 25 -b_strategy 0 "
      "long.mp4");
  ToolProcess process(m_folder, "long.mp4 --realtime --progress 20 -o cut.mp4 --index cut.index", -1, "remux");
  ASSERT_TRUE(process.reaches(3)) << process.err();
  process.send(SIGKILL);
  ASSERT_EQ(process.wait(), 128 + SIGKILL);
  const ToolRun run = m_folder.run("repair --json cut.mp4 cut.index out.mp4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
  const auto source = probe_packets(m_folder.file("long.mp4"), "v:0");
  const auto found = probe_packets(m_folder.file("out.mp4"), "v:0");
  ASSERT_GT(found.size(), 40U);
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i].pts, source[i].pts, 0.002) << i;
    EXPECT_NEAR(found[i].dts, source[i].dts, 0.002) << i;
  }
}

TEST_F(MeruRemuxTest, CtrlCCompletesTheMovie) {
  ToolProcess process(m_folder, "movie.mp4 --realtime --progress 20 -o out.mp4", -1, "remux");
  ASSERT_TRUE(process.reaches(1)) << process.err();
  process.send(SIGINT);
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(decode_errors(m_folder.file("out.mp4")), "");
  EXPECT_LT(probe_packets(m_folder.file("out.mp4"), "v:0").size(), 100U);
}

struct RemuxFailure {
  const char* name;
  const char* arguments;
  int status;
  const char* says;
};
void PrintTo(const RemuxFailure& c, std::ostream* out) { *out << c.arguments; }

class MeruRemuxFailureTest : public MeruRemuxTest, public testing::WithParamInterface<RemuxFailure> {
 protected:
  void SetUp() override {
    MeruRemuxTest::SetUp();
    m_folder.make("-i a.aac -c:a libmp3lame sound.mp3");
    write_file(m_folder.file("words"), "no movie at all\n");
  }
};

TEST_P(MeruRemuxFailureTest, IsOneLine) {
  const ToolRun run = m_folder.run(std::string("remux ") + GetParam().arguments);
  EXPECT_EQ(run.status, GetParam().status);
  EXPECT_EQ(line_count(run.err), 1) << run.err;
  EXPECT_EQ(run.err.rfind("meru: ", 0), 0U) << run.err;
  EXPECT_NE(run.err.find(GetParam().says), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, MeruRemuxFailureTest,
    testing::Values(RemuxFailure{"nothing", "-o o.mp4", kUsage, "nothing to remux"},
                    RemuxFailure{"both", "movie.mp4 --audio a.aac -o o.mp4", kUsage, "exclude each other"},
                    RemuxFailure{"no_output", "movie.mp4", kUsage, "output"},
                    RemuxFailure{"onto_itself", "movie.mp4 -o ./movie.mp4", kUsage, "is a source itself"},
                    RemuxFailure{"index_onto_itself", "movie.mp4 -o o.mp4 --index movie.mp4", kUsage,
                                 "is a source itself"},
                    RemuxFailure{"movie_as_index", "movie.mp4 -o o.mp4 --index ./o.mp4", kUsage, "is given twice"},
                    RemuxFailure{"twice", "movie.mp4 -o o.mp4 --also o.mp4", kUsage, "is given twice"},
                    RemuxFailure{"missing", "no.mp4 -o o.mp4", kFailure, "No such file"},
                    RemuxFailure{"words", "words -o o.mp4", kFailure, "Invalid data"},
                    RemuxFailure{"missing_folder", "movie.mp4 -o no/o.mp4", kFailure, "No such file"},
                    RemuxFailure{"other_codec", "sound.mp3 -o o.mp4", kFailure, "only aac"},
                    RemuxFailure{"unknown_container", "movie.mp4 -o o.what", kFailure, "suitable output format"},
                    RemuxFailure{"medium_left_out", "v.h264 --no-video -o o.mp4", kFailure, "nothing to remux"}),
    CaseName());

}  // namespace
}  // namespace meru_test

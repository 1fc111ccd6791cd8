// What comes back of a cut movie: every packet the index names, and the same pictures and sound.

#include <gtest/gtest.h>

#include "meru/repair.h"
#include "support/cut_recording.h"
#include "support/probe.h"

namespace meru_test {
namespace {

using Kind = CutRecording::Kind;

class RepairMovieTest : public testing::TestWithParam<Kind> {};

bool repair(const CutRecording& movie, const std::string& index) {
  return MERU_StartRepair_sync(movie.broken.c_str(), index.c_str(), movie.output.c_str(), nullptr, nullptr);
}

bool is_prefix(const std::string& part, const std::string& whole) { return whole.compare(0, part.size(), part) == 0; }

/// One line for each decoded picture, with its time and a hash.
std::string picture_hashes(const std::string& path) { return decoded(path, "-map 0:v:0 -c:v rawvideo -f framemd5"); }

std::string sound(const std::string& path) { return decoded(path, "-map 0:a:0 -f s16le"); }

/// The index with another value for a member of the sound's line.
std::string edited_index(const CutRecording& movie, const std::string& member, const std::string& value) {
  std::string text = file_text(movie.index);
  const size_t line = text.find("{\"type\":\"audio\"");
  const size_t at = text.find(member, line);
  if (line == std::string::npos || at == std::string::npos) throw std::runtime_error("no " + member);
  const size_t begin = at + member.size();
  text.replace(begin, text.find('"', begin) - begin, value);
  write_file(movie.file("edited.idx"), text);
  return movie.file("edited.idx");
}

TEST_P(RepairMovieTest, GivesBackEveryPacketAndWhatItShows) {
  const CutRecording movie(GetParam(), 60);
  EXPECT_NE(decode_errors(movie.broken), "");
  ASSERT_TRUE(repair(movie, movie.index));

  const auto restored = sorted_samples(movie.output);
  EXPECT_EQ(restored, sorted_named_bytes(movie.index, movie.broken));
  EXPECT_EQ(restored.size() + 1, sorted_samples(movie.whole).size());  // the last packet has no record
  EXPECT_EQ(decode_errors(movie.output), "");
  if (!GetParam().no_video) {
    EXPECT_TRUE(is_prefix(picture_hashes(movie.output), picture_hashes(movie.whole)));
    EXPECT_GE(count_frames(movie.output), 59);
    const auto video = probe_stream(movie.output, "video");
    const auto before = probe_stream(movie.whole, "video");
    for (const char* key : {"codec_name", "profile", "width", "height", "pix_fmt", "time_base", "start_time"}) {
      EXPECT_EQ(video.at(key), before.at(key)) << key;
    }
  }
  if (!GetParam().no_audio) {
    const std::string heard = sound(movie.output);
    EXPECT_TRUE(is_prefix(heard, sound(movie.whole)));
    EXPECT_GT(heard.size(), 2.2 * 48000 * 2 * 2);
    const auto audio = probe_stream(movie.output, "audio");
    const auto before = probe_stream(movie.whole, "audio");
    for (const char* key : {"codec_name", "profile", "sample_rate", "channels", "time_base", "start_time"}) {
      EXPECT_EQ(audio.at(key), before.at(key)) << key;
    }
  }
}

TEST_P(RepairMovieTest, TimesAndKeyFramesAreThoseOfTheWholeMovie) {
  const CutRecording movie(GetParam(), 60);
  ASSERT_TRUE(repair(movie, movie.index));
  for (const char* stream : {"v:0", "a:0"}) {
    if (stream[0] == 'v' ? GetParam().no_video : GetParam().no_audio) continue;
    const auto before = probe_packets(movie.whole, stream);
    const auto after = probe_packets(movie.output, stream);
    ASSERT_GE(after.size() + 1, before.size());
    for (size_t i = 0; i < after.size(); ++i) {
      EXPECT_DOUBLE_EQ(after[i].pts, before[i].pts) << stream << i;
      EXPECT_DOUBLE_EQ(after[i].dts, before[i].dts) << stream << i;
      // The last one ends with the edit list, which counts milliseconds.
      EXPECT_NEAR(after[i].duration, before[i].duration, i + 1 < after.size() ? 1e-9 : 0.001) << stream << i;
      EXPECT_EQ(after[i].key, before[i].key) << stream << i;
      EXPECT_EQ(after[i].hash, before[i].hash) << stream << i;
    }
  }
}

constexpr Kind kKinds[] = {{"mp4", "mp4", false, false},         {"mov", "mov", false, false},
                           {"mp4_pictures", "mp4", false, true}, {"mov_pictures", "mov", false, true},
                           {"mp4_sound", "mp4", true, false},    {"mov_sound", "mov", true, false}};
INSTANTIATE_TEST_SUITE_P(All, RepairMovieTest, testing::ValuesIn(kKinds),
                         [](const auto& test) { return test.param.name; });

class RepairSoundTest : public testing::TestWithParam<Kind> {};

TEST_P(RepairSoundTest, ComesBackWithoutItsParameters) {
  const CutRecording movie(GetParam(), 50);
  ASSERT_TRUE(repair(movie, movie.index));
  const std::string before = sound(movie.output);
  ASSERT_TRUE(repair(movie, edited_index(movie, "\"qv\":\"", "")));
  EXPECT_EQ(decode_errors(movie.output), "");
  EXPECT_TRUE(sound(movie.output) == before);
  EXPECT_EQ(probe_stream(movie.output, "audio").at("sample_rate"), "48000");
}

INSTANTIATE_TEST_SUITE_P(Kinds, RepairSoundTest, testing::Values(kKinds[0], kKinds[1], kKinds[4]),
                         [](const auto& test) { return test.param.name; });

TEST(RepairContainers, AnotherContainerTakesTheSamePackets) {
  const CutRecording movie(kKinds[0], 50);
  for (const char* name : {"a.mov", "a.mkv", "a.flv", "a.ts"}) {
    const std::string output = movie.file(name);
    ASSERT_TRUE(MERU_StartRepair_sync(movie.broken.c_str(), movie.index.c_str(), output.c_str(), nullptr, nullptr));
    EXPECT_EQ(decode_errors(output), "") << name;
    EXPECT_GE(count_frames(output), 49) << name;
  }
}

}  // namespace
}  // namespace meru_test

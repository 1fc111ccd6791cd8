// A recorder that is killed in the middle, as a crash or the system would, and the repair of what it leaves behind.
#include "support/killed_recording.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

#include "support/case_name.h"

namespace {

using meru_test::KilledCase;
using meru_test::KilledRecording;

constexpr double kMostLost = 0.6;  // seconds
constexpr char kBoth[] = "--test --size 320x180 --fps 30 --preset ultrafast --tune zerolatency";
constexpr char kSlow[] =
    "--test --no-audio --size 320x180 --fps 5 --v-bitrate 200 --preset ultrafast --tune zerolatency";
constexpr char kSound[] = "--test --no-video";

/// All kills together; each kind of recording gets its share. tests/fault/kill_storm.sh asks for more.
int kills() {
  const char* text = std::getenv("MERU_KILLS");
  return text != nullptr ? std::atoi(text) : 20;
}

class KilledRecordingTest : public testing::TestWithParam<KilledCase> {
 protected:
  static constexpr int kKinds = 6;
  static int my_kills() { return (kills() + kKinds - 1) / kKinds; }

  void kill_and_repair(KilledRecording* recording, const std::vector<std::string>& expected) {
    recording->record_and_kill(std::chrono::milliseconds(std::uniform_int_distribution<>(0, 2000)(m_random)));
    const auto repair = recording->repair();
    ASSERT_EQ(repair.status, 0) << repair.err;
    EXPECT_EQ(meru_test::decode_errors(recording->repaired()), "");
    EXPECT_EQ(recording->differing_packet(), "");
    if (GetParam().fps > 0) expect_prefix(meru_test::picture_hashes(recording->repaired()), expected);
    if (GetParam().sound) expect_sound_to_its_end(recording->repaired());
    const double loss = recording->loss();
    EXPECT_LE(loss, kMostLost);
    m_losses.push_back(loss);
    std::cout << "kill " << GetParam().name << " recorded " << recording->handed().seconds << " lost " << loss << "\n";
  }

  static void expect_prefix(const std::vector<std::string>& pictures, const std::vector<std::string>& expected) {
    ASSERT_FALSE(pictures.empty());
    ASSERT_LE(pictures.size(), expected.size());
    EXPECT_TRUE(std::equal(pictures.begin(), pictures.end(), expected.begin()))
        << "a picture is not that of the source";
  }

  /// Every packet of the sound gives its samples.
  static void expect_sound_to_its_end(const std::string& movie) {
    const auto stream = meru_test::probe_stream(movie, "audio", "-count_frames -count_packets");
    EXPECT_GT(meru_test::number(stream, "nb_read_packets"), 0);
    // The decoder keeps the packet to itself that only prepares it.
    EXPECT_GE(meru_test::number(stream, "nb_read_frames") + 1, meru_test::number(stream, "nb_read_packets"));
  }

  void print_losses() {
    if (m_losses.empty()) return;
    std::sort(m_losses.begin(), m_losses.end());
    std::cout << GetParam().name << ": " << m_losses.size() << " kills, median loss " << m_losses[m_losses.size() / 2]
              << " s, worst " << m_losses.back() << " s\n";
  }

  const unsigned m_seed = std::random_device()();
  std::mt19937 m_random{m_seed};
  std::vector<double> m_losses;
};

TEST_P(KilledRecordingTest, IsRepairedUpToTheLastMoments) {
  SCOPED_TRACE("seed " + std::to_string(m_seed));
  KilledRecording recording(GetParam());
  std::vector<std::string> expected;
  if (GetParam().fps > 0) expected = meru_test::picture_hashes(recording.undisturbed(20));
  for (int i = 0; i < my_kills(); ++i) {
    ASSERT_NO_FATAL_FAILURE(kill_and_repair(&recording, expected)) << "kill " << i;
  }
  print_losses();
}

INSTANTIATE_TEST_SUITE_P(Kinds, KilledRecordingTest,
                         testing::Values(KilledCase{"Mp4VideoAndSound", "mp4", kBoth, 30, true},
                                         KilledCase{"MovVideoAndSound", "mov", kBoth, 30, true},
                                         KilledCase{"Mp4SlowVideo", "mp4", kSlow, 5, false},
                                         KilledCase{"MovSlowVideo", "mov", kSlow, 5, false},
                                         KilledCase{"Mp4Sound", "mp4", kSound, 0, true},
                                         KilledCase{"MovSound", "mov", kSound, 0, true}),
                         meru_test::CaseName());

}  // namespace

// The sound of `meru screen` on its way from a source to the movie: brought to its time, without a jump in it.

#include "screen/sound_track.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "meru/recording.h"
#include "screen/steady_usec.h"
#include "support/eventually.h"

namespace meru_test {
namespace {

using meru_tool::SoundFormat;
using meru_tool::SoundTrack;
using meru_tool::steady_usec;

constexpr int kRate = 48000;
constexpr int64_t kPiece = kRate / 50;  // samples

/// A track in mono, and what it has pushed. Times are microseconds from the movie's beginning.
class SoundTrackTest : public testing::Test {
 protected:
  SoundTrackTest()
      : m_begin(MERU_current_sys_usec()),
        m_steady_begin(steady_usec()),
        m_stamp(m_begin),
        m_track({kRate, 1}, ways()) {}

  /// A piece that is given now and was taken then. @param samples  all of this value
  void give(int64_t taken, int64_t samples = kPiece, int16_t value = 1000) {
    const std::vector<int16_t> pcm(static_cast<size_t>(samples), value);
    m_track.add(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t), m_steady_begin + taken);
  }
  /// The beginning of a movie and pieces that follow one another at a pace of their own.
  void give_pieces(int count, double usec_a_piece, int64_t samples = kPiece) {
    m_track.begin(m_begin);
    for (int i = 0; i < count; ++i) give(static_cast<int64_t>(i * usec_a_piece), samples);
  }
  void finish(int64_t end) { m_track.finish(m_begin + end); }

  SoundTrack::Ways ways() {
    SoundTrack::Ways ways;
    ways.push = [this](uint8_t* pcm, size_t bytes, int64_t usec) { take(pcm, bytes, usec); };
    ways.on_failure = [this](const std::string& reason) { m_failure = reason; };
    ways.on_missing = [this](bool missing) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_missing.push_back(missing);
    };
    return ways;
  }
  void take(const uint8_t* pcm, size_t bytes, int64_t usec) {
    const std::lock_guard<std::mutex> lock(m_push);
    if (m_refuses) throw std::runtime_error("refused");
    if (pcm == nullptr) {
      ++m_silences;
      m_silent += usec - m_stamp;
      m_stamp = usec;
      return;
    }
    m_stamp = usec;
    m_samples += static_cast<int64_t>(bytes / sizeof(int16_t));
    m_end = usec - m_begin + static_cast<int64_t>(bytes / sizeof(int16_t)) * 1000000 / kRate;
  }
  std::vector<bool> missing() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_missing;
  }

  // The track's thread writes these; they are read behind finish().
  int64_t m_samples = 0, m_end = 0, m_silences = 0, m_silent = 0;
  std::string m_failure;
  bool m_refuses = false;
  std::mutex m_push;  // whoever locks it holds the thread at its next push
  std::mutex m_mutex;
  std::vector<bool> m_missing;  // guarded by m_mutex
  const int64_t m_begin, m_steady_begin;
  int64_t m_stamp;  // the track's thread's: of the last push
  SoundTrack m_track;
};

struct ClockCase {
  const char* name;
  double pace;  ///< of the device's clock
  int64_t samples;
};

class SoundTrackClockTest : public SoundTrackTest, public testing::WithParamInterface<ClockCase> {};

// A thousandth is twenty times what a sound card is off.
TEST_P(SoundTrackClockTest, DeviceThatIsALittleOffIsFollowedWithoutAHole) {
  const ClockCase& row = GetParam();
  const double usec_a_piece = static_cast<double>(row.samples) * 1e6 / kRate * row.pace;
  const int count = static_cast<int>(9e6 / usec_a_piece);
  give_pieces(count, usec_a_piece, row.samples);
  const auto end = static_cast<int64_t>(count * usec_a_piece);
  finish(end);
  EXPECT_EQ(m_silences, 0);
  EXPECT_NEAR(static_cast<double>(m_end), static_cast<double>(end), 7000);
  EXPECT_NEAR(static_cast<double>(m_samples) * 1e6 / kRate, static_cast<double>(end), 7000);
}

INSTANTIATE_TEST_SUITE_P(Paces, SoundTrackClockTest,
                         testing::Values(ClockCase{"Exact", 1, kPiece}, ClockCase{"Slow", 1.001, kPiece},
                                         ClockCase{"Fast", 0.999, kPiece}, ClockCase{"SlowInSmallPieces", 1.001, 48},
                                         ClockCase{"FastInSmallPieces", 0.999, 48}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(SoundTrackTest, SmallPiecesLoseASampleNowAndThenOnly) {
  m_track.begin(m_begin);
  give(0);
  // From here on all is twenty milliseconds early.
  constexpr int64_t kPieces = 1000, kSmall = 48;
  for (int64_t i = 0; i < kPieces; ++i) give(i * 1000, kSmall);
  finish(kPieces * 1000);
  const int64_t given = kPiece + kPieces * kSmall;
  EXPECT_LT(m_samples, given);
  EXPECT_GE(m_samples, given - given / 500 - kPiece) << "a sample in five hundred, and what lies beyond the end";
}

TEST_F(SoundTrackTest, FirstSoundThatIsLateIsPrecededBySilence) {
  m_track.begin(m_begin);
  give(30000);
  finish(50000);
  EXPECT_EQ(m_silences, 1);
  EXPECT_NEAR(static_cast<double>(m_silent), 30000, 1000);
  EXPECT_NEAR(static_cast<double>(m_samples), 1.0 * kPiece, 50);
  EXPECT_NEAR(static_cast<double>(m_end), 50000, 1000);
}

TEST_F(SoundTrackTest, HoleIsSilenceAndWhatFollowsIsAtItsTime) {
  m_track.begin(m_begin);
  give(0);
  give(500000);
  finish(520000);
  EXPECT_EQ(m_silences, 1);
  EXPECT_NEAR(static_cast<double>(m_silent), 480000, 1000);
  EXPECT_NEAR(static_cast<double>(m_samples), 2.0 * kPiece, 50)
      << "the clocks of both ends are read one after the other";
  EXPECT_NEAR(static_cast<double>(m_end), 520000, 1000);
}

TEST_F(SoundTrackTest, WhatWasTakenBeforeTheBeginningAndBehindTheEndIsCutOff) {
  // What has been pushed cannot be cut any more, so the thread is held at the first piece until the end is known.
  std::unique_lock<std::mutex> hold(m_push);
  m_track.begin(m_begin);
  give(-10000);
  give(10000);
  give(30000);
  std::thread finisher([this] { finish(40000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  hold.unlock();
  finisher.join();
  EXPECT_NEAR(static_cast<double>(m_samples), kRate * 0.04, 100);
  EXPECT_NEAR(static_cast<double>(m_end), 40000, 1000);
}

TEST_F(SoundTrackTest, SourceThatGivesNothingIsToldOnceAndSilentUntilItGivesSomething) {
  m_track.begin(m_begin);
  give(0);
  ASSERT_TRUE(eventually([&] { return !missing().empty(); }));
  EXPECT_GE(steady_usec() - m_steady_begin, 2000000);
  const int64_t later = steady_usec() + 200000;
  ASSERT_TRUE(eventually([&] { return steady_usec() >= later; }));
  give(steady_usec() - m_steady_begin);
  ASSERT_TRUE(eventually([&] { return missing().size() > 1; }));
  finish(steady_usec() - m_steady_begin);
  EXPECT_EQ(missing(), (std::vector<bool>{true, false}));
  EXPECT_GE(m_silences, 2);
}

TEST_F(SoundTrackTest, OutputThatRefusesEndsItWithItsReason) {
  m_refuses = true;
  give_pieces(3, 20000);
  finish(60000);
  EXPECT_EQ(m_failure, "refused");
  EXPECT_EQ(m_samples, 0);
}

}  // namespace
}  // namespace meru_test

// Sound from a real sound server: what is captured, and when it is said to have been taken.

#include "screen/sound_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "failure.h"
#include "support/eventually.h"
#include "support/pulse_player.h"
#include "support/pulse_server.h"
#include "support/tone.h"

namespace meru_test {
namespace {

using meru_tool::Failure;
using meru_tool::open_sound;
using meru_tool::SoundFormat;
using meru_tool::SoundListener;
using meru_tool::SoundSource;

/// What a source has told so far.
class Heard {
 public:
  struct Piece {
    int64_t taken;
    int64_t samples;
    int64_t heard_at;
  };

  explicit Heard(const SoundFormat& format = {}) : m_format(format) {}

  SoundListener listener() {
    return {[this](const uint8_t* pcm, size_t bytes, int64_t taken) { add(pcm, bytes, taken); },
            [this](const std::string& reason) {
              const std::lock_guard<std::mutex> lock(m_mutex);
              m_lost.push_back(reason);
            }};
  }
  std::vector<Piece> pieces() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_pieces;
  }
  /// The first channel.
  std::vector<int16_t> samples() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_samples;
  }
  std::vector<std::string> lost() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lost;
  }
  bool has_seconds(double seconds) {
    return eventually([&] { return static_cast<double>(samples().size()) >= seconds * m_format.sample_rate; });
  }
  /// The last seconds of it.
  std::vector<int16_t> tail(double seconds) {
    const std::vector<int16_t> all = samples();
    const auto wanted = static_cast<ptrdiff_t>(seconds * m_format.sample_rate);
    return {all.end() - std::min<ptrdiff_t>(wanted, static_cast<ptrdiff_t>(all.size())), all.end()};
  }
  /// When each click in it was taken.
  std::vector<int64_t> clicks() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<int64_t> found;
    size_t piece = 0;
    int64_t first = 0;  // sample of the piece
    for (const int64_t start : click_starts(m_samples, m_format.sample_rate)) {
      for (; start >= first + m_pieces[piece].samples; ++piece) first += m_pieces[piece].samples;
      found.push_back(m_pieces[piece].taken + (start - first) * 1000000 / m_format.sample_rate);
    }
    return found;
  }

 private:
  void add(const uint8_t* pcm, size_t bytes, int64_t taken) {
    const auto channels = static_cast<size_t>(m_format.channels);
    const auto* values = reinterpret_cast<const int16_t*>(pcm);
    const size_t samples = bytes / sizeof(int16_t) / channels;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pieces.push_back({taken, static_cast<int64_t>(samples), steady_usec()});
    for (size_t i = 0; i < samples; ++i) m_samples.push_back(values[i * channels]);
  }

  const SoundFormat m_format;
  std::mutex m_mutex;
  std::vector<Piece> m_pieces;      // guarded by m_mutex
  std::vector<int16_t> m_samples;   // guarded by m_mutex
  std::vector<std::string> m_lost;  // guarded by m_mutex
};

/// Why a source cannot be opened, empty when it can.
std::string refusal(const std::string& device, const SoundFormat& format = {}) {
  Heard heard;
  try {
    open_sound(device, format, heard.listener());
  } catch (const Failure& e) {
    return e.what();
  }
  return {};
}

TEST(SoundSourceTest, CapturesTheToneThatIsPlayed) {
  const PulseServer server;
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  Heard heard;
  const auto source = open_sound("default", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(1.5));
  EXPECT_GT(tone_share(heard.tail(1), 48000, 1000), 0.9);
  EXPECT_GT(loudest(heard.tail(1)), 10000);
  EXPECT_TRUE(heard.lost().empty());
}

TEST(SoundSourceTest, OtherRateAndMonoAreConvertedByTheServer) {
  const PulseServer server;
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  const SoundFormat format{22050, 1};
  Heard heard(format);
  const auto source = open_sound("speaker.monitor", format, heard.listener());
  ASSERT_TRUE(heard.has_seconds(1.5));
  EXPECT_GT(tone_share(heard.tail(1), 22050, 1000), 0.9);
}

TEST(SoundSourceTest, NameOfASinkTakesWhatItPlays) {
  const PulseServer server({"speaker", "headphones"});
  const PulsePlayer low("speaker", PulsePlayer::tone(500));
  const PulsePlayer high("headphones", PulsePlayer::tone(2000));
  for (const char* name : {"headphones", "headphones.monitor"}) {
    Heard heard;
    const auto source = open_sound(name, {}, heard.listener());
    ASSERT_TRUE(heard.has_seconds(1.5));
    EXPECT_GT(tone_share(heard.tail(1), 48000, 2000), 0.9) << name;
    EXPECT_LT(tone_share(heard.tail(1), 48000, 500), 0.01) << name;
  }
}

TEST(SoundSourceTest, StampsGoOnAsTheSamplesDo) {
  const PulseServer server;
  Heard heard;
  const auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(2));
  const auto pieces = heard.pieces();
  int jumps = 0;
  for (size_t i = 1; i < pieces.size(); ++i) {
    const double length = static_cast<double>(pieces[i - 1].samples) * 1e6 / 48000;
    const double off = static_cast<double>(pieces[i].taken - pieces[i - 1].taken) - length;
    if (std::abs(off) > length * 0.01 + 1) ++jumps;
  }
  // A server that gets no processor for long has sound missing, and its time jumps there.
  EXPECT_LE(jumps, 1) << "of " << pieces.size();
}

TEST(SoundSourceTest, ClickIsTakenWhenItIsHeard) {
  const PulseServer server;
  PulsePlayer player("speaker", PulsePlayer::clicks());
  Heard heard;
  const auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(eventually([&] { return heard.clicks().size() >= 3; }));
  const auto played = player.heard();
  int far = 0;
  for (const int64_t taken : heard.clicks()) {
    int64_t off = INT64_MAX;
    for (const int64_t moment : played) {
      if (std::abs(taken - moment) < std::abs(off)) off = taken - moment;
    }
    // A server that gets no processor for long is followed once its time is off by more than this for a while.
    EXPECT_LT(std::abs(off), 65000) << "microseconds";
    if (std::abs(off) >= 25000) ++far;
  }
  EXPECT_LE(far, 1);
}

TEST(SoundSourceTest, SourceThatRestsGoesOnLaterAndTheTimeGoesAhead) {
  const PulseServer server;
  Heard heard;
  const auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(0.5));
  server.command("suspend-sink speaker 1");
  const size_t before = heard.pieces().size();
  const int64_t rest_ends = steady_usec() + 1500000;
  ASSERT_TRUE(eventually([&] { return steady_usec() >= rest_ends; }));
  server.command("suspend-sink speaker 0");
  ASSERT_TRUE(eventually([&] { return heard.pieces().size() > before + 20; }));
  const auto last = heard.pieces().back();
  EXPECT_NEAR(static_cast<double>(last.taken), static_cast<double>(last.heard_at), 500000);
  EXPECT_TRUE(heard.lost().empty());
}

TEST(SoundSourceTest, StreamThatIsMovedGivesTheOtherSource) {
  const PulseServer server({"speaker", "headphones"});
  const PulsePlayer player("headphones", PulsePlayer::tone(2000));
  Heard heard;
  const auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(0.5));
  EXPECT_LT(loudest(heard.samples()), 100);
  server.command("move-source-output $(pactl list short source-outputs | cut -f1) headphones.monitor");
  EXPECT_TRUE(eventually([&] { return tone_share(heard.tail(0.5), 48000, 2000) > 0.9; }));
}

TEST(SoundSourceTest, UnknownNameIsRefused) {
  const PulseServer server;
  EXPECT_EQ(refusal("trumpet"), "the sound server has neither a source nor a sink called 'trumpet'");
  EXPECT_NE(refusal(""), "");
}

TEST(SoundSourceTest, UnknownFormatIsRefused) {
  const PulseServer server;
  for (const SoundFormat& format : {SoundFormat{0, 2}, SoundFormat{48000, 0}, SoundFormat{48000, 1000}}) {
    EXPECT_NE(refusal("speaker", format), "") << format.sample_rate << " " << format.channels;
  }
}

TEST(SoundSourceTest, WithoutAServerItIsRefusedAndNoneIsStarted) {
  const TempDir folder;
  PulseServer::only_server(folder.file("native"), folder.path());
  EXPECT_EQ(refusal("default").rfind("no sound server: ", 0), 0U) << refusal("default");
  EXPECT_FALSE(std::filesystem::exists(folder.file("native")));
}

TEST(SoundSourceTest, ServerThatDoesNotAnswerIsGivenUp) {
  PulseServer server;
  server.suspend();
  const int64_t begin = steady_usec();
  EXPECT_EQ(refusal("speaker"), "the sound server does not answer");
  EXPECT_GE(steady_usec() - begin, 4900000);
  server.resume();
}

TEST(SoundSourceTest, ServerThatGoesIsToldOnce) {
  PulseServer server;
  Heard heard;
  auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(0.2));
  server.kill();
  ASSERT_TRUE(eventually([&] { return !heard.lost().empty(); }));
  EXPECT_NE(heard.lost().front(), "");
  const size_t pieces = heard.pieces().size();
  source.reset();
  EXPECT_EQ(heard.lost().size(), 1U);
  EXPECT_EQ(heard.pieces().size(), pieces);
}

TEST(SoundSourceTest, SourceThatIsTakenAwayIsToldOnce) {
  const PulseServer server;
  Heard heard;
  auto source = open_sound("speaker", {}, heard.listener());
  ASSERT_TRUE(heard.has_seconds(0.2));
  server.command("unload-module module-null-sink");
  ASSERT_TRUE(eventually([&] { return !heard.lost().empty(); }));
  source.reset();
  EXPECT_EQ(heard.lost().size(), 1U);
}

TEST(SoundSourceTest, NothingIsToldOnceItIsDestroyed) {
  PulseServer server;
  Heard heard;
  for (int i = 0; i < 3; ++i) {
    auto source = open_sound("speaker", {}, heard.listener());
    const size_t before = heard.pieces().size();
    ASSERT_TRUE(eventually([&] { return heard.pieces().size() > before; }));
    source.reset();
    const size_t pieces = heard.pieces().size();
    const int64_t later = steady_usec() + 100000;
    ASSERT_TRUE(eventually([&] { return steady_usec() >= later; }));
    EXPECT_EQ(heard.pieces().size(), pieces);
  }
  server.kill();
  EXPECT_TRUE(heard.lost().empty());
}

}  // namespace
}  // namespace meru_test

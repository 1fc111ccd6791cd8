// The command `meru screen` with sound: a real sound server that plays, and a window that flashes.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/pulse_player.h"
#include "support/pulse_server.h"
#include "support/tone.h"
#include "support/x_display.h"

namespace meru_test {
namespace {

constexpr int kFps = 30;
constexpr int kRate = 48000;

class MeruScreenSoundTest : public testing::Test {
 protected:
  /// The arguments of a recording of the corner of the screen with what the sink plays.
  std::string arguments() const {
    return m_display.option() + "--preset ultrafast -o movie.mp4 --region 64x64+0+0 --fps " + std::to_string(kFps) +
           " --audio speaker";
  }
  std::string movie() const { return m_folder.file("movie.mp4"); }

  /// The movie's sound from its beginning, also where the track begins later.
  std::vector<int16_t> sound() const {
    const std::string bytes = decoded(movie(), "-map 0:a:0 -ac 1 -af aresample=48000:first_pts=0 -f s16le");
    std::vector<int16_t> samples(bytes.size() / sizeof(int16_t));
    bytes.copy(reinterpret_cast<char*>(samples.data()), samples.size() * sizeof(int16_t));
    return samples;
  }

  XDisplay m_display;
  PulseServer m_server;
  ToolFolder m_folder;
};

/// When each flash of the movie begins, in seconds.
std::vector<double> flashes(const std::string& movie) {
  const std::string gray = decoded(movie, "-map 0:v -vf scale=1:1 -pix_fmt gray -f rawvideo " + every_picture());
  std::vector<ProbedPacket> packets = probe_packets(movie, "v:0");
  std::sort(packets.begin(), packets.end(), [](const auto& a, const auto& b) { return a.pts < b.pts; });
  std::vector<double> begins;
  bool white = true;
  for (size_t i = 0; i < std::min(gray.size(), packets.size()); ++i) {
    const bool now_white = static_cast<uint8_t>(gray[i]) > 128;
    if (now_white && !white) begins.push_back(packets[i].pts);
    white = now_white;
  }
  return begins;
}

/// Flashes and clicks while the screen is recorded. @return the moments of each, a line a flash
std::string flash(const XDisplay& display, size_t count) {
  const CommandResult client =
      run_command(display.environment() + MERU_FLASH_CLIENT + " speaker " + std::to_string(count));
  if (client.status != 0) throw std::runtime_error("no flash: " + client.output);
  return client.output;
}

/// Expects each flash of a movie within a frame of its click.
void expect_together(const std::string& movie, const std::vector<int16_t>& sound, const std::string& moments) {
  const std::vector<double> white = flashes(movie);
  const std::vector<int64_t> clicks = click_starts(sound, kRate);
  ASSERT_EQ(white.size(), static_cast<size_t>(line_count(moments)));
  ASSERT_GE(clicks.size(), white.size());
  std::istringstream lines(moments);
  for (size_t i = 0; i < white.size(); ++i) {
    long long clicked = 0;
    long long shown = 0;
    lines >> clicked >> shown;
    // On a busy machine the window turns white a little after the click.
    const double made_apart = static_cast<double>(shown - clicked) / 1e6;
    const double apart = white[i] - static_cast<double>(clicks[i]) / kRate;
    EXPECT_NEAR(apart, made_apart, 1.0 / kFps) << "flash " << i;
  }
}

TEST_F(MeruScreenSoundTest, FlashAndClickOfOneMomentAreWithinAFrame) {
  ToolProcess recording(m_folder, arguments(), -1, "screen");
  ASSERT_TRUE(recording.reaches(0.5)) << recording.err();
  const std::string moments = flash(m_display, 3);
  recording.send(SIGINT);
  ASSERT_EQ(recording.wait(), 0) << recording.err();
  ASSERT_EQ(line_count(moments), 3);
  expect_together(movie(), sound(), moments);
}

TEST_F(MeruScreenSoundTest, PausesKeepSoundAndPictureTogether) {
  ToolProcess recording(m_folder, arguments(), -1, "screen");
  ASSERT_TRUE(recording.reaches(0.5)) << recording.err();
  std::string moments = flash(m_display, 1);
  for (int pause = 0; pause < 2; ++pause) {
    std::filesystem::resize_file(m_folder.file("out.txt"), 0);
    recording.send(SIGUSR1);
    ASSERT_TRUE(recording.says("paused\n"));
    ASSERT_FALSE(eventually([&] { return !recording.is_running(); }, std::chrono::milliseconds(600)));
    recording.send(SIGUSR1);
    ASSERT_TRUE(recording.says("resumed\n"));
  }
  moments += flash(m_display, 1);
  recording.send(SIGINT);
  ASSERT_EQ(recording.wait(), 0) << recording.err();
  ASSERT_EQ(line_count(moments), 2);
  expect_together(movie(), sound(), moments);
  const double sounding = static_cast<double>(sound().size()) / kRate;
  EXPECT_NEAR(sounding, number(probe_stream(movie(), "video"), "duration"), 0.1);
}

TEST_F(MeruScreenSoundTest, ToneThatIsPlayedIsInTheMovie) {
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  const ToolRun run = m_folder.run("screen " + arguments() + " --seconds 2");
  ASSERT_EQ(run.status, 0) << run.err;
  const std::vector<int16_t> all = sound();
  ASSERT_GE(all.size(), static_cast<size_t>(1.8 * kRate));
  const std::vector<int16_t> middle(all.begin() + kRate / 2, all.begin() + kRate * 3 / 2);
  EXPECT_GT(tone_share(middle, kRate, 1000), 0.9);
  EXPECT_GT(loudest(middle), 8000);
}

TEST_F(MeruScreenSoundTest, ServerThatGoesLeavesAWholeMovieWithSilence) {
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  ToolProcess recording(m_folder, arguments(), -1, "screen");
  ASSERT_TRUE(recording.reaches(1)) << recording.err();
  m_server.kill();
  const double killed_at = recording.told_seconds();
  ASSERT_TRUE(recording.reaches(killed_at + 3)) << recording.err();
  recording.send(SIGINT);
  ASSERT_NE(recording.wait(), -1);
  EXPECT_NE((recording.err() + recording.out()).find("sound"), std::string::npos) << recording.err();
  EXPECT_EQ(decode_errors(movie()), "");

  const std::vector<int16_t> all = sound();
  const double seconds = static_cast<double>(all.size()) / kRate;
  const std::vector<ProbedPacket> pictures = probe_packets(movie(), "v:0");
  ASSERT_FALSE(pictures.empty());
  EXPECT_NEAR(seconds, pictures.back().pts + pictures.back().duration, 0.3);
  const std::vector<int16_t> begin(all.begin() + kRate / 2, all.begin() + kRate * 9 / 10);
  const std::vector<int16_t> end(all.end() - kRate, all.end());
  EXPECT_GT(tone_share(begin, kRate, 1000), 0.9);
  EXPECT_LT(loudest(end), 100);
}

}  // namespace
}  // namespace meru_test

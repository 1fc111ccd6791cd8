// The command `meru screen` with sound: a real sound server that plays, and a window that flashes.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/dead_network.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/pulse_player.h"
#include "support/pulse_server.h"
#include "support/screen_scene.h"
#include "support/tone.h"
#include "support/x_display.h"

namespace meru_test {
namespace {

constexpr int kFps = 30;
constexpr int kRate = 48000;

class MeruScreenSoundTest : public testing::Test {
 protected:
  /// The arguments of a recording of the corner of the screen with what the sink plays.
  std::string arguments(const std::string& source = "speaker") const {
    return m_display.option() + "--preset ultrafast -o movie.mp4 --region 64x64+0+0 --fps " + std::to_string(kFps) +
           " --audio " + source;
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

/// The time in the movie between its last dark picture before a flash and the first white one. The window turned white
/// somewhere between them.
struct Flash {
  double dark, white;
  double middle() const { return (dark + white) / 2; }
  double length() const { return white - dark; }
};

std::vector<Flash> flashes(const std::string& movie) {
  const std::string gray = decoded(movie, "-map 0:v -vf scale=1:1 -pix_fmt gray -f rawvideo " + every_picture());
  std::vector<ProbedPacket> packets = probe_packets(movie, "v:0");
  std::sort(packets.begin(), packets.end(), [](const auto& a, const auto& b) { return a.pts < b.pts; });
  std::vector<Flash> found;
  bool white = true;
  for (size_t i = 0; i < std::min(gray.size(), packets.size()); ++i) {
    const bool now_white = static_cast<uint8_t>(gray[i]) > 128;
    if (now_white && !white) found.push_back({packets[i - 1].pts, packets[i].pts});
    white = now_white;
  }
  return found;
}

/// What part of most tenths of a second is the tone of 1000 Hz. A player that gets no processor for a moment tears it.
double usual_tone_share(const std::vector<int16_t>& samples) {
  constexpr ptrdiff_t kTenth = kRate / 10;
  std::vector<double> shares;
  for (auto at = samples.begin(); samples.end() - at >= kTenth; at += kTenth) {
    shares.push_back(tone_share({at, at + kTenth}, kRate, 1000));
  }
  std::sort(shares.begin(), shares.end());
  return shares.empty() ? 0 : shares[shares.size() / 2];
}

/// What was printed so far, without a last line that is not complete.
std::string whole_lines(const std::string& text) { return text.substr(0, text.rfind('\n') + 1); }

/// Flashes and clicks while the screen is recorded. @return the moments of each, a line a flash
std::string flash(const XDisplay& display, size_t count) {
  const CommandResult client =
      run_command(display.environment() + MERU_FLASH_CLIENT + " speaker " + std::to_string(count));
  if (client.status != 0) throw std::runtime_error("no flash: " + client.output);
  return client.output;
}

/// The click that is nearest to a time in the movie, in seconds: a client that was held up plays more than it shows.
double nearest_click(const std::vector<int64_t>& clicks, double time) {
  double nearest = -1000;
  for (const int64_t click : clicks) {
    const double seconds = static_cast<double>(click) / kRate;
    if (std::abs(seconds - time) < std::abs(nearest - time)) nearest = seconds;
  }
  return nearest;
}

/// Expects each flash of a movie within a frame of its click.
void expect_together(const std::string& movie, const std::vector<int16_t>& sound, const std::string& moments) {
  constexpr double kFrame = 1.0 / kFps;
  const std::vector<Flash> white = flashes(movie);
  const std::vector<int64_t> clicks = click_starts(sound, kRate);
  ASSERT_EQ(white.size(), static_cast<size_t>(line_count(moments)));
  ASSERT_GE(clicks.size(), white.size());
  std::istringstream lines(moments);
  for (size_t i = 0; i < white.size(); ++i) {
    long long clicked = 0;
    long long shown = 0;
    lines >> clicked >> shown;
    // On a busy machine the window turns white a little after the click, and pictures are missing before it is seen.
    const double click_due = white[i].middle() - static_cast<double>(shown - clicked) / 1e6;
    const double unseen = std::max(white[i].length() - kFrame, 0.0) / 2;
    EXPECT_NEAR(nearest_click(clicks, click_due), click_due, kFrame + unseen) << "flash " << i;
    testing::Test::RecordProperty("apart_seconds_" + std::to_string(i),
                                  std::to_string(nearest_click(clicks, click_due) - click_due));
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
  for (const char* source : {"speaker", "default"}) {
    const ToolRun run = m_folder.run("screen " + arguments(source) + " --seconds 2");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<int16_t> all = sound();
    ASSERT_GE(all.size(), static_cast<size_t>(1.8 * kRate)) << source;
    const std::vector<int16_t> middle(all.begin() + kRate / 2, all.begin() + kRate * 3 / 2);
    EXPECT_GT(usual_tone_share(middle), 0.9) << source;
    EXPECT_GT(loudest(middle), 8000) << source;
  }
}

TEST_F(MeruScreenSoundTest, ServerThatGoesLeavesAWholeMovieWithSilence) {
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  ToolProcess recording(m_folder, arguments(), -1, "screen");
  ASSERT_TRUE(recording.reaches(1)) << recording.err();
  m_server.kill();
  const double killed_at = recording.told_seconds();
  ASSERT_TRUE(recording.reaches(killed_at + 3)) << recording.err();
  recording.send(SIGINT);
  EXPECT_EQ(recording.wait(), 0) << recording.err();
  EXPECT_NE(recording.out().find("the sound is lost, silence follows: "), std::string::npos) << recording.out();
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

TEST_F(MeruScreenSoundTest, ServerThatHangsLeavesSilenceUntilItGoesOn) {
  const PulsePlayer player("speaker", PulsePlayer::tone(1000));
  ToolProcess recording(m_folder, arguments() + " --json --progress 50", -1, "screen");
  ASSERT_TRUE(recording.says("\"event\":\"progress\""));
  m_server.suspend();
  ASSERT_TRUE(recording.says("\"event\":\"sound_missing\"")) << recording.out();
  m_server.resume();
  ASSERT_TRUE(recording.says("\"event\":\"sound_back\"")) << recording.out();
  const double back = event_in(whole_lines(recording.out()), "sound_back")["time"];
  ASSERT_TRUE(eventually([&] { return event_in(whole_lines(recording.out()), "progress")["time"] >= back + 2; }));
  recording.send(SIGINT);
  EXPECT_EQ(recording.wait(), 0) << recording.err();
  EXPECT_EQ(decode_errors(movie()), "");

  const std::vector<int16_t> all = sound();
  const double missing = event_in(recording.out(), "sound_missing")["time"];
  EXPECT_NEAR(static_cast<double>(all.size()) / kRate, event_in(recording.out(), "finished")["time"], 0.3);
  ASSERT_GT(missing, 1.5);
  // It was told some images before or behind this, and the sound may be back by then.
  const auto silent = all.begin() + static_cast<ptrdiff_t>((missing - 0.2) * kRate);
  EXPECT_LT(loudest({silent - kRate, silent}), 100);
  EXPECT_GT(usual_tone_share({all.end() - kRate * 3 / 4, all.end() - kRate / 4}), 0.9);
}

TEST_F(MeruScreenSoundTest, ServerMayGoWhileALiveOutputConnects) {
  const DeadNetwork dead(Death::kNeverAnswers, "rtmp");
  const std::string arguments = m_display.option() + "--json --timeout 3 --audio speaker -o " + dead.url();
  ToolProcess recording(m_folder, arguments, -1, "screen");
  ASSERT_TRUE(recording.says("\"event\":\"connecting\""));
  m_server.kill();
  EXPECT_TRUE(recording.says("\"event\":\"sound_lost\"")) << recording.out();
  EXPECT_EQ(recording.wait(), 1) << recording.err();
  EXPECT_NE(event_in(recording.out(), "sound_lost")["reason"], "");
  EXPECT_EQ(event_in(recording.out(), "sound_lost")["time"], 0);
  EXPECT_FALSE(event_in(recording.out(), "failed").is_null()) << recording.out();
}

}  // namespace
}  // namespace meru_test

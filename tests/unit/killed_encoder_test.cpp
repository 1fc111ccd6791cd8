// What a kill costs a recording whose encoder holds frames, with the bound on what it holds and without.
//
// MERU_KILLS: kills of each setting, 1 when not given. MERU_KILL_SETTINGS: other settings than the usual ones, each
// PRESET:TUNE:FPS:LIMIT_MS:SECONDS. tests/fault/kill_storm.sh gives both.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MVRepair/restore/mv_repair.h"
#include "base/MR_AVWriter.h"
#include "capture/movie_capture2.h"
#include "support/forked.h"
#include "support/held_frames.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLimitMs = 300;
/// The flush of twice a second and the packet that it waits for, and the packet that has no record yet.
constexpr double kMostLost = 0.6;
constexpr int64_t kUsec = 1000000;
constexpr int64_t kAudioPieceUsec = 10000;
constexpr int kRate = 48000;

struct Setting {
  std::string preset = "veryfast";
  std::string tune = "none";
  int fps = 30;
  int limit_ms = 0;
  double seconds = 0;  ///< of recording before the kill; 0: any moment from 1 to 3
  bool audio = true;
};

std::string name_of(const Setting& s) {
  return s.preset + "_" + s.tune + "_" + std::to_string(s.fps) + (s.limit_ms > 0 ? "_limited" : "") +
         (s.audio ? "" : "_silent");
}
void PrintTo(const Setting& s, std::ostream* out) { *out << name_of(s); }

std::vector<Setting> settings() {
  const char* text = std::getenv("MERU_KILL_SETTINGS");
  if (text == nullptr) {
    return {{"veryfast", "none", 5, kLimitMs},  {"veryfast", "none", 5, kLimitMs, 0, false},
            {"veryfast", "none", 7, kLimitMs},  {"medium", "none", 15, kLimitMs},
            {"veryfast", "none", 30, kLimitMs}, {"veryfast", "none", 60, kLimitMs, 0, false},
            {"veryfast", "none", 30},           {"ultrafast", "zerolatency", 10}};
  }
  std::vector<Setting> found;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    Setting s;
    std::replace(word.begin(), word.end(), ':', ' ');
    std::istringstream(word) >> s.preset >> s.tune >> s.fps >> s.limit_ms >> s.seconds;
    found.push_back(s);
  }
  return found;
}

int kills() {
  const char* text = std::getenv("MERU_KILLS");
  return text != nullptr ? std::atoi(text) : 1;
}

MovieInfo record_of(const Setting& setting) {
  MovieInfo info = usual_record();
  info.width = info.width_src = 320;
  info.height = info.height_src = 180;
  info.fps = setting.fps;
  info.gop_size = 2 * setting.fps;
  info.v_bitrate = 0;
  info.preset = preset_from_str(setting.preset.c_str());
  info.profile = PROFILE_NONE;
  info.tune = setting.tune == "none" ? TUNE_NONE : tune_from_str(setting.tune.c_str());
  info.no_audio = !setting.audio;
  return info;
}

/// What the recorder has handed over so far.
struct Handed {
  std::atomic<int64_t> frames{0};
  std::atomic<int64_t> audio_usec{0};
};

/// Records as a device delivers, until it is killed.
class Recorder {
 public:
  Recorder(const MovieInfo& info, int limit_ms, Handed* handed)
      : m_info(info), m_handed(handed), m_session(new MR::MR_AVWriter(60, 1000, nullptr)) {
    m_session.limit_encoder_delay(limit_ms * int64_t{1000});
    m_session.start(info, nullptr, nullptr, false);
  }

  [[noreturn]] void run() {
    const auto begin = Clock::now();
    for (int64_t now = 0;; now = std::min(next_frame(), next_audio())) {
      std::this_thread::sleep_until(begin + std::chrono::microseconds(now));
      if (next_audio() <= now) push_audio();
      if (next_frame() <= now) push_frame();
    }
  }

 private:
  int64_t next_frame() const { return m_handed->frames * kUsec / m_info.fps; }
  int64_t next_audio() const {
    return m_info.no_audio ? std::numeric_limits<int64_t>::max() : m_handed->audio_usec + kAudioPieceUsec;
  }
  void push_frame() {
    const auto at = static_cast<size_t>(m_handed->frames);
    for (size_t i = 0; i < m_image.size(); ++i) m_image[i] = static_cast<uint8_t>(i * 7 + at * 3 + i / 1280);
    m_session.fill_video_frame(m_image.data(), static_cast<int>(m_image.size()), kUsec + next_frame(),
                               m_info.width * 4);
    ++m_handed->frames;
  }
  void push_audio() {
    m_session.fill_audio_frame(m_pcm.data(), static_cast<int>(m_pcm.size() * sizeof(int16_t)),
                               kUsec + m_handed->audio_usec);
    m_handed->audio_usec += kAudioPieceUsec;
  }

  MovieInfo m_info;
  Handed* m_handed;
  MovieCapture2 m_session;
  std::vector<uint8_t> m_image = std::vector<uint8_t>(320UL * 180 * 4);
  std::vector<int16_t> m_pcm = std::vector<int16_t>(kRate * kAudioPieceUsec / kUsec * 2, 1000);
};

class KilledEncoder : public testing::TestWithParam<Setting> {
 protected:
  struct Result {
    double frames = 0, video_sec = 0, audio_sec = 0;  ///< handed over
    double restored_frames = 0, restored_audio_sec = 0;
  };

  void record_and_kill(const Setting& setting, double seconds) {
    for (const std::string& path : {m_movie, m_index, m_repaired}) std::filesystem::remove(path);
    m_handed.reset();
    MovieInfo info = record_of(setting);
    std::strcpy(info.url, m_movie.c_str());
    std::strcpy(info.snapshot_path, m_index.c_str());
    const pid_t recorder = fork();
    ASSERT_GE(recorder, 0);
    if (recorder == 0) {
      std::freopen(m_dir.file("log").c_str(), "w", stderr);
      Recorder(info, setting.limit_ms, m_handed.get()).run();
    }
    const auto frames = static_cast<int64_t>(seconds * setting.fps);
    const bool reached = eventually([&] { return m_handed->frames >= frames; });
    // Not to wait for anything: the kill is to come at any moment of a frame.
    std::this_thread::sleep_for(std::chrono::microseconds(m_random() % static_cast<unsigned>(kUsec / setting.fps)));
    kill(recorder, SIGKILL);
    waitpid(recorder, nullptr, 0);
    ASSERT_TRUE(reached) << m_handed->frames;
  }

  Result repair_and_look(const Setting& setting) const {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool repaired =
        std::make_shared<MVRepair>()->start_sync(m_movie.c_str(), m_index.c_str(), m_repaired.c_str(), {});
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(repaired);
    EXPECT_EQ(decode_errors(m_repaired), "");
    Result result;
    result.frames = static_cast<double>(m_handed->frames);
    result.video_sec = result.frames / setting.fps;
    result.audio_sec = static_cast<double>(m_handed->audio_usec) / kUsec;
    result.restored_frames = static_cast<double>(probe_packets(m_repaired, "v:0").size());
    const auto audio = setting.audio ? probe_packets(m_repaired, "a:0") : std::vector<ProbedPacket>();
    result.restored_audio_sec = audio.empty() ? 0 : audio.back().pts + audio.back().duration;
    return result;
  }

  /// The seconds of what was handed over that are missing, in the track that lacks most.
  static double loss(const Setting& setting, const Result& result) {
    const double video = result.video_sec - result.restored_frames / setting.fps;
    return setting.audio ? std::max(video, result.audio_sec - result.restored_audio_sec) : video;
  }

  TempDir m_dir;
  const std::string m_movie = m_dir.file("movie.mp4");
  const std::string m_index = m_dir.file("movie.index");
  const std::string m_repaired = m_dir.file("repaired.mp4");
  Shared<Handed> m_handed;
  const unsigned m_seed = std::random_device()();
  std::mt19937 m_random{m_seed};
};

// The promise: what the encoder holds, and little more than half a second. With the bound that little is all.
TEST_P(KilledEncoder, CostsNoMoreThanItHoldsAndHalfASecond) {
  SCOPED_TRACE("seed " + std::to_string(m_seed));
  const Setting setting = GetParam();
  MovieInfo record = record_of(setting);
  std::strcpy(record.snapshot_path, "x");
  const int held = held_frames(record, setting.limit_ms * int64_t{1000});
  const double most = setting.limit_ms > 0 ? kMostLost : kMostLost + static_cast<double>(held) / setting.fps;
  for (int i = 0; i < kills(); ++i) {
    const double seconds =
        setting.seconds > 0 ? setting.seconds : std::uniform_real_distribution<>(1, 3)(m_random) + most;
    ASSERT_NO_FATAL_FAILURE(record_and_kill(setting, seconds));
    const Result result = repair_and_look(setting);
    const double lost = loss(setting, result);
    EXPECT_LE(lost, most + 1e-6) << result.frames << " frames, " << result.restored_frames << " restored; audio "
                                 << result.audio_sec << " s, " << result.restored_audio_sec << " restored";
    EXPECT_GT(result.restored_frames, 0);
    std::cout << "kill " << name_of(setting) << " held " << held << " recorded " << result.video_sec << " lost " << lost
              << "\n";
  }
}

INSTANTIATE_TEST_SUITE_P(Settings, KilledEncoder, testing::ValuesIn(settings()),
                         [](const auto& test) { return name_of(test.param); });

// The encoder has returned no frame yet.
TEST_F(KilledEncoder, AudioIsRestoredBeforeTheFirstFrameComesOut) {
  const Setting setting{"veryfast", "none", 5};
  ASSERT_NO_FATAL_FAILURE(record_and_kill(setting, 1));
  ASSERT_LT(m_handed->frames, held_frames(record_of(setting), 0));
  const Result result = repair_and_look(setting);
  EXPECT_EQ(result.restored_frames, 0);
  EXPECT_GE(result.restored_audio_sec, result.audio_sec - kMostLost);
}

}  // namespace
}  // namespace meru_test

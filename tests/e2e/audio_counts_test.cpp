// What is pushed as audio is in the movie, sample by sample: rates, containers, pauses, silence, gaps, the end.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"
#include "support/tone.h"

namespace meru_test {
namespace {

/// A movie of audio alone, and what is pushed to it on a clock of its own.
class AudioHost {
 public:
  explicit AudioHost(const MovieInfo& info)
      : m_info(info), m_session(MERU_start(info, nullptr, nullptr, nullptr, false)) {
    MERU_get_mInfo(m_session, &m_effective);
  }
  ~AudioHost() { stop(); }
  AudioHost(const AudioHost&) = delete;
  AudioHost& operator=(const AudioHost&) = delete;

  void stop() { MERU_stop(&m_session); }
  void* session() const { return m_session; }
  const MovieInfo& effective() const { return m_effective; }

  /// Pushes samples of one value, in buffers of 10 ms. @return the end of the last one
  long long push(long long samples, long long at, int16_t value = 8000) {
    const int most = std::max(m_info.sample_rate_src / 100, 1);
    std::vector<int16_t> pcm(static_cast<size_t>(most * m_info.channels), value);
    for (long long done = 0; done < samples;) {
      const auto count = static_cast<int>(std::min<long long>(most, samples - done));
      const int bytes = count * m_info.channels * static_cast<int>(sizeof(int16_t));
      m_last_at = at + done * kUsecPerSec / m_info.sample_rate_src;
      m_last_usec = static_cast<long long>(count) * kUsecPerSec / m_info.sample_rate_src;
      MERU_write_audio_pcm(m_session, pcm.data(), bytes, m_last_at);
      done += count;
    }
    return at + samples * kUsecPerSec / m_info.sample_rate_src;
  }
  void push_silence(long long until) { MERU_write_audio_pcm(m_session, nullptr, 0, until); }
  /// As docs/clock-and-pauses.md has it.
  void fill_gap(long long next) {
    const long long gap = next - (m_last_at + m_last_usec);
    if (gap > 0) push_silence(m_last_at + gap);
  }

 private:
  MovieInfo m_info;
  void* m_session;
  MovieInfo m_effective{};
  long long m_last_at = 0, m_last_usec = 0;  // of the last buffer
};

MovieInfo audio_alone(const std::string& path, int rate) {
  MovieInfo info = small_movie(path);
  info.no_video = true;
  info.sample_rate_src = info.sample_rate_dst = rate;
  info.a_bitrate = rate > 48000 ? 128 : 64;  // what all encoders take
  return info;
}

struct Container {
  const char* extension;
  bool exact;  ///< holds the samples themselves
  int slack;   ///< samples that its codec may add
};

constexpr Container kContainers[] = {
    {"wav", true, 0},     {"mp4", false, 3072}, {"caf", true, 0},     {"aiff", true, 0},
    {"au", true, 0},      {"flac", true, 0},    {"mov", false, 3072}, {"m4a", false, 3072},
    {"mkv", false, 3072}, {"flv", false, 3072}, {"ts", false, 4608},  {"ogg", false, 3072},
    {"aac", false, 3072}, {"mp3", false, 4608}, {"nut", false, 4608}, {"avi", false, 4608}};

struct CountCase {
  Container container;
  int rate;
};
void PrintTo(const CountCase& c, std::ostream* out) { *out << c.container.extension << c.rate; }

/// Every rate with one container of each kind, and every container with the rates that all encoders take.
std::vector<CountCase> all_counts() {
  std::vector<CountCase> cases;
  for (const Container& container : kContainers) {
    const bool each = &container - kContainers < 2;
    for (const int rate : {192000, 96000, 48000, 44100, 32000, 22050, 16000, 11025, 8000}) {
      if (each || rate == 11025 || rate == 44100 || rate == 48000) cases.push_back({container, rate});
    }
  }
  return cases;
}

class CountTest : public testing::TestWithParam<CountCase> {
 protected:
  std::string path() const { return m_dir.file(std::string("a.") + GetParam().container.extension); }
  /// @param seconds  of audio pushed and generated
  void expect_length(double seconds) const {
    const nlohmann::json stream = probe_stream(path(), "audio");
    const double rate = number(stream, "sample_rate");
    const auto decoded = static_cast<double>(decoded_sound(path()).size());
    const Container& c = GetParam().container;
    const double resampled = rate == GetParam().rate ? 0 : 2;
    EXPECT_GE(decoded, std::floor(seconds * rate) - resampled - (c.exact ? 0 : 1));
    EXPECT_LE(decoded, std::ceil(seconds * rate) + resampled + c.slack);
  }

  TempDir m_dir;
};

std::string name_of(const testing::TestParamInfo<CountCase>& test) {
  return std::string(test.param.container.extension) + std::to_string(test.param.rate);
}

TEST_P(CountTest, EverySampleIsInTheMovie) {
  const int rate = GetParam().rate;
  AudioHost host(audio_alone(path(), rate));
  const long long samples = rate + 1234;
  host.push(samples, kUsecPerSec);
  host.stop();
  expect_length(static_cast<double>(samples) / rate);
}

TEST_P(CountTest, PausesAndSilenceAddUp) {
  const int rate = GetParam().rate;
  AudioHost host(audio_alone(path(), rate));
  long long at = MERU_current_sys_usec();
  long long pushed = 0;
  constexpr int kParts = 3;
  constexpr long long kGap = 300000;
  for (int i = 0; i < kParts; ++i) {
    at = host.push(rate / 4, at);
    pushed += rate / 4;
    host.fill_gap(at + kGap);
    at += kGap;
    MERU_pause(host.session());
    // Dropped, and longer than the pause lasts on the clock: nothing of it may come back.
    host.push(rate / 10, at);
    MERU_resume(host.session());
  }
  host.push(rate / 4, at);
  pushed += rate / 4;
  host.stop();
  const double seconds = static_cast<double>(pushed) / rate + kParts * static_cast<double>(kGap) / kUsecPerSec;
  const double paused = 0.1;  // the pauses themselves, which the clock leaves out and the timestamps here do not
  const nlohmann::json stream = probe_stream(path(), "audio");
  const double length = static_cast<double>(decoded_sound(path()).size()) / number(stream, "sample_rate");
  EXPECT_GE(length, seconds - paused);
  EXPECT_LE(length, seconds + GetParam().container.slack / number(stream, "sample_rate") + 0.001);
}

INSTANTIATE_TEST_SUITE_P(All, CountTest, testing::ValuesIn(all_counts()), name_of);

// --- silence

class SilenceTest : public testing::Test {
 protected:
  const TempDir m_dir;
  const std::string m_path = m_dir.file("a.wav");
};

TEST_F(SilenceTest, GapThatIsFilledAsTheGuideSaysKeepsItsLength) {
  AudioHost host(audio_alone(m_path, 48000));
  constexpr int kGaps = 10;
  long long at = kUsecPerSec;
  std::vector<long long> starts;
  for (int i = 0; i < kGaps; ++i) {
    starts.push_back((at - kUsecPerSec) * 48 / 1000);
    const long long end = host.push(4800, at);
    at = end + 333333;
    host.fill_gap(at);
  }
  host.stop();
  const std::vector<int64_t> clicks = click_starts(decoded_sound(m_path), 48000);
  ASSERT_EQ(clicks.size(), starts.size());
  for (size_t i = 0; i < clicks.size(); ++i) {
    EXPECT_LE(std::llabs(clicks[i] - starts[i]), static_cast<long long>(i) + 1) << i;
  }
}

TEST_F(SilenceTest, PushOfNothingAtTheFirstSampleBringsItToItsTime) {
  MovieInfo info = small_movie(m_dir.file("a.mkv"));
  AudioHost host(info);
  std::vector<uint8_t> image = moving_image(info.width_src, info.height_src, 0);
  constexpr long long kLate = 300000;
  MERU_write_video_bgra(host.session(), image.data(), static_cast<int>(image.size()), kUsecPerSec, info.width_src * 4);
  host.push_silence(kUsecPerSec + kLate);
  host.push(48000, kUsecPerSec + kLate);
  host.stop();
  const std::vector<int64_t> clicks = click_starts(decoded_sound(m_dir.file("a.mkv")), 48000);
  ASSERT_EQ(clicks.size(), 1U);
  EXPECT_NEAR(static_cast<double>(clicks[0]) / 48000, static_cast<double>(kLate) / kUsecPerSec, 0.025);
}

TEST_F(SilenceTest, StopEndsIt) {
  AudioHost host(audio_alone(m_path, 48000));
  host.push(4800, kUsecPerSec);
  std::thread pusher([&] { host.push_silence(29LL * 24 * 3600 * kUsecPerSec); });
  ASSERT_TRUE(eventually([&] { return MERU_last_usec_pts(host.session()) > 10 * kUsecPerSec; }));
  host.stop();
  pusher.join();
  EXPECT_GT(decoded_sound(m_path).size(), 480000U);
}

// --- gaps that no packet's duration holds

struct GapCase {
  const char* name;
  const char* extension;
  long long hours;
};
void PrintTo(const GapCase& c, std::ostream* out) { *out << c.name; }

class LongGapTest : public testing::TestWithParam<GapCase> {};

TEST_P(LongGapTest, TrackLastsAsLongAsItsTimestampsSay) {
  const TempDir dir;
  const std::string path = dir.file(std::string("a.") + GetParam().extension);
  const long long gap = GetParam().hours * 3600;
  AudioHost host(audio_alone(path, 48000));
  host.push(48000, kUsecPerSec);
  host.push(48000, (1 + gap) * kUsecPerSec);
  host.stop();
  const auto packets = probe_packets(path, "a:0");
  ASSERT_GT(packets.size(), 90U);
  EXPECT_NEAR(packets.back().pts, static_cast<double>(gap + 1), 1);
  EXPECT_NEAR(packets.front().pts, 0, 0.1);
  const nlohmann::json format = probe(path, "-show_format").at("format");
  EXPECT_NEAR(number(format, "duration"), static_cast<double>(gap + 1), 1);
  EXPECT_EQ(decode_errors(path), "");
}

INSTANTIATE_TEST_SUITE_P(All, LongGapTest,
                         testing::Values(GapCase{"Mp4FiveHours", "mp4", 5}, GapCase{"Mp4ThirteenHours", "mp4", 13},
                                         GapCase{"Mp4TwoDays", "mp4", 48}, GapCase{"MovTwoDays", "mov", 48},
                                         GapCase{"M4aTwoDays", "m4a", 48}, GapCase{"MkvTwoDays", "mkv", 48}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(LateAudioTest, FirstAudioThirteenHoursAfterTheVideoKeepsItsTime) {
  const TempDir dir;
  const std::string path = dir.file("a.mp4");
  const MovieInfo info = small_movie(path);
  AudioHost host(info);
  std::vector<uint8_t> image = moving_image(info.width_src, info.height_src, 0);
  constexpr long long kHours = 13;
  for (const long long at : {1LL, kHours * 3600, kHours * 3600 + 1}) {
    const int bytes = static_cast<int>(image.size());
    MERU_write_video_bgra(host.session(), image.data(), bytes, at * kUsecPerSec, info.width_src * 4);
  }
  host.push(48000, kHours * 3600 * kUsecPerSec);
  host.push(48000, (kHours * 3600 + 1) * kUsecPerSec);
  host.stop();
  const auto packets = probe_packets(path, "a:0");
  ASSERT_GT(packets.size(), 90U);
  EXPECT_NEAR(packets.front().pts, static_cast<double>(kHours * 3600 - 1), 1);
  EXPECT_NEAR(packets.back().pts, static_cast<double>(kHours * 3600 + 1), 1);
}

}  // namespace
}  // namespace meru_test

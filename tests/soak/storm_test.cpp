// Short recordings of every kind, started and stopped at any moment, several at once: nothing may be left of them. By
// default some; MERU_STORM_RECORDINGS and MERU_STORM_SEED set how many and which, see soak.sh.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/dead_network.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/late_callbacks.h"
#include "support/overheard.h"
#include "support/probe.h"
#include "support/process_counts.h"
#include "support/resident_memory.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kAtOnce = 8;
constexpr const char* kExtensions[] = {"mp4", "mkv", "flv"};

unsigned from_environment(const char* name, unsigned otherwise) {
  const char* const wanted = std::getenv(name);
  return wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : otherwise;
}

/// Counts how often something was logged, without keeping the lines.
class Ends {
 public:
  Ends() {
    nuv::Logger::instance()->m_callback = [this](const char*, int level, const char*, int, const char* msg) {
      if (level == 4 && std::string(msg) == "\"--- stop OK\"\n") ++m_count;
    };
  }
  ~Ends() { nuv::Logger::instance()->m_callback = nullptr; }
  Ends(const Ends&) = delete;
  Ends& operator=(const Ends&) = delete;
  bool reach(long count) const {
    return eventually([&] { return m_count == count; }, std::chrono::seconds(60));
  }
  long count() const { return m_count; }

 private:
  std::atomic<long> m_count{0};
};

/// Addresses where no stream can be delivered, in use by all recordings.
class DeadAddresses {
 public:
  /// @param prompt  only those that say so at once: a synchronous start waits for the others
  const std::string& any(std::mt19937* random, bool prompt) const {
    const size_t count = prompt ? kPrompt : m_networks.size();
    return m_networks[(*random)() % count].url();
  }

 private:
  static constexpr size_t kPrompt = 3;

  const std::array<DeadNetwork, 8> m_networks{
      DeadNetwork(Death::kRefused, "rtmp"),        DeadNetwork(Death::kRefused, "rtsp"),
      DeadNetwork(Death::kUnknownHost, "rtmp"),    DeadNetwork(Death::kNeverAnswers, "rtmp"),
      DeadNetwork(Death::kNeverAnswers, "rtsp"),   DeadNetwork(Death::kFullBacklog, "rtmp"),
      DeadNetwork(Death::kHalfAHandshake, "rtmp"), DeadNetwork(Death::kByteASecond, "rtmp")};
};

/// One recording: what it is and when it ends follow from its number.
class Recording {
 public:
  Recording(unsigned seed, const DeadAddresses& dead, const TempDir& dir) : m_random(seed) {
    m_async = one_in(2);
    const bool network = one_in(4);
    m_path = dir.file(std::to_string(seed) + "." + kExtensions[m_random() % std::size(kExtensions)]);
    const std::string& address = dead.any(&m_random, !m_async);
    m_info = small_movie(network ? address : m_path);
    if (network) {
      m_path.clear();
    } else {
      if (one_in(4)) m_info.other_urls[0] = address.c_str();
      if (one_in(2)) set_text(m_info.snapshot_path, m_path + ".index");
    }
  }

  void run() {
    void* session = MERU_start(m_info, &LateCallbacks::callback, &m_callbacks, nullptr, m_async);
    // Half of those that start in the background are given the time to, so that both sides of the start are stopped.
    if (m_async && !m_path.empty() && m_info.other_urls[0] == nullptr && one_in(2)) {
      EXPECT_TRUE(eventually([&] { return m_callbacks.in_time > 0; }));
    }
    record(session);
    MERU_stop(&session);
    m_callbacks.stopped = true;
  }

  /// A movie that has begun is complete, with every picture that was taken. @return whether it has
  bool expect_whole_movie() const {
    EXPECT_EQ(m_callbacks.late, 0);
    if (m_path.empty() || m_taken == 0) return false;
    EXPECT_EQ(count_frames(m_path), m_taken) << m_info.url;
    return true;
  }
  void remove() const {
    if (m_path.empty()) return;
    std::filesystem::remove(m_path);
    std::filesystem::remove(m_path + ".index");
  }

 private:
  bool one_in(unsigned count) { return m_random() % count == 0; }

  void record(void* session) {
    Pictures& pictures = Pictures::instance();
    const auto steps = static_cast<int>(m_random() % 40);
    for (int i = 0; i < steps; ++i) {
      if (one_in(8)) MERU_pause(session);
      if (one_in(4)) MERU_resume(session);
      const long long at = kUsecPerSec + i * kUsecPerSec / m_info.fps;
      std::vector<uint8_t>& image = pictures.images[static_cast<size_t>(i) % pictures.images.size()];
      if (MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), at, m_info.width_src * 4) != 0)
        ++m_taken;
      MERU_write_audio_pcm(session, pictures.pcm.data(), static_cast<int>(pictures.pcm.size() * sizeof(int16_t)), at);
    }
  }

  struct Pictures {
    static Pictures& instance() {
      static Pictures pictures;
      return pictures;
    }
    std::vector<std::vector<uint8_t>> images{moving_image(64, 48, 0), moving_image(64, 48, 1)};
    std::vector<int16_t> pcm = std::vector<int16_t>(2 * 48000 / 25, 1000);
  };

  std::mt19937 m_random;
  LateCallbacks m_callbacks;
  MovieInfo m_info{};
  std::string m_path;  // of the movie; empty when the main output is a dead address
  bool m_async = false;
  int m_taken = 0;
};

class Storm {
 public:
  explicit Storm(unsigned seed) : m_seed(seed) {}

  /// Runs so many further recordings and waits until each has come to its end.
  void run(unsigned count) {
    const FfmpegLog quiet;  // of a portion alone: it keeps what it hears
    std::deque<Recording> all;
    for (unsigned i = 0; i < count; ++i) all.emplace_back(m_seed + m_run + i, m_dead, m_dir);
    std::atomic<unsigned> next{0};
    std::vector<std::thread> hosts;
    for (int i = 0; i < kAtOnce; ++i) {
      hosts.emplace_back([&] {
        for (unsigned n = next++; n < count; n = next++) all[n].run();
      });
    }
    for (std::thread& host : hosts) host.join();
    m_run += count;
    EXPECT_TRUE(m_ends.reach(m_run)) << m_ends.count() << " of " << m_run << " recordings have ended";
    for (const Recording& recording : all) {
      m_movies += recording.expect_whole_movie() ? 1 : 0;
      recording.remove();
    }
  }
  /// Runs up to `total` recordings, some at a time, so that few movies lie about.
  void run_up_to(unsigned total) {
    constexpr unsigned kPortion = 100;
    while (m_run < total) run(std::min(kPortion, total - m_run));
  }
  unsigned movies() const { return m_movies; }

 private:
  const DeadAddresses m_dead;
  const TempDir m_dir{TempDir::fast_parent()};
  Ends m_ends;
  unsigned m_seed;
  unsigned m_run = 0;
  unsigned m_movies = 0;
};

/// What the process needs, without what the allocator keeps for later.
long needed_kib() {
  malloc_trim(0);
  return resident_kib();
}

TEST(Storm, OfShortRecordingsLeavesNothingBehind) {
  // Each arena keeps what was freed in it, and which thread gets which is chance: with one, what grows is needed.
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  const unsigned total = from_environment("MERU_STORM_RECORDINGS", 80);
  const unsigned first = std::max(total / 10, std::min(total, 40U));
  const unsigned seed = from_environment("MERU_STORM_SEED", 1);
  std::printf("storm seed %u recordings %u\n", seed, total);
  Storm storm(seed);
  storm.run_up_to(std::min(first, 8U));  // what is made once for the process
  const ProcessCounts before = ProcessCounts::now();
  storm.run_up_to(first);
  const long early = needed_kib();
  storm.run_up_to(total);
  const long late = needed_kib();
  expect_nothing_left_since(before);
  EXPECT_GT(storm.movies(), total / 4);
  if (!kSanitized) {
    EXPECT_LT(static_cast<double>(late), 1.05 * static_cast<double>(early));
  }
  std::printf("storm movies %u memory_after_%u_kib %ld after_%u_kib %ld\n", storm.movies(), first, early, total, late);
}

}  // namespace
}  // namespace meru_test

// Starting and stopping at any moment against a network that is dead. MERU_STORM_ROUNDS sets how often each; see
// stop_storm.sh.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/case_name.h"
#include "support/dead_network.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/late_callbacks.h"
#include "support/overheard.h"
#include "support/process_counts.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kSlower = kSanitized ? 10 : 1;
constexpr milliseconds kStartLimit{50 * kSlower};
constexpr milliseconds kLongestStart{500 * kSlower};
constexpr milliseconds kStopLimit{1000 * (kSanitized ? 3 : 1)};
/// What MERU2_stop may take: live outputs have 5 s to take what was pushed, a look-up of a name 8 s to be over.
constexpr milliseconds kPacketStopLimit{5000 + 1000 * kSlower};
constexpr milliseconds kPacketLookUpLimit{8000 + 1000 * kSlower};
constexpr milliseconds kDelays[] = {milliseconds(0), milliseconds(1), milliseconds(10), milliseconds(100),
                                    milliseconds(500)};
constexpr int kAtOnce = 5;

int rounds() {
  const char* const wanted = std::getenv("MERU_STORM_ROUNDS");
  return wanted != nullptr ? std::atoi(wanted) : 5;
}

/// How long something takes, without the time in which others had the processor.
template <class Work>
microseconds own_time(Work work) {
  const long long waited = waited_for_processor_usec();
  const auto before = Clock::now();
  work();
  const auto took = std::chrono::duration_cast<microseconds>(Clock::now() - before);
  return took - microseconds(waited_for_processor_usec() - waited);
}

/// A start that waits for the network does so every time, and long. On a busy machine some starts take longer without
/// waiting for it: whoever holds a lock, of the allocator or of the log, may be kept from going on.
void expect_prompt(std::vector<microseconds> starts) {
  std::sort(starts.begin(), starts.end());
  EXPECT_LT(starts[starts.size() * 9 / 10], kStartLimit);
  EXPECT_LT(starts.back(), kLongestStart);
}

/// What stop_storm.sh reads.
void print(const char* name, const std::vector<microseconds>& starts, const std::vector<microseconds>& stops) {
  const auto late = std::count_if(starts.begin(), starts.end(), [](microseconds took) { return took >= kStartLimit; });
  const auto slowest = [](const std::vector<microseconds>& times) {
    return static_cast<long long>(std::max_element(times.begin(), times.end())->count());
  };
  std::printf("storm %s sessions %zu slowest_start_us %lld late_starts %ld slowest_stop_us %lld\n", name, starts.size(),
              slowest(starts), static_cast<long>(late), slowest(stops));
}

struct StormCase {
  const char* name;
  Death death;
  const char* scheme;
  bool further;  ///< the dead address is a further output of a file
};
void PrintTo(const StormCase& c, std::ostream* out) { *out << c.name; }

/// One start and one stop, `delay` later.
class Round {
 public:
  void run(const MovieInfo& info, milliseconds delay) {
    void* session = nullptr;
    start_took = own_time([&] { session = MERU_start(info, &LateCallbacks::callback, &callbacks, nullptr, true); });
    // The moment of the stop is what is tested; nothing is waited for.
    std::this_thread::sleep_for(delay);
    stop_took = own_time([&] { MERU_stop(&session); });
    callbacks.stopped = true;
    emptied = session == nullptr;
  }

  LateCallbacks callbacks;
  microseconds start_took{};
  microseconds stop_took{};
  bool emptied = false;
};

/// Runs every round, several at once.
void run_all(std::deque<Round>* all, const MovieInfo& info, const TempDir& dir, bool to_file) {
  std::atomic<size_t> next{0};
  const auto work = [&] {
    for (size_t i = next++; i < all->size(); i = next++) {
      MovieInfo own = info;
      if (to_file) set_text(own.url, dir.file(std::to_string(i) + ".mp4"));
      (*all)[i].run(own, kDelays[i % std::size(kDelays)]);
    }
  };
  std::vector<std::thread> workers;
  for (int i = 0; i < kAtOnce; ++i) workers.emplace_back(work);
  for (std::thread& worker : workers) worker.join();
}

class StopStormTest : public testing::TestWithParam<StormCase> {
 protected:
  const TempDir m_dir{TempDir::fast_parent()};
};

TEST_P(StopStormTest, StartsAndStopsAtOnceAndLeavesNothingBehind) {
  const StormCase& c = GetParam();
  const DeadNetwork network(c.death, c.scheme);
  std::deque<Round> all(static_cast<size_t>(rounds()) * std::size(kDelays));
  MovieInfo info = small_movie(network.url());
  const char* const further = network.url().c_str();
  if (c.further) info.other_urls[0] = further;

  Overheard heard;
  const ProcessCounts before = ProcessCounts::now();
  run_all(&all, info, m_dir, c.further);
  const auto sessions = static_cast<long>(all.size());
  EXPECT_TRUE(eventually([&] { return heard.log().count(4, "--- stop OK") == sessions; }, seconds(60)))
      << heard.log().count(4, "--- stop OK") << " of " << sessions << " sessions have ended";
  expect_nothing_left_since(before);
  if (c.scheme == std::string("rtmp")) heard.expect_no(DeadNetwork::kKey);
  EXPECT_TRUE(network.holds());

  std::vector<microseconds> starts, stops;
  for (const Round& round : all) {
    EXPECT_TRUE(round.emptied);
    EXPECT_EQ(round.callbacks.late, 0);
    EXPECT_LT(round.stop_took, kStopLimit);
    starts.push_back(round.start_took);
    stops.push_back(round.stop_took);
  }
  expect_prompt(starts);
  print(c.name, starts, stops);
}

constexpr StormCase kMainCases[] = {{"RtmpNeverAnswers", Death::kNeverAnswers, "rtmp", false},
                                    {"RtmpFullBacklog", Death::kFullBacklog, "rtmp", false},
                                    {"RtmpRefused", Death::kRefused, "rtmp", false},
                                    {"RtmpUnknownHost", Death::kUnknownHost, "rtmp", false},
                                    {"RtmpHalfAHandshake", Death::kHalfAHandshake, "rtmp", false},
                                    {"RtmpByteASecond", Death::kByteASecond, "rtmp", false},
                                    {"RtspNeverAnswers", Death::kNeverAnswers, "rtsp", false},
                                    {"RtspFullBacklog", Death::kFullBacklog, "rtsp", false},
                                    {"RtspRefused", Death::kRefused, "rtsp", false},
                                    {"RtspUnknownHost", Death::kUnknownHost, "rtsp", false},
                                    {"RtspHalfAHandshake", Death::kHalfAHandshake, "rtsp", false}};

/// The same addresses, each as a further output.
std::vector<StormCase> further_cases() {
  std::vector<StormCase> cases(std::begin(kMainCases), std::end(kMainCases));
  for (StormCase& c : cases) c.further = true;
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Main, StopStormTest, testing::ValuesIn(kMainCases), CaseName());
INSTANTIATE_TEST_SUITE_P(Further, StopStormTest, testing::ValuesIn(further_cases()), CaseName());

/// A session of packets against one dead address.
class PacketRound {
 public:
  PacketRound(const StormCase& c, const TempDir& dir, milliseconds stop_delay)
      : storm(c), file(dir.file("main.mp4")), delay(stop_delay), m_network(c.death, c.scheme) {}

  void start() {
    MovieInfo2 info = raw_movie(storm.further ? file : m_network.url(), true, false);
    if (storm.further) info.other_urls[0] = m_network.url().c_str();
    start_took = own_time([&] { m_session = MERU2_start(info, &LateCallbacks::callback, &callbacks); });
  }
  void push_and_stop(const RawPackets& video) {
    for (const RawPacket& packet : video) {
      std::string data = packet.data;
      MERU2_write_video_packet(m_session, data.data(), static_cast<int>(data.size()), packet.pts);
    }
    // The moment of the stop is what is tested; nothing is waited for.
    std::this_thread::sleep_for(delay);
    stop_took = own_time([&] { MERU2_stop(&m_session); });
    callbacks.stopped = true;
  }
  void expect_in_bounds() const {
    SCOPED_TRACE(std::string(storm.further ? "further " : "main ") + storm.name);
    EXPECT_LT(stop_took, storm.death == Death::kUnknownHost ? kPacketLookUpLimit : kPacketStopLimit);
    EXPECT_EQ(callbacks.late, 0);
  }

  const StormCase storm;
  const std::string file;
  const milliseconds delay;
  LateCallbacks callbacks;
  microseconds start_took{};
  microseconds stop_took{};

 private:
  DeadNetwork m_network;
  void* m_session = nullptr;
};

/// Every dead address at once, as the main output and beside a file, stopped after every delay.
TEST(PacketStopStormTest, StopIsBoundedAndFilesAreComplete) {
  const TempDir dir{TempDir::fast_parent()};
  const RawVideo video = make_video(dir, {60});
  std::vector<StormCase> cases = further_cases();
  cases.insert(cases.end(), std::begin(kMainCases), std::end(kMainCases));
  for (int wave = 0; wave < (rounds() + 4) / 5; ++wave) {
    std::deque<TempDir> folders;
    std::deque<PacketRound> all;
    for (const milliseconds delay : kDelays) {
      for (const StormCase& c : cases) all.emplace_back(c, folders.emplace_back(dir.path()), delay);
    }
    Overheard heard;
    const ProcessCounts before = ProcessCounts::now();
    std::vector<std::thread> hosts;
    for (PacketRound& round : all) {
      round.start();
      hosts.emplace_back([&] { round.push_and_stop(video.packets); });
    }
    for (std::thread& host : hosts) host.join();
    expect_nothing_left_since(before);
    heard.printed();

    std::vector<microseconds> starts, stops;
    for (const PacketRound& round : all) {
      round.expect_in_bounds();
      if (round.storm.further) expect_video(round.file, video.packets, kMp4.tick);
      starts.push_back(round.start_took);
      stops.push_back(round.stop_took);
    }
    expect_prompt(starts);
    print("Packets", starts, stops);
  }
}

}  // namespace
}  // namespace meru_test

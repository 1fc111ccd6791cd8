// A start that is stopped before it is through leaves its path to the next recording: nothing of it touches a file any
// more once the stop has returned.

#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/books_check.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/late_callbacks.h"
#include "support/log_capture.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr char kSlowHost[] = "slow.invalid";
constexpr int kImages = 3;

/// A name look-up that lasts until it is let go, as one does whose server is gone.
class SlowLookUp {
 public:
  int look_up() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_open; });
    --m_waiting;
    m_changed.notify_all();
    return EAI_NONAME;
  }
  bool wait_until_asked() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_waiting > 0; });
  }
  void shut() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
  }
  void let_go() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_waiting = 0;
  bool m_open = false;
};

SlowLookUp g_look_up;

/// Records a few images over whatever the path held.
void record_again(const MovieInfo& info) {
  Host host(info);
  ASSERT_TRUE(host.started()) << info.url;
  EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);
}

class AbandonedStartTest : public testing::Test {
 protected:
  AbandonedStartTest() { g_look_up.shut(); }
};

struct Setting {
  const char* extension;
  bool index, additional;
};

MovieInfo record_of(const std::string& base, const Setting& setting, std::string* also) {
  MovieInfo info = small_movie(base + "." + setting.extension);
  if (setting.index) set_text(info.snapshot_path, base + ".index");
  *also = base + "-also.nut";
  if (setting.additional) info.other_urls[0] = also->c_str();
  return info;
}

TEST_F(AbandonedStartTest, LeavesItsPathToTheNextRecordingAtEveryMoment) {
  const TempDir dir(TempDir::fast_parent());
  LogCapture log;
  constexpr int kRounds = 1000;
  const Setting settings[] = {
      {"mp4", false, false}, {"mkv", true, false}, {"flv", false, true}, {"mp4", true, true}, {"avi", false, true}};
  std::vector<std::string> movies;
  for (int i = 0; i < kRounds; ++i) {
    const Setting& setting = settings[i % 5];
    std::string also;
    const MovieInfo info = record_of(dir.file(std::to_string(i)), setting, &also);
    LateCallbacks callbacks;
    void* session = MERU_start(info, &LateCallbacks::callback, &callbacks, nullptr, true);
    // The moment of the stop is what is tested; nothing is waited for.
    std::this_thread::sleep_for(std::chrono::microseconds(i * 7 % 1500));
    MERU_stop(&session);
    record_again(info);
    movies.emplace_back(info.url);
    if (setting.additional) movies.push_back(also);
  }
  ASSERT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 2 * kRounds; }));
  for (const std::string& movie : movies) EXPECT_EQ(video_packets(movie), kImages) << movie;
}

TEST_F(AbandonedStartTest, RemovesWhatItHasCreatedAndNothingElse) {
  const TempDir dir;
  LogCapture log;
  std::string also = dir.file("also.mkv"), slow = std::string("rtmp://") + kSlowHost + "/live/key";
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  set_text(info.snapshot_path, dir.file("index"));
  info.other_urls[0] = also.c_str();
  info.other_urls[1] = slow.c_str();
  LateCallbacks callbacks;
  void* session = MERU_start(info, &LateCallbacks::callback, &callbacks, nullptr, true);
  ASSERT_TRUE(g_look_up.wait_until_asked());
  EXPECT_TRUE(std::filesystem::exists(info.url));
  EXPECT_TRUE(std::filesystem::exists(also));
  MERU_stop(&session);
  for (const std::string& path : {std::string(info.url), also, dir.file("index")}) {
    EXPECT_FALSE(std::filesystem::exists(path)) << path;
  }
  // Another recording of all three paths, while the first start still hangs.
  info.other_urls[1] = nullptr;
  record_again(info);
  g_look_up.let_go();
  ASSERT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 2; }));
  EXPECT_EQ(video_packets(info.url), kImages);
  EXPECT_EQ(video_packets(also), kImages);
  EXPECT_GT(std::filesystem::file_size(dir.file("index")), 0U);
  EXPECT_EQ(callbacks.late + callbacks.in_time, 0);
}

class AbandonedMovie : public AbandonedStartTest, public testing::WithParamInterface<const char*> {};

TEST_P(AbandonedMovie, IsNotTouchedAgainHoweverLateItsStartGoesOn) {
  const TempDir dir;
  LogCapture log;
  const std::string slow = std::string("rtmp://") + kSlowHost + "/live/key";
  MovieInfo info = small_movie(dir.file(std::string("movie.") + GetParam()));
  info.other_urls[0] = slow.c_str();
  void* session = MERU_start(info, nullptr, nullptr, nullptr, true);
  ASSERT_TRUE(g_look_up.wait_until_asked());
  MERU_stop(&session);
  info.other_urls[0] = nullptr;
  record_again(info);
  g_look_up.let_go();
  ASSERT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 2; }));
  EXPECT_EQ(video_packets(info.url), kImages);
}

INSTANTIATE_TEST_SUITE_P(Containers, AbandonedMovie, testing::Values("mp4", "mov", "mkv", "flv", "avi", "nut", "ts"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(AbandonedStartTest, OfPacketsLeavesItsPathToTheNext) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const std::string slow = std::string("rtmp://") + kSlowHost + "/live/key";
  MovieInfo2 info = raw_movie(dir.file("movie.mp4"), true, false);
  set_text(info.snapshot_path, dir.file("index"));
  info.other_urls[0] = slow.c_str();
  {
    PacketHost host(info);
    for (const RawPacket& packet : video.packets) host.push_video(packet);
    ASSERT_TRUE(g_look_up.wait_until_asked());
  }
  EXPECT_FALSE(std::filesystem::exists(info.url));
  EXPECT_FALSE(std::filesystem::exists(info.snapshot_path));
  info.other_urls[0] = nullptr;
  PacketHost next(info);
  for (const RawPacket& packet : video.packets) next.push_video(packet);
  next.stop();
  const auto size = std::filesystem::file_size(info.url);
  g_look_up.let_go();
  // The start that was left behind has nothing that says when it ends; its thread does.
  const auto threads = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  EXPECT_TRUE(eventually([&] { return threads() == 1; }));
  EXPECT_EQ(std::filesystem::file_size(info.url), size);
  EXPECT_EQ(video_packets(info.url), static_cast<int64_t>(video.packets.size()));
}

}  // namespace

int slow_look_up() { return g_look_up.look_up(); }

}  // namespace meru_test

// Found by FFmpeg before that of the system.
extern "C" int getaddrinfo(const char* node, const char* /*service*/, const addrinfo* /*hints*/, addrinfo** result) {
  *result = nullptr;
  return node != nullptr && std::strcmp(node, "slow.invalid") == 0 ? meru_test::slow_look_up() : EAI_NONAME;
}

// Packets as a camera gives them: at real pace, from one thread, with what a demuxer needs coming late or never.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Reads a FLV stream from a pipe as it comes and counts the packets of each kind, without the codecs' parameters.
class FlvPipe {
 public:
  explicit FlvPipe(const std::string& path) : m_path(path) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    m_reader = std::thread([this] { read_all(); });
  }
  ~FlvPipe() { m_reader.join(); }
  FlvPipe(const FlvPipe&) = delete;
  FlvPipe& operator=(const FlvPipe&) = delete;

  int videos() const { return m_videos; }
  int audios() const { return m_audios; }

 private:
  bool read_bytes(int fd, size_t count, std::string* bytes) {
    bytes->resize(count);
    for (size_t have = 0; have < count;) {
      const ssize_t n = ::read(fd, bytes->data() + have, count - have);
      if (n <= 0) return false;
      have += static_cast<size_t>(n);
    }
    return true;
  }
  void read_all() {
    const int fd = open(m_path.c_str(), O_RDONLY);
    constexpr size_t kHeader = 9 + 4;
    constexpr size_t kTagHeader = 11;
    constexpr size_t kTagTrailer = 4;
    std::string bytes;
    bool more = read_bytes(fd, kHeader, &bytes);
    while (more && read_bytes(fd, kTagHeader, &bytes)) {
      const int type = bytes[0];
      size_t size = 0;
      for (size_t i = 1; i <= 3; ++i) size = size << 8 | static_cast<unsigned char>(bytes[i]);
      more = read_bytes(fd, size + kTagTrailer, &bytes);
      const bool packet = size > 1 && bytes[1] == 1;  // 0 are the codec's parameters
      if (more && packet && type == 9) ++m_videos;
      if (more && packet && type == 8) ++m_audios;
    }
    close(fd);
  }

  std::string m_path;
  std::atomic<int> m_videos{0};
  std::atomic<int> m_audios{0};
  std::thread m_reader;
};

TEST(RawPacketsPaceTest, FirstPacketIsOutWithinASecond) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {120});
  const RawAudio audio = make_audio(dir, 4);
  FlvPipe pipe(dir.file("live.flv"));
  PacketHost host(raw_movie(dir.file("live.flv")));
  const auto begin = Clock::now();
  auto out_after = Clock::duration::max();
  std::thread watcher([&] {
    if (eventually([&] { return pipe.videos() > 0 && pipe.audios() > 0; })) out_after = Clock::now() - begin;
  });
  size_t next_audio = 0;
  for (const RawPacket& packet : video.packets) {
    std::this_thread::sleep_until(begin + std::chrono::microseconds(packet.pts));  // the pace is what is tested
    for (; next_audio < audio.packets.size() && audio.packets[next_audio].pts <= packet.pts; ++next_audio) {
      host.push_audio(audio.packets[next_audio]);
    }
    host.push_video(packet);
    if (pipe.videos() > 20) break;
  }
  watcher.join();
  host.stop();
  EXPECT_LT(out_after, milliseconds(1000));
}

/// What is pushed is out soon after: only what is held back for reordering, and the picture whose end is not seen yet,
/// are behind.
TEST(RawPacketsPaceTest, NoMoreThanTheHoldBackIsBehind) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {60});
  FlvPipe pipe(dir.file("live.flv"));
  PacketHost host(raw_movie(dir.file("live.flv"), true, false));
  for (size_t i = 0; i < video.packets.size(); ++i) {
    host.push_video(video.packets[i]);
    const int expected = static_cast<int>(i) + 1 - 6 - 1;
    ASSERT_TRUE(eventually([&] { return pipe.videos() >= expected; })) << i;
  }
  host.stop();
  EXPECT_TRUE(eventually([&] { return pipe.videos() == 60; }));
}

class OneThreadTest : public testing::Test {
 protected:
  /// Pushes from one thread and checks that everything is in the movie.
  void expect_recorded(const RawPackets& video, const RawPackets& audio) {
    const std::string path = m_dir.file("movie.mkv");
    PacketHost host(raw_movie(path));
    const Background pushing([&] { host.push(video, audio); });
    const bool pushed = pushing.ends();
    EXPECT_TRUE(pushed);
    if (!pushed) _exit(1);  // a thread that hangs cannot be ended
    host.stop();
    expect_success(host.status());
    expect_video(path, video, kMillisecond);
    expect_audio(path, audio, kMillisecond);
  }

  TempDir m_dir;
};

TEST_F(OneThreadTest, FiveImagesASecondWithSound) {
  const RawVideo video = make_video(m_dir, {75, 5});
  const RawAudio audio = make_audio(m_dir, 15);
  expect_recorded(video.packets, audio.packets);
}

TEST_F(OneThreadTest, ParameterSetsOnlyWithTheTwentiethPacket) {
  RawVideo video = make_video(m_dir, {75, 5, "160x120", "keyint=19:scenecut=0"});
  for (size_t i = 0; i < 19; ++i) video.packets[i].data = without_parameter_sets(video.packets[i].data);
  const RawAudio audio = make_audio(m_dir, 15);
  expect_recorded(video.packets, audio.packets);
}

TEST(RawPacketsPaceTest, AudioThatNeverComesIsNamedAtTheStop) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {300});
  PacketHost host(raw_movie(dir.file("movie.mp4")));
  host.push(video.packets, {});
  ASSERT_TRUE(host.status().wait_for_code(0));
  EXPECT_EQ(host.status().entries().size(), 1U);
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_LT(entries[1].code, 0);
  EXPECT_EQ(entries[1].text, "Could not open input 'aac': End of file");
}

TEST(RawPacketsPaceTest, VideoThatNeverComesIsNamedAtTheStop) {
  const TempDir dir;
  const RawAudio audio = make_audio(dir);
  PacketHost host(raw_movie(dir.file("movie.mp4")));
  host.push({}, audio.packets);
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_LT(entries[1].code, 0);
  EXPECT_EQ(entries[1].text, "could not find stream information for 'h264'");
}

}  // namespace
}  // namespace meru_test

// As many and as large images as the machine takes: nothing is lost, and what waits for the outputs is what their
// queues may hold. By default a little of it; MERU_LOAD_IMAGES sets how many images each recording gets, see soak.sh.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/host.h"
#include "support/probe.h"
#include "support/resident_memory.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

int images_wanted(int otherwise) {
  const char* const wanted = std::getenv("MERU_LOAD_IMAGES");
  return wanted != nullptr ? std::atoi(wanted) : otherwise;
}

/// What waits for an output at the most: a queue takes a video packet while fewer than 60 packets wait in it, and 6
/// more for each place of a further output; sound has room for 1000 packets beyond that, and 3 more for each place.
constexpr int kMostVideo = 60 + 4 * 6;
constexpr int kMostAudio = kMostVideo + 1000 + 4 * 3;

/// All outputs hold the same bytes, each packet until the slowest output has written it. So the longest queue is the
/// bound for all of them together. Besides, each packet has its structures in each queue.
double most_waiting_kib(const std::vector<ProbedPacket>& video, const std::vector<ProbedPacket>& audio, int outputs) {
  const auto largest = [](const std::vector<ProbedPacket>& packets) {
    long long size = 0;
    for (const ProbedPacket& packet : packets) size = std::max(size, packet.size);
    return static_cast<double>(size);
  };
  constexpr double kStructures = 1024;  // of a packet in a queue
  return (kMostVideo * largest(video) + kMostAudio * largest(audio) + outputs * kMostAudio * kStructures) / 1024;
}

/// What one image more may need at any time, in the encoder and its converter: the host's image, and the encoder's own
/// with the half-way pictures that it searches in.
double frames_kib(const MovieInfo& info, int frames) { return frames * info.width * info.height * 4.5 / 1024; }

MovieInfo large_movie(const std::string& url, int width, int height, int fps) {
  MovieInfo info = small_movie(url);
  info.width = info.width_src = width;
  info.height = info.height_src = height;
  info.fps = info.gop_size = fps;
  info.v_bitrate = 0;
  return info;
}

/// Pushes prepared pictures with their sound; to make them would take longer than to record them.
class QuickHost {
 public:
  explicit QuickHost(const MovieInfo& info) : m_info(info), m_host(info) {
    for (int i = 0; i < 2; ++i) m_images.push_back(tiled(info, moving_image(info.width_src, kTile, i * 20)));
  }
  Host& host() { return m_host; }
  int taken() const { return m_taken; }
  int pushed() const { return m_pushed; }

  void push(int images) {
    for (int i = 0; i < images; ++i) push_one();
  }
  void push_one() {
    const long long at = kUsecPerSec + m_pushed * kUsecPerSec / m_info.fps;
    std::vector<uint8_t>& image = m_images[static_cast<size_t>(m_pushed) % m_images.size()];
    const int nbytes = static_cast<int>(image.size());
    if (MERU_write_video_bgra(m_host.session(), image.data(), nbytes, at, m_info.width_src * 4) != 0) ++m_taken;
    m_host.push_samples(m_info.sample_rate_src / m_info.fps, at);
    ++m_pushed;
  }

 private:
  static constexpr int kTile = 48;  // rows

  static std::vector<uint8_t> tiled(const MovieInfo& info, const std::vector<uint8_t>& tile) {
    std::vector<uint8_t> image;
    for (int row = 0; row < info.height_src; row += kTile) image.insert(image.end(), tile.begin(), tile.end());
    return image;
  }

  MovieInfo m_info;
  Host m_host;
  std::vector<std::vector<uint8_t>> m_images;
  std::atomic<int> m_pushed{0};
  std::atomic<int> m_taken{0};
};

/// The movie has every picture, and the sound to all of them. @return what may have waited for its outputs
double expect_all(const std::string& path, const MovieInfo& info, int images, int outputs = 1) {
  const auto video = probe_packets(path, "v:0");
  const auto audio = probe_packets(path, "a:0");
  const double seconds = static_cast<double>(images) / info.fps;
  EXPECT_EQ(video.size(), static_cast<size_t>(images)) << path;
  EXPECT_FALSE(audio.empty()) << path;
  // The encoder takes whole frames of sound, and what it begins with may stand before the beginning.
  if (!audio.empty()) {
    EXPECT_NEAR(audio.back().pts + audio.back().duration, seconds, 0.1) << path;
  }
  return most_waiting_kib(video, audio, outputs);
}

/// A pipe as an output. What comes is kept in a file, but only from the moment on at which reading is asked for.
class HeldPipe {
 public:
  HeldPipe(const std::string& pipe, const std::string& file) {
    if (mkfifo(pipe.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    m_reader = std::thread([this, pipe, file] {
      const int in = open(pipe.c_str(), O_RDONLY);
      eventually([&] { return m_reading.load(); }, std::chrono::seconds(120));
      const int out = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
      std::vector<char> bytes(1 << 16);
      for (ssize_t n = 0; (n = read(in, bytes.data(), bytes.size())) > 0;) {
        if (write(out, bytes.data(), static_cast<size_t>(n)) != n) break;
      }
      close(out);
      close(in);
    });
  }
  ~HeldPipe() { finish(); }
  HeldPipe(const HeldPipe&) = delete;
  HeldPipe& operator=(const HeldPipe&) = delete;

  void read_on() { m_reading = true; }
  /// The writer has closed its end.
  void finish() {
    read_on();
    if (m_reader.joinable()) m_reader.join();
  }

 private:
  std::atomic<bool> m_reading{false};
  std::thread m_reader;
};

/// Four further outputs beside a file.
class FourFurther : public testing::Test {
 protected:
  MovieInfo record(int width, int height, int fps) {
    MovieInfo info = large_movie(m_main, width, height, fps);
    for (size_t i = 0; i < 4; ++i) info.other_urls[i] = m_others[i].c_str();
    return info;
  }

  const TempDir m_dir;
  const std::string m_main = m_dir.file("main.mp4");
  std::string m_others[4] = {m_dir.file("1.mkv"), m_dir.file("2.mov"), m_dir.file("3.flv"), m_dir.file("4.mp4")};
};

TEST_F(FourFurther, TakeEveryImageOf4KAsFastAsItIsPushed) {
  const int images = images_wanted(20);
  const MovieInfo info = record(3840, 2160, 60);
  QuickHost host(info);
  ASSERT_TRUE(host.host().started());
  const int settled = images / 2;  // the encoder has all its pictures
  const auto begin = std::chrono::steady_clock::now();
  host.push(settled);
  const long early = resident_kib();
  long most = early;
  while (host.pushed() < images) {
    host.push_one();
    most = std::max(most, resident_kib());
  }
  host.host().stop();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(host.taken(), images);
  const double bound = expect_all(m_main, info, images, 5);
  for (const std::string& path : m_others) expect_all(path, info, images);
  if (!kSanitized) {
    EXPECT_LT(static_cast<double>(most - early), bound + frames_kib(info, 1));
  }
  std::printf("load 4K images %d seconds %.1f images_a_second %.1f grown_kib %ld bound_kib %.0f\n", images,
              took.count(), images / took.count(), most - early, bound);
}

TEST_F(FourFurther, SlowestHoldsTheHostBackWhenItsQueueIsFull) {
  // The last one's queue is the longest.
  m_others[3] = m_dir.file("pipe.mkv");
  const std::string arrived = m_dir.file("arrived.mkv");
  HeldPipe pipe(m_others[3], arrived);
  const int images = kMostVideo * 2;
  MovieInfo info = record(1280, 720, 30);
  info.rate_control = RATE_CONTROL_CQP;
  info.qp = 10;
  QuickHost host(info);
  ASSERT_TRUE(host.host().started());
  host.push(10);
  const long early = resident_kib();
  std::thread pushing([&] { host.push(images - 10); });
  // The host is held back: nothing goes on until the pipe is read.
  int seen = -1;
  auto since = std::chrono::steady_clock::now();
  const bool held = eventually(
      [&] {
        const auto now = std::chrono::steady_clock::now();
        if (host.pushed() != seen) since = now;
        seen = host.pushed();
        return now - since > std::chrono::seconds(1);
      },
      std::chrono::seconds(60));
  const long full = resident_kib();
  const int held_at = host.pushed();
  pipe.read_on();
  pushing.join();
  host.host().stop();
  pipe.finish();
  EXPECT_TRUE(held);
  EXPECT_LT(held_at, images);
  EXPECT_EQ(host.taken(), images);
  expect_all(arrived, info, images);
  const double bound = expect_all(m_main, info, images, 5);
  if (!kSanitized) {
    EXPECT_LT(static_cast<double>(full - early), bound + frames_kib(info, 1));
  }
  std::printf("load held_at %d of %d grown_kib %ld bound_kib %.0f\n", held_at, images, full - early, bound);
}

TEST(EightRecordingsTest, Of720pAtOnceLoseNothing) {
  constexpr int kRecordings = 8;
  const int images = images_wanted(30);
  const TempDir dir;
  std::vector<MovieInfo> infos;
  std::vector<std::unique_ptr<QuickHost>> hosts;
  for (int i = 0; i < kRecordings; ++i) {
    infos.push_back(large_movie(dir.file(std::to_string(i) + (i % 2 == 0 ? ".mp4" : ".mkv")), 1280, 720, 30));
    hosts.push_back(std::make_unique<QuickHost>(infos.back()));
    ASSERT_TRUE(hosts.back()->host().started());
  }
  const auto push_to_all = [&](int count) {
    std::vector<std::thread> threads;
    for (const auto& host : hosts) threads.emplace_back([&host, count] { host->push(count); });
    for (std::thread& thread : threads) thread.join();
  };
  const auto begin = std::chrono::steady_clock::now();
  push_to_all(images / 2);
  const long early = resident_kib();
  push_to_all(images - images / 2);
  const long late = resident_kib();
  for (const auto& host : hosts) host->host().stop();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;

  double bound = 0;
  for (size_t i = 0; i < hosts.size(); ++i) {
    EXPECT_EQ(hosts[i]->taken(), images);
    bound += expect_all(infos[i].url, infos[i], images) + frames_kib(infos[i], 1);
  }
  if (!kSanitized) {
    EXPECT_LT(static_cast<double>(late - early), bound);
  }
  std::printf("load 8x720p images %d seconds %.1f images_a_second %.1f grown_kib %ld bound_kib %.0f\n", images,
              took.count(), images * kRecordings / took.count(), late - early, bound);
}

}  // namespace
}  // namespace meru_test

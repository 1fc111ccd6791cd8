// What no host should push, and still harms nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <tuple>

#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

class BadPushTest : public testing::Test {
 protected:
  /// Pushes a good movie with `bad` before each of its packets, and expects the good one.
  void expect_unharmed(const std::function<void(void*, long long)>& bad) {
    const RawVideo video = make_video(m_dir);
    const RawAudio audio = make_audio(m_dir);
    const std::string path = m_dir.file("movie.mkv");
    PacketHost host(raw_movie(path));
    size_t v = 0;
    for (const RawPacket& packet : audio.packets) {
      bad(host.session(), packet.pts);
      host.push_audio(packet);
      for (; v < video.packets.size() && video.packets[v].pts <= packet.pts; ++v) {
        bad(host.session(), packet.pts);
        host.push_video(video.packets[v]);
      }
    }
    host.stop();
    expect_success(host.status());
    expect_video(path, video.packets, kMillisecond);
    expect_audio(path, audio.packets, kMillisecond);
  }

  TempDir m_dir;
};

TEST_F(BadPushTest, NullDataWithASize) {
  expect_unharmed([](void* session, long long pts) {
    EXPECT_TRUE(MERU2_write_video_packet(session, nullptr, 1000, pts));
    EXPECT_TRUE(MERU2_write_audio_packet(session, nullptr, INT32_MAX, pts));
  });
}

TEST_F(BadPushTest, NegativeSizes) {
  expect_unharmed([](void* session, long long pts) {
    char data[] = "data";
    EXPECT_TRUE(MERU2_write_video_packet(session, data, -1, pts));
    EXPECT_TRUE(MERU2_write_audio_packet(session, data, INT32_MIN, pts));
  });
}

TEST_F(BadPushTest, NoBytes) {
  expect_unharmed([](void* session, long long pts) {
    char data[] = "data";
    EXPECT_TRUE(MERU2_write_video_packet(session, data, 0, pts));
    EXPECT_TRUE(MERU2_write_audio_packet(session, nullptr, 0, pts));
  });
}

TEST(BadSessionTest, NullHandle) {
  char data[] = "data";
  EXPECT_FALSE(MERU2_write_video_packet(nullptr, data, 4, 0));
  EXPECT_FALSE(MERU2_write_audio_packet(nullptr, data, 4, 0));
  EXPECT_FALSE(MERU2_write_video_packet(nullptr, nullptr, 0, 0));
  MERU2_stop(nullptr);
  void* session = nullptr;
  MERU2_stop(&session);
  EXPECT_EQ(session, nullptr);
}

TEST(BadSessionTest, WithoutACallbackNothingHappens) {
  const TempDir dir;
  for (const char* name : {"movie.mp4", "no/movie.mp4"}) {
    void* session = MERU2_start(raw_movie(dir.file(name)), nullptr, nullptr);
    ASSERT_NE(session, nullptr);
    MERU2_stop(&session);
    EXPECT_EQ(session, nullptr);
  }
}

/// Whatever is taken for a stream in it, the session can be ended, and says at most once why it has failed.
TEST(BadSessionTest, NothingButGarbage) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  for (unsigned seed = 0; seed < 20; ++seed) {
    PacketHost host(raw_movie(dir.file(std::to_string(seed) + ".mkv")));
    for (unsigned i = 0; i < 60; ++i) {
      const std::string bytes = random_bytes(1 + seed * 50, seed * 1000 + i);
      host.push_video(seed % 2 == 0 ? RawPacket{bytes, i} : video.packets[i]);
      // The beginning of a frame of sound, so that the search for one does not just skip everything.
      host.push_audio({"\xff\xf1\x4c" + bytes, i});
    }
    host.stop();
    EXPECT_EQ(host.session(), nullptr);
    const auto entries = host.status().entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries[0].code, 0);
    EXPECT_LE(entries.size(), 2U);
  }
}

/// In the middle of a good movie: what comes behind it is recorded.
class MixedGarbageTest : public testing::TestWithParam<std::tuple<const char*, size_t>> {};

TEST_P(MixedGarbageTest, TheMovieGoesOn) {
  const auto& [container, size] = GetParam();
  const TempDir dir;
  RawVideo video = make_video(dir);
  RawAudio audio = make_audio(dir);
  for (const size_t at : {20U, 30U, 40U}) {
    video.packets[at].data = random_bytes(size, static_cast<unsigned>(at));
    audio.packets[at].data = random_bytes(size, static_cast<unsigned>(at) + 1);
  }
  audio.packets.push_back({random_bytes(3, 1), audio.packets.back().pts + 1});  // and a piece at the end
  const std::string path = dir.file(std::string("movie.") + container);
  PacketHost host(raw_movie(path));
  host.push_from_two_threads(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  const auto images = probe_packets(path, "v:0");
  const auto sounds = probe_packets(path, "a:0");
  ASSERT_FALSE(images.empty());
  ASSERT_FALSE(sounds.empty());
  EXPECT_EQ(images.back().hash, video_hashes(video.packets).back());
  EXPECT_EQ(sounds.back().hash, audio_hashes({audio.packets.end()[-2]}).back());
}
const auto garbage_name = [](const auto& row) {
  return std::get<0>(row.param) + std::string("With") + std::to_string(std::get<1>(row.param)) + "Bytes";
};
constexpr size_t kHuge = 16 << 20;
INSTANTIATE_TEST_SUITE_P(Small, MixedGarbageTest,
                         testing::Combine(testing::Values("mp4", "mkv", "flv"), testing::Values(1, 100, 5000)),
                         garbage_name);
INSTANTIATE_TEST_SUITE_P(Huge, MixedGarbageTest,
                         testing::Combine(testing::Values("mp4", "mkv"), testing::Values(kHuge)), garbage_name);

/// FLV has 24 bits for the size of a packet.
TEST(HugePacketTest, ThatDoesNotFitIntoTheContainerIsReported) {
  const TempDir dir;
  RawVideo video = make_video(dir);
  video.packets[20].data += random_bytes(kHuge, 1);
  PacketHost host(raw_movie(dir.file("movie.flv"), true, false));
  host.push(video.packets, {});
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[1].code, -EINVAL);
  EXPECT_EQ(entries[1].text, "Invalid argument");
}

/// Stamps at the ends of their range are recorded without harm, whatever the container makes of them.
TEST(BadStampTest, ExtremeStamps) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {40});
  constexpr long long kStamps[] = {INT64_MIN, INT64_MIN, INT64_MAX, INT64_MAX, -1, 0, INT64_MAX - 1, INT64_MIN + 1};
  for (const char* name : {"movie.mp4", "movie.mkv", "movie.flv"}) {
    PacketHost host(raw_movie(dir.file(name), true, false));
    for (size_t i = 0; i < video.packets.size(); ++i) host.push_video({video.packets[i].data, kStamps[i % 8]});
    host.stop();
    EXPECT_TRUE(std::filesystem::exists(dir.file(name)));
  }
}

TEST(LongPathTest, LongestPathsOfMovieAndIndexAreUsed) {
  const TempDir dir;
  const std::string path = longest_path(dir, ".mkv");
  const std::string index = longest_path(dir, ".idx");
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_EQ(path.size(), 511U);
  const RawVideo video = make_video(dir, {5});
  MovieInfo2 info = raw_movie("", true, false);
  path.copy(info.url, path.size());
  index.copy(info.snapshot_path, index.size());
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  expect_success(host.status());
  expect_video(path, video.packets, kMillisecond);
  EXPECT_TRUE(std::filesystem::exists(index));
}

TEST(LongPathTest, FieldsWithoutATerminatorAreNotReadBeyond) {
  MovieInfo2 info = raw_movie("", true, false);
  std::fill(std::begin(info.url), std::end(info.url), 'x');
  std::fill(std::begin(info.snapshot_path), std::end(info.snapshot_path), 'y');
  std::fill(std::begin(info.metadata), std::end(info.metadata), 'x');
  PacketHost host(info);
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].text, "could not find suitable output format: " + std::string(511, 'x'));
}

}  // namespace
}  // namespace meru_test

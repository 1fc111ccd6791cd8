// The side index beside the movie, and further outputs of the same packets.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/index_reader.h"
#include "support/log_capture.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

/// The bytes of the movie that a record names, hashed like a packet that ffprobe shows.
std::string hash_of(const std::string& movie, const IndexReader::Packet& packet) {
  return "MD5:" + md5(movie.substr(static_cast<size_t>(packet.pos), static_cast<size_t>(packet.size)));
}

/// The records of one stream name the packets that were pushed, with their stamps. The last packet of the whole index
/// has no record.
void expect_records(const std::string& movie, const std::vector<IndexReader::Packet>& records, int stream,
                    const std::vector<std::string>& hashes, const RawPackets& pushed, double ticks_per_second) {
  size_t n = 0;
  for (const IndexReader::Packet& record : records) {
    if (record.stream != stream) continue;
    ASSERT_LT(n, pushed.size());
    EXPECT_EQ(hash_of(movie, record), hashes[n]) << n;
    const double ticks = static_cast<double>(pushed[n].pts) * ticks_per_second / kUsecPerSec;
    EXPECT_NEAR(static_cast<double>(record.pts), ticks, 1) << n;
    EXPECT_EQ(record.dts, record.pts);
    ++n;
  }
  EXPECT_GE(n + 1, pushed.size());
}

TEST(RawPacketsIndexTest, NamesEveryPacketInTheMovie) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  const std::string path = dir.file("movie.mp4");
  const std::string index_path = dir.file("movie.index");
  MovieInfo2 info = raw_movie(path);
  set_text(info.snapshot_path, index_path);
  LogCapture log;
  PacketHost host(info);
  host.push(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  EXPECT_EQ(log.count(2, "启动快照 (success): " + index_path), 1);
  expect_video(path, video.packets, kMp4.tick);
  expect_audio(path, audio.packets, kMp4.tick);

  const IndexReader index = IndexReader::of_file(index_path);
  EXPECT_EQ(index.version, 2);
  ASSERT_EQ(index.streams.size(), 2U);
  EXPECT_EQ(index.streams[0].at("codec"), "h264");
  EXPECT_EQ(index.streams[0].at("w"), 160);
  EXPECT_EQ(index.streams[0].at("h"), 120);
  EXPECT_NE(index.streams[0].at("qv"), "");
  EXPECT_EQ(index.streams[1].at("codec"), "aac");
  EXPECT_EQ(index.streams[1].at("sample_rate"), kAudioRate);
  EXPECT_EQ(index.streams[1].at("channels"), 2);
  EXPECT_EQ(index.streams[1].at("frame_size"), kAudioFrame);
  const auto records = index.packets();
  EXPECT_EQ(records.size() + 1, video.packets.size() + audio.packets.size());
  const std::string movie = read_file(path);
  expect_records(movie, records, 0, video_hashes(video.packets), video.packets,
                 index.streams[0].at("tb.den").get<double>());
  expect_records(movie, records, 1, audio_hashes(audio.packets), audio.packets,
                 index.streams[1].at("tb.den").get<double>());
}

class RawPacketsIndexContainersTest : public testing::TestWithParam<Container> {};

TEST_P(RawPacketsIndexContainersTest, MovieIsCompleteWithAnIndexBesideIt) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  const std::string path = dir.file(std::string("movie.") + GetParam().name);
  const std::string index_path = dir.file("movie.index");
  MovieInfo2 info = raw_movie(path);
  set_text(info.snapshot_path, index_path);
  PacketHost host(info);
  host.push(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  expect_video(path, video.packets, GetParam().tick);
  expect_audio(path, audio.packets, GetParam().tick);
  EXPECT_EQ(decode_errors(path), "");
  EXPECT_TRUE(decoded_samples(path) == decoded_samples(audio.path));
  const IndexReader index = IndexReader::of_file(index_path);
  EXPECT_EQ(index.packets().size() + 1, video.packets.size() + audio.packets.size());
}

INSTANTIATE_TEST_SUITE_P(All, RawPacketsIndexContainersTest, testing::Values(kMp4, kMkv, kFlv), CaseName());

TEST(RawPacketsIndexTest, ThatCannotBeOpenedDoesNotStopTheSession) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {5});
  const std::string path = dir.file("movie.mp4");
  const std::string index_path = dir.file("no/movie.index");
  MovieInfo2 info = raw_movie(path, true, false);
  set_text(info.snapshot_path, index_path);
  LogCapture log;
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  expect_success(host.status());
  EXPECT_EQ(log.count(2, "启动快照失败: " + index_path), 1);
  expect_video(path, video.packets, kMp4.tick);
}

TEST(RawPacketsIndexTest, SessionThatIsKilledLeavesAnIndexOfWhatIsInTheMovie) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {150});
  const RawAudio audio = make_audio(dir, 5);
  const std::string path = dir.file("movie.mp4");
  const std::string index_path = dir.file("movie.index");
  const pid_t host_process = fork();
  ASSERT_GE(host_process, 0);
  if (host_process == 0) {
    MovieInfo2 info = raw_movie(path);
    set_text(info.snapshot_path, index_path);
    PacketHost host(info);
    size_t next = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (const RawPacket& packet : video.packets) {
      for (; next < audio.packets.size() && audio.packets[next].pts <= packet.pts; ++next) {
        host.push_audio(audio.packets[next]);
      }
      host.push_video(packet);
      std::this_thread::sleep_until(begin + std::chrono::microseconds(packet.pts));  // at real pace
    }
    pause();
    _exit(1);
  }
  // Until about two of the five seconds are recorded.
  const auto index_size = [&] {
    std::error_code missing;
    const auto size = std::filesystem::file_size(index_path, missing);
    return missing ? 0 : size;
  };
  const bool grown = eventually([&] { return index_size() > 3000; });
  kill(host_process, SIGKILL);
  waitpid(host_process, nullptr, 0);
  ASSERT_TRUE(grown);

  const IndexReader index = IndexReader::of_file(index_path);
  ASSERT_EQ(index.streams.size(), 2U);
  const std::string movie = read_file(path);
  const auto image_hashes = video_hashes(video.packets);
  const auto sound_hashes = audio_hashes(audio.packets);
  size_t images = 0;
  size_t sounds = 0;
  for (const IndexReader::Packet& record : index.packets()) {
    ASSERT_LE(record.pos + record.size, static_cast<int64_t>(movie.size()));
    const std::string& expected = record.stream == 0 ? image_hashes.at(images++) : sound_hashes.at(sounds++);
    EXPECT_EQ(hash_of(movie, record), expected);
  }
  EXPECT_GT(images, 20U);
  EXPECT_GT(sounds, 30U);
}

TEST(RawPacketsFurtherOutputsTest, HoldTheSamePackets) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  const std::string paths[] = {dir.file("main.mp4"), dir.file("first.mkv"), dir.file("second.flv"),
                               dir.file("third.mp4"), dir.file("fourth.mkv")};
  MovieInfo2 info = raw_movie(paths[0]);
  for (size_t i = 0; i < 4; ++i) info.other_urls[i] = paths[i + 1].c_str();
  PacketHost host(info);
  host.push_from_two_threads(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  for (const std::string& path : paths) {
    expect_video(path, video.packets, kMillisecond);
    expect_audio(path, audio.packets, kMillisecond);
    EXPECT_EQ(decode_errors(path), "") << path;
  }
}

TEST(RawPacketsFurtherOutputsTest, ListEndsAtTheFirstNull) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {5});
  const std::string main = dir.file("main.mp4");
  const std::string other = dir.file("other.mkv");
  MovieInfo2 info = raw_movie(main, true, false);
  info.other_urls[1] = other.c_str();
  info.other_urls[3] = reinterpret_cast<const char*>(1);  // not read
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  expect_video(main, video.packets, kMp4.tick);
  EXPECT_FALSE(std::filesystem::exists(other));
}

TEST(RawPacketsFurtherOutputsTest, OneThatCannotBeOpenedIsLeftOut) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {5});
  const std::string main = dir.file("main.mp4");
  const std::string bad = dir.file("no/other.mkv");
  const std::string good = dir.file("other.mkv");
  MovieInfo2 info = raw_movie(main, true, false);
  info.other_urls[0] = bad.c_str();
  info.other_urls[1] = good.c_str();
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  expect_success(host.status());
  expect_video(main, video.packets, kMp4.tick);
  expect_video(good, video.packets, kMillisecond);
}

TEST(RawPacketsSessionsTest, SeveralAtATime) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  const Container containers[] = {kMp4, kMkv, kFlv, kMp4};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      const std::string path = dir.file(std::to_string(i) + "." + containers[i].name);
      MovieInfo2 info = raw_movie(path);
      set_text(info.snapshot_path, path + ".index");
      PacketHost host(info);
      host.push_from_two_threads(video.packets, audio.packets);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < 4; ++i) {
    const std::string path = dir.file(std::to_string(i) + "." + containers[i].name);
    expect_video(path, video.packets, containers[i].tick);
    expect_audio(path, audio.packets, containers[i].tick);
    EXPECT_EQ(IndexReader::of_file(path + ".index").packets().size() + 1, video.packets.size() + audio.packets.size());
  }
}

}  // namespace
}  // namespace meru_test

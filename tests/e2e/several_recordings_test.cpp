// Several recordings in one process, and several outputs of one recording.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 60;

/// One record of a side index, with what it leaves out filled in.
struct IndexRecord {
  int stream = 0;
  long long pos = 0;
  long long size = 0;
  long long pts_delta = 0;
  bool key = false;
};

/// Reads the packet records: seven fields each, empty for 0, the position only in the first.
std::vector<IndexRecord> read_index(const std::string& path) {
  std::vector<IndexRecord> records;
  std::ifstream in(path);
  long long end = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#' || line[0] == '{') continue;
    std::istringstream body(line);
    for (std::string text; std::getline(body, text, ';');) {
      std::vector<long long> fields;
      std::istringstream parts(text + ",");
      for (std::string field; std::getline(parts, field, ',');) fields.push_back(field.empty() ? 0 : std::stoll(field));
      EXPECT_EQ(fields.size(), 7U) << text;
      if (fields.size() != 7) return records;
      const long long pos = fields[1] != 0 ? fields[1] : end;
      records.push_back({static_cast<int>(fields[0]), pos, fields[2], fields[3], fields[6] == 1});
      end = pos + fields[2];
    }
  }
  return records;
}

/// The recording's packets, stream 0 being video, whatever order the demuxer puts the streams in.
std::vector<ProbedPacket> packets_by_position(const std::string& path) {
  std::vector<ProbedPacket> packets = probe_packets(path, "v:0");
  std::vector<ProbedPacket> sound = probe_packets(path, "a:0");
  for (ProbedPacket& packet : packets) packet.stream = 0;
  for (ProbedPacket& packet : sound) packet.stream = 1;
  packets.insert(packets.end(), sound.begin(), sound.end());
  std::sort(packets.begin(), packets.end(), [](const auto& a, const auto& b) { return a.pos < b.pos; });
  return packets;
}

void expect_index_matches(const std::string& index, const std::string& movie, double time_base) {
  const std::vector<IndexRecord> records = read_index(index);
  const std::vector<ProbedPacket> packets = packets_by_position(movie);
  // The last packet never gets a record: its size is only known when another one follows.
  ASSERT_EQ(records.size() + 1, packets.size()) << movie;
  long long pts = 0;
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].stream, packets[i].stream) << movie << " " << i;
    EXPECT_EQ(records[i].pos, packets[i].pos) << movie << " " << i;
    EXPECT_EQ(records[i].pos + records[i].size, packets[i + 1].pos) << movie << " " << i;
    EXPECT_EQ(records[i].key, packets[i].key) << movie << " " << i;
    if (packets[i].stream != 0) continue;
    pts += records[i].pts_delta;
    EXPECT_NEAR(static_cast<double>(pts) * time_base, packets[i].pts, 0.0015) << movie << " " << i;
  }
}

/// A recording on a thread of its own, as a second capture in the same application would be.
std::thread record_on_thread(const MovieInfo& info) {
  return std::thread([info] {
    Host host(info);
    EXPECT_TRUE(host.started()) << info.url;
    EXPECT_EQ(host.push_scene(kImages, 9 * kUsecPerSec), kImages) << info.url;
    host.stop();
    EXPECT_EQ(host.status().entries().size(), 1U) << info.url;
  });
}

TEST(SeveralRecordingsTest, TwoContainersWithAnIndexEach) {
  const TempDir dir;
  std::vector<std::thread> threads;
  for (const std::string name : {"mp4", "flv"}) {
    MovieInfo info = small_movie(dir.file("movie." + name));
    set_text(info.snapshot_path, dir.file(name + ".index"));
    threads.push_back(record_on_thread(info));
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string name : {"mp4", "flv"}) {
    EXPECT_EQ(decode_errors(dir.file("movie." + name)), "");
    EXPECT_EQ(count_frames(dir.file("movie." + name)), kImages);
  }
  expect_index_matches(dir.file("mp4.index"), dir.file("movie.mp4"), 1.0 / 12800);
  expect_index_matches(dir.file("flv.index"), dir.file("movie.flv"), 1.0 / 1000);
}

TEST(SeveralRecordingsTest, EightAtOnce) {
  const TempDir dir;
  std::vector<std::string> paths;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    const char* const extensions[] = {"mp4", "flv", "mkv", "mov"};
    paths.push_back(dir.file(std::to_string(i) + "." + extensions[i % 4]));
    MovieInfo info = small_movie(paths.back());
    set_text(info.snapshot_path, paths.back() + ".index");
    threads.push_back(record_on_thread(info));
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& path : paths) {
    EXPECT_EQ(decode_errors(path), "") << path;
    EXPECT_EQ(count_frames(path), kImages) << path;
    EXPECT_GT(read_index(path + ".index").size(), static_cast<size_t>(kImages)) << path;
  }
}

/// The checksums of the decoded pictures or samples, one a line.
std::string frame_hashes(const std::string& path, const std::string& stream) {
  std::istringstream lines(decoded(path, "-map 0:" + stream + " " + every_picture() + " -f framemd5"));
  std::string hashes;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    hashes += line.substr(line.rfind(',') + 1) + "\n";
  }
  return hashes;
}

TEST(FurtherOutputsTest, ReceiveTheSamePackets) {
  const TempDir dir;
  const std::string main = dir.file("main.mp4");
  const std::vector<std::string> others = {dir.file("1.mkv"), dir.file("2.mov"), dir.file("3.flv"), dir.file("4.avi")};
  MovieInfo info = small_movie(main);
  // A rate that the first of them, FLV, can carry.
  info.sample_rate_src = info.sample_rate_dst = 44100;
  for (size_t i = 0; i < others.size(); ++i) info.other_urls[i] = others[i].c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);
  host.stop();

  EXPECT_EQ(decode_errors(main), "");
  const auto video = probe_packets(main, "v:0");
  const auto audio = probe_packets(main, "a:0");
  ASSERT_EQ(video.size(), static_cast<size_t>(kImages));
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    // An AVI has no time stamps, only a count of pictures; the sound's lead shifts that by one.
    const double rounding = other == others.back() ? 1.0 / info.fps + 0.0015 : 0.0015;
    EXPECT_EQ(decode_errors(other), "");
    EXPECT_EQ(frame_hashes(other, "v"), frame_hashes(main, "v"));
    const auto their_video = probe_packets(other, "v:0");
    const auto their_audio = probe_packets(other, "a:0");
    ASSERT_EQ(their_video.size(), video.size());
    ASSERT_EQ(their_audio.size(), audio.size());
    for (size_t i = 0; i < audio.size(); ++i) EXPECT_EQ(their_audio[i].hash, audio[i].hash) << i;
    for (size_t i = 1; i < video.size(); ++i) {
      EXPECT_NEAR(their_video[i].dts - their_video[0].dts, video[i].dts - video[0].dts, rounding) << i;
      EXPECT_EQ(their_video[i].key, video[i].key) << i;
    }
  }
}

TEST(FurtherOutputsTest, OneThatCannotBeOpenedIsLeftOut) {
  const TempDir dir;
  const std::string missing = dir.file("missing/1.mkv");
  const std::string second = dir.file("2.mkv");
  MovieInfo info = small_movie(dir.file("main.mp4"));
  info.other_urls[0] = missing.c_str();
  info.other_urls[1] = second.c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);
  host.stop();
  EXPECT_EQ(host.status().entries().size(), 1U);
  EXPECT_EQ(count_frames(dir.file("main.mp4")), kImages);
  EXPECT_EQ(count_frames(second), kImages);
}

}  // namespace
}  // namespace meru_test

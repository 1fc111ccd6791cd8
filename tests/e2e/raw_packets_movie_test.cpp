// What arrives in the movie: every packet that was pushed, as it was, with its stamp.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/case_name.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

class RawPacketsMovieTest : public testing::TestWithParam<Container> {
 protected:
  void record(const RawPackets& video, const RawPackets& audio) {
    PacketHost host(raw_movie(m_path, !video.empty(), !audio.empty()));
    host.push(video, audio);
    host.stop();
    EXPECT_EQ(host.session(), nullptr);
    expect_success(host.status());
  }

  TempDir m_dir;
  std::string m_path = m_dir.file(std::string("movie.") + GetParam().name);
};

TEST_P(RawPacketsMovieTest, HoldsEveryPacketWithItsStampAndDecodesTheSame) {
  const RawVideo video = make_video(m_dir);
  const RawAudio audio = make_audio(m_dir);
  record(video.packets, audio.packets);
  EXPECT_EQ(stream_count(m_path), 2U);
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
  EXPECT_EQ(decode_errors(m_path), "");
  EXPECT_TRUE(decoded_images(m_path) == decoded_images(video.path));
  EXPECT_TRUE(decoded_samples(m_path) == decoded_samples(audio.path));
}

TEST_P(RawPacketsMovieTest, TwoPushingThreads) {
  const RawVideo video = make_video(m_dir, {300});
  const RawAudio audio = make_audio(m_dir, 10);
  PacketHost host(raw_movie(m_path));
  host.push_from_two_threads(video.packets, audio.packets);
  host.stop();
  expect_success(host.status());
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
  EXPECT_EQ(decode_errors(m_path), "");
}

TEST_P(RawPacketsMovieTest, VideoOnly) {
  const RawVideo video = make_video(m_dir);
  record(video.packets, {});
  EXPECT_EQ(stream_count(m_path), 1U);
  expect_video(m_path, video.packets, GetParam().tick);
  EXPECT_TRUE(decoded_images(m_path) == decoded_images(video.path));
}

TEST_P(RawPacketsMovieTest, AudioOnly) {
  const RawAudio audio = make_audio(m_dir);
  record({}, audio.packets);
  EXPECT_EQ(stream_count(m_path), 1U);
  expect_audio(m_path, audio.packets, GetParam().tick);
  EXPECT_TRUE(decoded_samples(m_path) == decoded_samples(audio.path));
}

TEST_P(RawPacketsMovieTest, AudioThatStartsLater) {
  const RawVideo video = make_video(m_dir);
  const RawAudio audio = make_audio(m_dir, 1, 1200000);
  record(video.packets, audio.packets);
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
}

TEST_P(RawPacketsMovieTest, StampsThatBeginLate) {
  const long long hour = 3600 * kUsecPerSec;
  RawVideo video = make_video(m_dir);
  for (RawPacket& packet : video.packets) packet.pts += hour;
  const RawAudio audio = make_audio(m_dir, 2, hour);
  record(video.packets, audio.packets);
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
}

/// Each stamp twice: the second is one tick behind the first, which is rounded itself.
TEST_P(RawPacketsMovieTest, RepeatedStamps) {
  RawVideo video = make_video(m_dir);
  RawAudio audio = make_audio(m_dir);
  for (RawPackets* packets : {&video.packets, &audio.packets}) {
    for (size_t i = 1; i < packets->size(); i += 2) (*packets)[i].pts = (*packets)[i - 1].pts;
  }
  record(video.packets, audio.packets);
  expect_video(m_path, video.packets, 1.5 * GetParam().tick);
  expect_audio(m_path, audio.packets, 1.5 * GetParam().tick);
  EXPECT_TRUE(decoded_images(m_path) == decoded_images(video.path));
}

/// In every seven packets the one that belongs first comes last, six too late.
TEST_P(RawPacketsMovieTest, StampsOutOfOrderBySix) {
  const RawVideo video = make_video(m_dir);
  const RawAudio audio = make_audio(m_dir);
  RawPackets video_pushed = video.packets;
  RawPackets audio_pushed = audio.packets;
  for (RawPackets* packets : {&video_pushed, &audio_pushed}) {
    for (auto at = packets->begin(); packets->end() - at >= 7; at += 7) std::rotate(at, at + 1, at + 7);
  }
  PacketHost host(raw_movie(m_path));
  host.push_from_two_threads(video_pushed, audio_pushed);
  host.stop();
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
}

TEST_P(RawPacketsMovieTest, ThreePacketsInAll) {
  RawVideo video = make_video(m_dir, {2});
  RawAudio audio = make_audio(m_dir, 0.1);
  audio.packets.resize(1);
  record(video.packets, audio.packets);
  expect_video(m_path, video.packets, GetParam().tick);
  expect_audio(m_path, audio.packets, GetParam().tick);
}

TEST_P(RawPacketsMovieTest, ThreePacketsOfVideo) {
  const RawVideo video = make_video(m_dir, {3});
  record(video.packets, {});
  expect_video(m_path, video.packets, GetParam().tick);
  EXPECT_EQ(count_frames(m_path), 3);
}

TEST_P(RawPacketsMovieTest, ThreePacketsOfAudio) {
  RawAudio audio = make_audio(m_dir, 0.1);
  audio.packets.resize(3);
  record({}, audio.packets);
  expect_audio(m_path, audio.packets, GetParam().tick);
}

INSTANTIATE_TEST_SUITE_P(All, RawPacketsMovieTest, testing::Values(kMp4, kMkv, kFlv), CaseName());

struct StreamCase {
  const char* name;
  VideoChoice choice;
};
void PrintTo(const StreamCase& c, std::ostream* out) { *out << c.name; }

class RawPacketsStreamTest : public testing::TestWithParam<StreamCase> {};

/// However the encoder builds its access units, one that is pushed is one that is found.
TEST_P(RawPacketsStreamTest, OnePushedIsOneFound) {
  const TempDir dir;
  const RawVideo video = make_video(dir, GetParam().choice);
  const std::string path = dir.file("movie.mkv");
  PacketHost host(raw_movie(path, true, false));
  host.push(video.packets, {});
  host.stop();
  expect_video(path, video.packets, kMillisecond);
  EXPECT_TRUE(decoded_images(path) == decoded_images(video.path));
}

const std::string kSmall = "160x120";
INSTANTIATE_TEST_SUITE_P(
    All, RawPacketsStreamTest,
    testing::Values(StreamCase{"Slices", {40, 30, kSmall, "slices=4:keyint=10"}},
                    StreamCase{"Delimiters", {40, 30, kSmall, "aud=1:keyint=10"}},
                    StreamCase{"FillerData",
                               {40, 30, kSmall, "nal-hrd=cbr:bitrate=2000:vbv-maxrate=2000:vbv-bufsize=500"}},
                    StreamCase{"RollingIntra", {40, 30, kSmall, "intra-refresh=1:keyint=20"}},
                    StreamCase{"Interlaced", {40, 30, kSmall, "tff=1:keyint=10"}},
                    StreamCase{"ArithmeticCoding", {40, 30, kSmall, "cabac=1:8x8dct=1:ref=4:keyint=10"}},
                    StreamCase{"LargePictures", {12, 30, "1920x1080", "keyint=4:qp=10"}}),
    CaseName());

TEST(RawPacketsTest, ParameterSetsOnlyInTheFirstPacket) {
  const TempDir dir;
  RawVideo video = make_video(dir);
  for (auto packet = video.packets.begin() + 1; packet != video.packets.end(); ++packet) {
    packet->data = without_parameter_sets(packet->data);
  }
  const std::string path = dir.file("movie.mp4");
  PacketHost host(raw_movie(path, true, false));
  host.push(video.packets, {});
  host.stop();
  expect_video(path, video.packets, kMp4.tick);
  EXPECT_TRUE(decoded_images(path) == decoded_images(video.path));
}

TEST(RawPacketsTest, MetadataReachTheMovie) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  const RawVideo video = make_video(dir, {5});
  MovieInfo2 info = raw_movie(path, true, false);
  set_text(info.metadata, "title:My film;comment:a:b;junk");
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  const auto tags = probe(path, "-show_format").at("format").at("tags");
  EXPECT_EQ(tags.at("title"), "My film");
  EXPECT_EQ(tags.at("comment"), "a:b");
}

TEST(RawPacketsTest, EmptyFormatNamesMeanThatThereIsNoSuchInput) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  const RawVideo video = make_video(dir, {5});
  MovieInfo2 info = raw_movie(path, true, false);
  info.audio_format = "";
  PacketHost host(info);
  host.push(video.packets, {});
  host.stop();
  expect_success(host.status());
  EXPECT_EQ(stream_count(path), 1U);
  expect_video(path, video.packets, kMillisecond);
}

/// A packet that comes more than six too late lies before one that is written, and is left out; the rest is not moved.
TEST(RawPacketsTest, PacketThatComesTooLateIsLeftOut) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  RawAudio audio = make_audio(dir, 0.5);
  RawPackets pushed = audio.packets;
  std::rotate(pushed.begin(), pushed.begin() + 1, pushed.begin() + 9);  // the first comes ninth
  PacketHost host(raw_movie(path, false, true));
  host.push({}, pushed);
  host.stop();
  audio.packets.erase(audio.packets.begin());
  expect_audio(path, audio.packets, kMillisecond);
}

/// The host's own strings need to live only until MERU2_stop has returned, and its record not even so long.
TEST(RawPacketsTest, RecordMayGoAfterTheStart) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  const RawVideo video = make_video(dir, {5});
  auto info = std::make_unique<MovieInfo2>(raw_movie(path, true, false));
  PacketHost host(*info);
  std::memset(static_cast<void*>(info.get()), 0xaa, sizeof(*info));
  info.reset();
  host.push(video.packets, {});
  host.stop();
  expect_video(path, video.packets, kMillisecond);
}

}  // namespace
}  // namespace meru_test

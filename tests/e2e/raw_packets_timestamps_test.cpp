// The timestamps of pushed packets: where they begin, when they fall, and what damage between the packets makes of
// them.

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "support/case_name.h"
#include "support/raw_checks.h"

namespace meru_test {
namespace {

RawPackets moved(RawPackets packets, long long usec) {
  for (RawPacket& packet : packets) packet.pts += usec;
  return packets;
}

class OffsetTest : public testing::TestWithParam<int> {};

TEST_P(OffsetTest, MovieIsNotLongerForIt) {
  const TempDir dir;
  const RawPackets video = moved(make_video(dir, {120, 30}).packets, GetParam() * kUsecPerSec);
  const RawPackets audio = moved(make_audio(dir, 4).packets, GetParam() * kUsecPerSec);
  const std::string path = dir.file("movie.mp4");
  PacketHost host(raw_movie(path));
  host.push_from_two_threads(video, audio);
  host.stop();
  expect_success(host.status());
  expect_video(path, video, kMp4.tick);
  expect_audio(path, audio, kMp4.tick);
  const double whole = number(probe(path, "-show_format").at("format"), "duration");
  EXPECT_NEAR(whole, GetParam() + 4.0, 0.1);
  EXPECT_EQ(decode_errors(path), "");
}
INSTANTIATE_TEST_SUITE_P(Seconds, OffsetTest, testing::Values(0, 10, 600, 3600));

class SingleFrameTest : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(SingleFrameTest, IsShown) {
  const auto [seconds, images] = GetParam();
  const TempDir dir;
  const RawPackets video = moved(make_video(dir, {images, 25}).packets, seconds * kUsecPerSec);
  const std::string path = dir.file("movie.mp4");
  PacketHost host(raw_movie(path, true, false));
  host.push(video, {});
  host.stop();
  EXPECT_EQ(count_frames(path), images);
  const auto packets = probe_packets(path, "v:0");
  ASSERT_EQ(packets.size(), static_cast<size_t>(images));
  for (const auto& packet : packets) EXPECT_NEAR(packet.duration, 0.04, 0.0011);
  EXPECT_NEAR(number(probe_stream(path, "video"), "duration"), 0.04 * images, 0.0011);
}
INSTANTIATE_TEST_SUITE_P(All, SingleFrameTest, testing::Combine(testing::Values(0, 10), testing::Values(1, 2)));

class LateTest : public testing::TestWithParam<const char*> {};

/// Nine seconds at the usual rate, then the clock goes back by eight: what is late is dropped, and nothing else.
TEST_P(LateTest, PacketsAreDroppedAndNotSqueezed) {
  const TempDir dir;
  RawPackets video = make_video(dir, {300, 25}).packets;
  RawPackets kept(video.begin(), video.begin() + 100);
  constexpr size_t kBack = 100;
  constexpr long long kStep = kUsecPerSec / 25;
  for (size_t i = kBack; i < video.size(); ++i) {
    video[i].pts -= 80 * kStep + kStep / 2;  // to between the frames before
    // The last packets before the clock goes back are held back for their order, and mix with the late ones.
    if (video[i].pts > kept.back().pts) kept.push_back(video[i]);
  }
  const std::string path = dir.file(std::string("movie.") + GetParam());
  PacketHost host(raw_movie(path, true, false));
  for (size_t i = 0; i < kBack; ++i) host.push_video(video[i]);
  MERU2_write_video_packet(host.session(), nullptr, 0, 0);  // nothing is held back
  for (size_t i = kBack; i < video.size(); ++i) host.push_video(video[i]);
  host.stop();
  expect_success(host.status());
  expect_video(path, kept, kMillisecond);
}
INSTANTIATE_TEST_SUITE_P(Containers, LateTest, testing::Values("mp4", "mkv", "flv"),
                         [](const auto& container) { return std::string(container.param); });

struct Damage {
  const char* name;
  size_t byte;
  char flips;
  bool costs;  ///< the frame cannot be recorded
};
void PrintTo(const Damage& d, std::ostream* out) { *out << d.name; }

class DamagedAdtsTest : public testing::TestWithParam<Damage> {};

/// One byte in the header of some frames.
TEST_P(DamagedAdtsTest, CostsNoOtherFrameAndMovesNoTimestamp) {
  const TempDir dir;
  RawPackets audio = make_audio(dir, 3).packets;
  RawPackets kept;
  for (size_t i = 0; i < audio.size(); ++i) {
    const bool damaged = i == 7 || i == 40 || i == 41 || i == 100;
    if (damaged) audio[i].data[GetParam().byte] = static_cast<char>(audio[i].data[GetParam().byte] ^ GetParam().flips);
    if (!damaged || !GetParam().costs) kept.push_back(audio[i]);
  }
  for (const char* name : {"movie.mp4", "movie.mkv"}) {
    PacketHost host(raw_movie(dir.file(name), false, true));
    host.push({}, audio);
    host.stop();
    expect_success(host.status());
    expect_audio(dir.file(name), kept, kMillisecond);
    EXPECT_EQ(decode_errors(dir.file(name)), "");
  }
}
INSTANTIATE_TEST_SUITE_P(All, DamagedAdtsTest,
                         testing::Values(Damage{"Syncword", 0, '\x10', true}, Damage{"SyncwordEnd", 1, '\x40', true},
                                         Damage{"Layer", 1, '\x02', false}, Damage{"Rate", 2, '\x30', true},
                                         Damage{"LengthByKilobytes", 3, '\x01', true},
                                         Damage{"LengthByHundreds", 4, '\x20', true},
                                         Damage{"LengthByAFewBytes", 5, '\x20', true}),
                         CaseName());

class VideoGarbageTest : public testing::TestWithParam<std::tuple<const char*, size_t>> {};

/// Pushed as packets of their own, with timestamps between those of the frames.
TEST_P(VideoGarbageTest, MovesNoTimestamp) {
  const auto& [container, size] = GetParam();
  const TempDir dir;
  const RawPackets video = make_video(dir, {60, 25}).packets;
  const std::string path = dir.file(std::string("movie.") + container);
  PacketHost host(raw_movie(path, true, false));
  for (size_t i = 0; i < video.size(); ++i) {
    host.push_video(video[i]);
    if (i % 13 == 5) host.push_video({std::string(size, '\x55'), video[i].pts + 20000});
  }
  host.stop();
  expect_success(host.status());
  const auto found = probe_packets(path, "v:0");
  ASSERT_EQ(found.size(), video.size());
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i].pts, static_cast<double>(video[i].pts) / 1e6, 0.0011) << i;
  }
  EXPECT_EQ(decode_errors(path), "");
}
INSTANTIATE_TEST_SUITE_P(All, VideoGarbageTest,
                         testing::Combine(testing::Values("mp4", "mkv", "flv"), testing::Values(1, 100, 5000)),
                         [](const auto& row) {
                           return std::get<0>(row.param) + std::string("With") +
                                  std::to_string(std::get<1>(row.param)) + "Bytes";
                         });

/// Several frames in one push, of which the host times the first: the others follow it.
TEST(SeveralInAPushTest, FollowTheFirst) {
  const TempDir dir;
  const RawPackets single = moved(make_audio(dir, 2).packets, 5 * kUsecPerSec);
  RawPackets audio;
  for (size_t i = 0; i < single.size(); ++i) {
    if (i % 3 == 0) audio.push_back({"", single[i].pts});
    audio.back().data += single[i].data;
  }
  PacketHost host(raw_movie(dir.file("movie.mp4"), false, true));
  host.push({}, audio);
  host.stop();
  expect_audio(dir.file("movie.mp4"), single, kMillisecond);
}

}  // namespace
}  // namespace meru_test

// Room on the disk that is set aside for a movie while it is written, and given back at its end.

#include <gtest/gtest.h>

#include <string>

#include "support/eventually.h"
#include "support/file_room.h"
#include "support/probe.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int64_t kMiB = 1 << 20;
constexpr int kImages = 60;

TEST(OutputRoomTest, IsSetAsideForALargeMovieAndGivenBack) {
  const TempDir dir;
  if (!sets_room_aside(dir.file("try"))) GTEST_SKIP() << "this file system sets no room aside";
  RawPackets packets = make_video(dir, {kImages}).packets;
  const std::string filler = std::string("\0\0\0\1\x0c", 5) + std::string(kMiB, '\xff') + '\x80';
  for (RawPacket& packet : packets) packet.data += filler;

  const std::string movie = dir.file("movie.mp4");
  PacketHost host(raw_movie(movie, true, false));
  host.push(packets, {});
  MERU2_write_video_packet(host.session(), nullptr, 0, 0);
  EXPECT_TRUE(eventually([&] { return size_of(movie) > 50 * kMiB && room_of(movie) >= size_of(movie) + 8 * kMiB; }));
  host.stop();
  EXPECT_GE(size_of(movie), kImages * kMiB);
  EXPECT_LE(room_of(movie), size_of(movie) + kMiB);
  EXPECT_EQ(probe_packets(movie, "v:0").size(), static_cast<size_t>(kImages));
}

}  // namespace
}  // namespace meru_test

// Room on the disk that is set aside for a movie while it is written, and given back at its end.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "meru/repair.h"
#include "support/eventually.h"
#include "support/file_room.h"
#include "support/probe.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int64_t kMiB = 1 << 20;
constexpr int kImages = 60;

class OutputRoomTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!sets_room_aside(m_dir.file("try"))) GTEST_SKIP() << "this file system sets no room aside";
  }

  /// A movie of 60 images of a megabyte.
  void record(const std::function<void()>& before_the_end) {
    RawPackets packets = make_video(m_dir, {kImages}).packets;
    const std::string filler = std::string("\0\0\0\1\x0c", 5) + std::string(kMiB, '\xff') + '\x80';
    for (RawPacket& packet : packets) packet.data += filler;
    MovieInfo2 info = raw_movie(m_movie, true, false);
    set_text(info.snapshot_path, m_index);
    PacketHost host(info);
    host.push(packets, {});
    MERU2_write_video_packet(host.session(), nullptr, 0, 0);
    before_the_end();
  }
  static bool has_room_ahead(const std::string& path) {
    return size_of(path) > 50 * kMiB && room_of(path) >= size_of(path) + 8 * kMiB;
  }

  TempDir m_dir;
  std::string m_movie = m_dir.file("movie.mp4"), m_index = m_dir.file("index"), m_repaired = m_dir.file("repaired.mp4");
};

TEST_F(OutputRoomTest, IsSetAsideForALargeMovieAndGivenBack) {
  record([&] { EXPECT_TRUE(eventually([&] { return has_room_ahead(m_movie); })); });
  EXPECT_GE(size_of(m_movie), kImages * kMiB);
  EXPECT_LE(room_of(m_movie), size_of(m_movie) + kMiB);
  EXPECT_EQ(probe_packets(m_movie, "v:0").size(), static_cast<size_t>(kImages));
}

TEST_F(OutputRoomTest, IsSetAsideForALargeRepairAndGivenBack) {
  record([] {});
  // The last report comes before the movie is completed.
  struct Watched {
    std::string path;
    bool had_room;
  } watched{m_repaired, false};
  const auto look = [](double /*progress*/, int /*code*/, const char* /*msg*/, void* user) {
    auto* seen = static_cast<Watched*>(user);
    seen->had_room = has_room_ahead(seen->path);
  };
  ASSERT_TRUE(MERU_StartRepair_sync(m_movie.c_str(), m_index.c_str(), m_repaired.c_str(), look, &watched));
  EXPECT_TRUE(watched.had_room);
  // The last packet has no record in the index.
  EXPECT_EQ(probe_packets(m_repaired, "v:0").size(), static_cast<size_t>(kImages - 1));
  EXPECT_LE(room_of(m_repaired), size_of(m_repaired) + kMiB);
}

}  // namespace
}  // namespace meru_test

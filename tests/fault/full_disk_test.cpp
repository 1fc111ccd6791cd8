// A real disk that fills up under a recording, and the repair of what was written.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "support/host.h"
#include "support/index_reader.h"
#include "support/probe.h"
#include "support/small_disk.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 400;

class FullDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!m_disk.mounted()) GTEST_SKIP() << "needs root to mount a small disk: " << m_disk.why_not();
  }

  /// Records until the disk is full and beyond, and checks what the host sees of it.
  void fill_the_disk(const std::string& index) {
    MovieInfo info = small_movie(m_disk.file("movie.mp4"));
    set_text(info.snapshot_path, index);
    info.width = info.width_src = 320;
    info.height = info.height_src = 240;
    info.v_bitrate = 2000;
    info.tune = TUNE_ZEROLATENCY;
    MERU_Log_Level(1);  // every packet that no longer fits is a line
    Host host(info);
    ASSERT_TRUE(host.started());
    EXPECT_EQ(host.push_scene(kImages, kUsecPerSec), kImages);  // every push comes back
    ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
    EXPECT_EQ(host.push_scene(10, (kImages + 1) * kUsecPerSec / info.fps + kUsecPerSec), 10);
    host.stop();
    const auto entries = host.status().entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].code, MERU_STATUS_OK);
    EXPECT_EQ(entries[1].code, -ENOSPC);
    EXPECT_EQ(entries[1].text, "No space left on device");
  }

  /// Repairs onto another disk: every packet that is indexed and whole must come back, and play.
  void expect_restored(const std::string& index) {
    const std::string broken = m_disk.file("movie.mp4");
    const std::string repaired = m_elsewhere.file("repaired.mp4");
    ASSERT_TRUE(MERU_StartRepair_sync(broken.c_str(), index.c_str(), repaired.c_str(), nullptr, nullptr));
    EXPECT_EQ(decode_errors(repaired), "");
    const auto written = static_cast<int64_t>(std::filesystem::file_size(broken));
    std::string text = read_file(index);
    text.resize(text.rfind(';') + 1);  // the disk may have ended in the middle of a record
    std::map<int, size_t> whole;
    for (const auto& packet : IndexReader(text).packets()) whole[packet.stream] += packet.pos + packet.size <= written;
    ASSERT_GT(whole[0], 50U);
    ASSERT_GT(whole[1], 50U);
    EXPECT_EQ(probe_packets(repaired, "v:0").size(), whole[0]);
    EXPECT_EQ(probe_packets(repaired, "a:0").size(), whole[1]);
  }

  SmallDisk m_disk{1};
  TempDir m_elsewhere;
};

TEST_F(FullDiskTest, MovieIsReportedOnceAndRepaired) {
  const std::string index = m_elsewhere.file("index");
  ASSERT_NO_FATAL_FAILURE(fill_the_disk(index));
  expect_restored(index);
}

TEST_F(FullDiskTest, IndexOnTheSameDiskIsUsableUpToItsEnd) {
  const std::string index = m_disk.file("index");
  ASSERT_NO_FATAL_FAILURE(fill_the_disk(index));
  expect_restored(index);
}

}  // namespace
}  // namespace meru_test

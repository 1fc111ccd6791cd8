#include "common/room_ahead.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/file_room.h"
#include "support/process_counts.h"
#include "support/small_disk.h"
#include "support/temp_dir.h"

namespace {

/// What the disk answers, when it is not the truth.
void (*g_disk_says)(struct statvfs* disk) = nullptr;

}  // namespace

/// Found before that of the C library.
extern "C" int fstatvfs(int fd, struct statvfs* disk) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, struct statvfs*)>(dlsym(RTLD_NEXT, "fstatvfs"));
  const int ret = real(fd, disk);
  if (ret == 0 && g_disk_says != nullptr) g_disk_says(disk);
  return ret;
}

namespace {

using meru_test::ProcessCounts;
using meru_test::room_of;
using meru_test::sets_room_aside;
using meru_test::size_of;
using meru_test::SmallDisk;
using meru_test::TempDir;

constexpr int64_t kMiB = 1 << 20;

/// A file as FFmpeg writes it.
class Output {
 public:
  explicit Output(const std::string& url) {
    AVFormatContext* made = nullptr;
    EXPECT_GE(avformat_alloc_output_context2(&made, nullptr, "data", url.c_str()), 0);
    m_format.reset(made);
    EXPECT_GE(avio_open(&made->pb, url.c_str(), AVIO_FLAG_WRITE), 0);
  }
  ~Output() { close(); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  const AVFormatContext* format() const { return m_format.get(); }
  void write(int64_t megabytes, RoomAhead* room) {
    for (int64_t i = 0; i < megabytes; ++i) {
      const std::vector<unsigned char> bytes(kMiB, static_cast<unsigned char>(++m_megabytes));
      avio_write(m_format->pb, bytes.data(), kMiB);
      room->follow();
    }
    avio_flush(m_format->pb);
  }
  int error() const { return m_format->pb->error; }
  void close() { avio_closep(&m_format->pb); }

 private:
  FormatContextPtr m_format;
  int m_megabytes = 0;
};

void expect_content(const std::string& path, int megabytes) {
  std::ifstream file(path, std::ios::binary);
  std::string piece(kMiB, '\0');
  for (int i = 1; i <= megabytes; ++i) {
    ASSERT_TRUE(file.read(piece.data(), kMiB)) << i;
    ASSERT_EQ(piece.find_first_not_of(static_cast<char>(i)), std::string::npos) << i;
  }
  EXPECT_EQ(file.peek(), EOF);
}

class RoomAheadTest : public testing::Test {
 protected:
  TempDir m_dir;
  std::string m_path = m_dir.file("movie");
  const ProcessCounts m_before = ProcessCounts::now();
};

TEST_F(RoomAheadTest, IsSetAsideWhileTheFileGrowsAndGivenBack) {
  if (!sets_room_aside(m_dir.file("try"))) GTEST_SKIP() << "this file system sets no room aside";
  Output output(m_path);
  {
    RoomAhead room(output.format());
    output.write(40, &room);
    EXPECT_EQ(size_of(m_path), 40 * kMiB);
    EXPECT_GE(room_of(m_path), 56 * kMiB);
    output.write(60, &room);
    EXPECT_EQ(size_of(m_path), 100 * kMiB);
    EXPECT_GE(room_of(m_path), 116 * kMiB);
    EXPECT_LE(room_of(m_path), 133 * kMiB);
  }
  EXPECT_LE(room_of(m_path), 101 * kMiB);
  output.close();
  expect_content(m_path, 100);
  EXPECT_EQ(ProcessCounts::now(), m_before);
}

struct DiskCase {
  const char* name;
  void (*says)(struct statvfs* disk);
  bool set_aside;
};

class RoomAheadDisk : public RoomAheadTest, public testing::WithParamInterface<DiskCase> {
 protected:
  ~RoomAheadDisk() override { g_disk_says = nullptr; }
};

TEST_P(RoomAheadDisk, MayLeaveItsBlockSizeOut) {
  if (!sets_room_aside(m_dir.file("try"))) GTEST_SKIP() << "this file system sets no room aside";
  Output output(m_path);
  g_disk_says = GetParam().says;
  RoomAhead room(output.format());
  output.write(40, &room);
  EXPECT_EQ(room_of(m_path) >= 56 * kMiB, GetParam().set_aside) << room_of(m_path);
  EXPECT_EQ(output.error(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RoomAheadDisk,
    testing::Values(
        DiskCase{"Both", [](struct statvfs* d) { d->f_bavail = 1 << 20, d->f_frsize = d->f_bsize = 4096; }, true},
        DiskCase{"NoFragmentSize", [](struct statvfs* d) { d->f_bavail = 1 << 20, d->f_frsize = 0, d->f_bsize = 4096; },
                 true},
        DiskCase{"NeitherSize", [](struct statvfs* d) { d->f_frsize = d->f_bsize = 0; }, false},

        DiskCase{"NothingLeft", [](struct statvfs* d) { d->f_bavail = 0; }, false}),
    [](const auto& test) { return test.param.name; });

TEST_F(RoomAheadTest, SmallFileIsLeftAlone) {
  Output output("file:" + m_path);
  const ProcessCounts before = ProcessCounts::now();
  RoomAhead room(output.format());
  output.write(31, &room);
  EXPECT_EQ(ProcessCounts::now(), before);
  output.write(2, &room);
  EXPECT_EQ(ProcessCounts::now().descriptors, before.descriptors + 1);
}

TEST_F(RoomAheadTest, AnotherFileThatHasTheNameByNowIsLeftAlone) {
  Output output(m_path);
  {
    RoomAhead room(output.format());
    output.write(20, &room);
    std::filesystem::rename(m_path, m_dir.file("renamed"));
    std::ofstream(m_path) << "another";
    output.write(40, &room);
  }
  EXPECT_EQ(size_of(m_path), 7);
  EXPECT_LE(room_of(m_path), kMiB);
  output.close();
  expect_content(m_dir.file("renamed"), 60);
}

TEST_F(RoomAheadTest, FileThatIsGoneIsWrittenOn) {
  Output output(m_path);
  RoomAhead room(output.format());
  output.write(20, &room);
  std::filesystem::remove(m_path);
  output.write(40, &room);
  EXPECT_EQ(output.error(), 0);
  EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(RoomAheadTest, WhatIsNoFileIsLeftAlone) {
  ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
  const int reader = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  Output pipe(m_path);
  Output device("/dev/null");
  Output sum("md5:" + m_dir.file("sum"));
  const ProcessCounts before = ProcessCounts::now();
  for (const AVFormatContext* format : {pipe.format(), device.format(), sum.format()}) {
    RoomAhead room(format);
    format->pb->pos += 40 * kMiB;
    room.follow();
    EXPECT_EQ(ProcessCounts::now(), before) << format->url;
  }
  RoomAhead none(nullptr);
  none.follow();
  close(reader);
}

/// What is left is for whoever needs it, the side index for one.
TEST(RoomAheadFullDiskTest, RoomIsGivenBackWhileThereIsSomeLeft) {
  const SmallDisk disk(200);
  if (!disk.mounted()) GTEST_SKIP() << "needs root to mount a small disk: " << disk.why_not();
  const std::string path = disk.file("movie");
  Output output(path);
  RoomAhead room(output.format());
  output.write(60, &room);
  EXPECT_EQ(room_of(path), 80 * kMiB);
  output.write(10, &room);
  EXPECT_EQ(room_of(path), 70 * kMiB);
  output.write(110, &room);
  EXPECT_EQ(room_of(path), 180 * kMiB);
  EXPECT_EQ(output.error(), 0);
  output.close();
  expect_content(path, 180);
}

}  // namespace

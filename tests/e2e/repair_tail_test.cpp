// The end of a repaired movie: its last frame, and zeros after what was recorded.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "meru/repair.h"
#include "support/cut_recording.h"
#include "support/probe.h"

namespace meru_test {
namespace {

using Kind = CutRecording::Kind;

bool repair(const std::string& broken, const std::string& index, const std::string& output) {
  return MERU_StartRepair_sync(broken.c_str(), index.c_str(), output.c_str(), nullptr, nullptr);
}

class RepairLastFrame : public testing::TestWithParam<const char*> {};

// From 10 to 19 frames a second a frame lasts 1024 units of the container's time base, as an AAC packet does.
TEST_P(RepairLastFrame, IsShownAtEveryRate) {
  for (int fps = 1; fps <= 60; ++fps) {
    SCOPED_TRACE(fps);
    const CutRecording movie(Kind{"", GetParam(), false, false}, 6, 64, 48, fps);
    const auto index = IndexReader::of_file(movie.index);
    const auto frames = std::count_if(index.records.begin(), index.records.end(),
                                      [](const IndexReader::Record& record) { return record.stream == 0; });
    ASSERT_TRUE(repair(movie.broken, movie.index, movie.output));
    const auto video = probe_stream(movie.output, "video", "-count_frames");
    EXPECT_EQ(number(video, "nb_read_frames"), static_cast<double>(frames));
    EXPECT_NEAR(number(video, "duration"), static_cast<double>(frames) / fps, 0.001);
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, RepairLastFrame, testing::Values("mp4", "mov"),
                         [](const auto& test) { return test.param; });

class RepairZeroTail : public testing::TestWithParam<const char*> {
 protected:
  /// Repairs the first `size` bytes, and the same with the zeros that `add` appends: nothing may differ.
  void expect_same(size_t size, const std::function<void(const std::string&)>& add) {
    const std::string cut = m_movie.file("cut");
    write_file(cut, file_text(m_movie.broken).substr(0, size));
    const std::string expected = m_movie.file(std::string("expected.") + GetParam());
    ASSERT_TRUE(repair(cut, m_movie.index, expected));
    add(cut);
    ASSERT_TRUE(repair(cut, m_movie.index, m_movie.output));
    EXPECT_TRUE(file_text(m_movie.output) == file_text(expected)) << size;
    if (sorted_samples(expected).empty()) return;
    EXPECT_EQ(decode_errors(m_movie.output), "") << size;
  }
  static void append_zeros(const std::string& path, size_t count) {
    std::ofstream(path, std::ios::binary | std::ios::app) << std::string(count, '\0');
  }

  const CutRecording m_movie{Kind{"", GetParam(), false, false}};
  const IndexReader m_index = IndexReader::of_file(m_movie.index);
};

TEST_P(RepairZeroTail, CostsWhatItCovers) {
  const auto packets = m_index.packets();
  for (const size_t at : {packets.size() / 3, packets.size() / 2, packets.size() - 1}) {
    const auto begin = static_cast<size_t>(packets[at].pos);
    const auto length = static_cast<size_t>(packets[at].size);
    for (const size_t end : {begin, begin + 1, begin + length / 2, begin + length - 1, begin + length}) {
      for (const size_t zeros : {1U, 511U, 4096U, (1U << 20) + 3U}) {
        expect_same(end, [&](const std::string& path) { append_zeros(path, zeros); });
      }
    }
  }
}

TEST_P(RepairZeroTail, MayBeSparseAndHuge) {
  const size_t whole = file_text(m_movie.broken).size();
  for (const size_t size : {size_t{0}, size_t{1}, whole / 2, whole}) {
    expect_same(size, [](const std::string& path) { std::filesystem::resize_file(path, int64_t{1} << 41); });
  }
}

TEST_P(RepairZeroTail, MayBeOnTheDisk) {
  expect_same(file_text(m_movie.broken).size() / 2, [](const std::string& path) { append_zeros(path, 96U << 20); });
}

INSTANTIATE_TEST_SUITE_P(Containers, RepairZeroTail, testing::Values("mp4", "mov"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace meru_test

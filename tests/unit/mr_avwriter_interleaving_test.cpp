// A stream that delivers nothing does not keep the other one from the output for long.

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "base/MR_AVWriter.h"
#include "support/case_name.h"
#include "support/eventually.h"
#include "support/packets.h"
#include "support/temp_dir.h"
#include "support/writing.h"

namespace {

using meru_test::eventually;
using meru_test::Streams;
using meru_test::TempDir;
using meru_test::TestOutput;
using meru_test::write_video;
using MR::MR_AVWriter;

constexpr int kPacketBytes = 50000;
constexpr int64_t kFrameUsec = 40000;

struct InterleavingCase {
  const char* name;
  const char* container;
  bool indexed, live;
  int pushed_ahead;  ///< frames that the encoder holds at the end
  int packets;       ///< of 40 ms each
  int expected;      ///< packets that have reached the file at least; those that wait are the bound's
  int at_most;
};
void PrintTo(const InterleavingCase& c, std::ostream* out) { *out << c.name; }

class Interleaving : public testing::TestWithParam<InterleavingCase> {};

TEST_P(Interleaving, WaitsForASilentStreamUpToItsBound) {
  const InterleavingCase& c = GetParam();
  const TempDir dir;
  TestOutput output(c.container, dir.file("a.movie"), Streams::kVideoAndAudio);
  MR_AVWriter writer(1000, 0, nullptr);
  writer.m_indexed = c.indexed;
  writer.m_live = c.live;
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  for (int i = 0; i < c.packets; ++i) {
    const int64_t usec = (i + c.pushed_ahead) * kFrameUsec;
    writer.m_encoder_delay.video.pushed(usec, usec);
    ASSERT_EQ(write_video(&writer, i, kPacketBytes), 0);
  }
  ASSERT_TRUE(eventually([&] { return writer.m_books.of(0).passed() == c.packets; }));
  const auto reached = [&] { return static_cast<int>(std::filesystem::file_size(dir.file("a.movie")) / kPacketBytes); };
  EXPECT_GE(reached(), c.expected);
  EXPECT_LE(reached(), c.at_most);
  writer.stop();
  EXPECT_EQ(writer.m_books.of(0).dropped(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, Interleaving,
    testing::Values(InterleavingCase{"FileWaitsTenSeconds", "matroska", false, false, 0, 100, 0, 0},
                    InterleavingCase{"IndexedMovATenthOfASecond", "mov", true, false, 0, 100, 90, 99},
                    InterleavingCase{"IndexedMovAndWhatTheEncoderHolds", "mov", true, false, 50, 100, 38, 50},
                    InterleavingCase{"IndexedOtherFileASecond", "matroska", true, false, 0, 100, 65, 76},
                    InterleavingCase{"LiveOutputASecond", "matroska", false, true, 0, 100, 65, 76},
                    InterleavingCase{"LiveOutputAndWhatTheEncoderHolds", "matroska", false, true, 25, 100, 40, 51}),
    meru_test::CaseName());

}  // namespace

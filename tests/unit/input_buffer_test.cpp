#include "raw_packets/input_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/within.h"

namespace {

using meru_test::Background;
using meru_test::eventually;

constexpr int kTaken = 506;  // what is taken with nobody reading: 500 queued, 6 held back

class InputBufferTest : public testing::Test {
 protected:
  bool push(int64_t pts, const std::string& data = "data") {
    std::string copy = data;
    return push_data(&m_buffer, copy.data(), static_cast<int>(copy.size()), pts);
  }
  /// Takes a packet out of the stream with its stamp, which has to be there.
  int64_t pop() {
    nuv::MRMemNode* node = nullptr;
    Stamp stamp{};
    if (m_buffer._get_front_(node, false, 0, true) != nuv::kQueueDone) return kNothing;
    EXPECT_EQ(m_buffer.m_pts_queue._get_front_(stamp, false, 0, true), nuv::kQueueDone);
    EXPECT_EQ(node->pts, stamp.pts);
    InputBuffer::free_node(node);
    return stamp.pts;
  }
  std::vector<int64_t> pop_all() {
    std::vector<int64_t> stamps;
    for (int64_t pts = pop(); pts != kNothing; pts = pop()) stamps.push_back(pts);
    return stamps;
  }
  std::vector<int64_t> held() const {
    std::vector<int64_t> stamps;
    for (const auto& entry : m_buffer.m_reorder) stamps.push_back(entry.first);
    return stamps;
  }
  using Stamps = std::vector<int64_t>;
  static constexpr int64_t kNothing = -12345;

  InputBuffer m_buffer;
};

TEST_F(InputBufferTest, StartsEmpty) {
  EXPECT_EQ(m_buffer.m_name, "");
  EXPECT_FALSE(m_buffer.m_eof);
  EXPECT_FALSE(m_buffer.external_pool());
  EXPECT_EQ(m_buffer.size(), 0);
}

TEST_F(InputBufferTest, FirstLeavesOnTheSeventhWriteAndTheOrderIsThatOfTheStamps) {
  const Stamps pushed = {0, 66, 33, 100, 133, 166, 200, 233};
  for (size_t i = 0; i < 6; ++i) push(pushed[i]);
  EXPECT_EQ(m_buffer.size(), 0);
  EXPECT_EQ(m_buffer.m_reorder.size(), 6U);
  push(pushed[6]);
  EXPECT_EQ(m_buffer.size(), 1);
  EXPECT_EQ(m_buffer.m_reorder.size(), 6U);
  push(pushed[7]);
  EXPECT_EQ(pop_all(), (Stamps{0, 33}));
  EXPECT_EQ(held(), (Stamps{66, 100, 133, 166, 200, 233}));
}

TEST_F(InputBufferTest, RepeatedStampIsAMicrosecondLater) {
  push(1000);
  push(1000);
  EXPECT_EQ(held(), (Stamps{1000, 1001}));
  push(1000);
  push(1001);
  EXPECT_EQ(held(), (Stamps{1000, 1001, 1002, 1003}));
}

TEST_F(InputBufferTest, RepeatedPacketsComeInTheOrderOfTheirWrites) {
  push(1000, "first");
  push(1000, "second");
  push_data(&m_buffer, nullptr, 0, 0);
  for (const char* expected : {"first", "second"}) {
    nuv::MRMemNode* node = nullptr;
    ASSERT_EQ(m_buffer._get_front_(node, false, 0, true), nuv::kQueueDone);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(node->data), static_cast<size_t>(node->size)), expected);
    InputBuffer::free_node(node);
  }
}

TEST_F(InputBufferTest, PacketIsCopied) {
  std::string data = "packet";
  push_data(&m_buffer, data.data(), 6, 0);
  data = "forget";
  const nuv::MRMemNode* node = m_buffer.m_reorder.at(0);
  EXPECT_EQ(node->size, 6);
  EXPECT_EQ(std::memcmp(node->data, "packet", 6), 0);
}

struct FlushCase {
  const char* name;
  bool null_data;
  int size;
};

class FlushTest : public InputBufferTest, public testing::WithParamInterface<FlushCase> {};

TEST_P(FlushTest, QueuesNothingAndReleasesWhatIsHeldBack) {
  for (int64_t pts = 1; pts <= 4; ++pts) push(pts);
  char data[] = "data";
  EXPECT_TRUE(push_data(&m_buffer, GetParam().null_data ? nullptr : data, GetParam().size, 0));
  EXPECT_EQ(pop_all(), (Stamps{1, 2, 3, 4}));
  EXPECT_EQ(held(), Stamps());
}

INSTANTIATE_TEST_SUITE_P(All, FlushTest,
                         testing::Values(FlushCase{"NullOfNoBytes", true, 0}, FlushCase{"NoBytes", false, 0},
                                         FlushCase{"NegativeSize", false, -1},
                                         FlushCase{"MostNegativeSize", false, INT32_MIN},
                                         FlushCase{"NullWithASize", true, 1000},
                                         FlushCase{"NullWithTheLargestSize", true, INT32_MAX}),
                         [](const auto& row) { return row.param.name; });

TEST_F(InputBufferTest, SizeThatThePoolCannotGiveIsDropped) {
  char data[] = "data";
  EXPECT_TRUE(push_data(&m_buffer, data, INT32_MAX, 0));
  EXPECT_EQ(held(), Stamps());
}

TEST_F(InputBufferTest, ExtremeStampsAreKeptApart) {
  for (const int64_t pts : {INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN, int64_t{0}}) push(pts);
  ASSERT_EQ(m_buffer.m_reorder.size(), 5U);
  push_data(&m_buffer, nullptr, 0, 0);
  const Stamps stamps = pop_all();
  ASSERT_EQ(stamps.size(), 5U);
  EXPECT_EQ(stamps[2], 0);
  for (size_t i = 1; i < stamps.size(); ++i) EXPECT_LT(stamps[i - 1], stamps[i]);
}

TEST_F(InputBufferTest, WriteBlocksAtFiveHundredQueuedUntilOneIsTaken) {
  std::atomic<int> pushed{0};
  const Background pushing([&] {
    for (; pushed < kTaken + 1; ++pushed) push(pushed);
  });
  EXPECT_TRUE(eventually([&] { return pushed == kTaken; }));
  EXPECT_FALSE(pushing.ends_within(std::chrono::milliseconds(50)));
  EXPECT_EQ(m_buffer.size(), 500);
  EXPECT_EQ(pop(), 0);
  EXPECT_TRUE(pushing.ends());
  EXPECT_EQ(m_buffer.size(), 500);
}

TEST_F(InputBufferTest, BlockedWriteIsReleasedByAnAbortAndLaterOnesReturnAtOnce) {
  std::atomic<int> pushed{0};
  const Background pushing([&] {
    for (; pushed < 2000; ++pushed) EXPECT_TRUE(push(pushed));
  });
  EXPECT_TRUE(eventually([&] { return pushed == kTaken; }));
  m_buffer.abort();
  EXPECT_TRUE(pushing.ends());
  EXPECT_EQ(pushed, 2000);
  // The one that was refused has given its block back; its entry stays, and nothing came to it.
  EXPECT_EQ(m_buffer.pool()->cached_count(), 1);
  EXPECT_EQ(m_buffer.m_reorder.size(), 7U);
  EXPECT_TRUE(push_data(&m_buffer, nullptr, 0, 0));
  EXPECT_EQ(m_buffer.m_reorder.size(), 7U);
  EXPECT_EQ(m_buffer.size(), 500);
  EXPECT_EQ(m_buffer.m_pts_queue.size(), 501);  // the refused one's stamp, and none for the tries behind it
}

TEST_F(InputBufferTest, AbortedBufferTakesInNothing) {
  push(1);
  m_buffer.abort();
  EXPECT_TRUE(push(2));
  EXPECT_EQ(held(), (Stamps{1}));
}

/// As soon as a packet can be read its stamp is there; otherwise it would go to the next packet.
TEST_F(InputBufferTest, StampIsThereBeforeThePacket) {
  constexpr int kPackets = 20000;
  const Background pushing([&] {
    for (int i = 0; i < kPackets; ++i) push(i);
    push_data(&m_buffer, nullptr, 0, 0);
  });
  for (int i = 0; i < kPackets; ++i) {
    nuv::MRMemNode* node = nullptr;
    ASSERT_EQ(m_buffer._get_front_(node, true, 0, true), nuv::kQueueDone);
    Stamp stamp{};
    EXPECT_EQ(m_buffer.m_pts_queue._get_front_(stamp, false, 0, true), nuv::kQueueDone);
    EXPECT_EQ(stamp.pts, i);
    EXPECT_EQ(node->pts, i);
    InputBuffer::free_node(node);
  }
}

TEST_F(InputBufferTest, SteadyStreamReusesItsBlocks) {
  int highest = 0;
  for (int64_t pts = 0; pts < 1000; ++pts) {
    push(pts, std::string(1000, 'x'));
    nuv::MRMemNode* node = nullptr;
    if (m_buffer._get_front_(node, false, 0, true) != nuv::kQueueDone) continue;
    highest = std::max(highest, node->id);
    InputBuffer::free_node(node);
  }
  EXPECT_LT(highest, 8);
}

TEST_F(InputBufferTest, BytesAtHandAreThoseOfTheCursorOrOfTheNextPacket) {
  push(0, std::string(100, 'a'));
  push(1, std::string(50, 'b'));
  push_data(&m_buffer, nullptr, 0, 0);
  m_buffer._push_back_(nullptr, INT32_MAX, false, 0);
  unsigned char bytes[100];
  EXPECT_EQ(m_buffer.bytes_at_hand(), 100);
  EXPECT_EQ(m_buffer._read_nbytes_(bytes, 30, true, 0), nuv::kReadDone);
  EXPECT_EQ(m_buffer.bytes_at_hand(), 70);
  EXPECT_EQ(m_buffer._read_nbytes_(bytes, 70, true, 0), nuv::kReadDone);
  EXPECT_EQ(m_buffer.bytes_at_hand(), 50);
  EXPECT_EQ(m_buffer._read_nbytes_(bytes, 50, true, 0), nuv::kReadDone);
  EXPECT_EQ(m_buffer.bytes_at_hand(), 1);
  EXPECT_EQ(m_buffer._read_nbytes_(bytes, 1, true, 0), nuv::kReadNoMoreData);
  m_buffer.abort();
  EXPECT_EQ(m_buffer.bytes_at_hand(), 1);
}

}  // namespace

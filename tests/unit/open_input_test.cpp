#include "raw_packets/open_input.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "support/eventually.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace {

using meru_test::Background;
using meru_test::RawPacket;
using meru_test::RawPackets;

class OpenInputTest : public testing::Test {
 protected:
  void push(const std::string& data) {
    std::string copy = data;
    push_data(&m_buffer, copy.data(), static_cast<int>(copy.size()), m_pushed++);
  }
  void push(const RawPackets& packets) {
    for (const RawPacket& packet : packets) push(packet.data);
  }
  void flush() { push_data(&m_buffer, nullptr, 0, 0); }
  void end() {
    flush();
    m_buffer._push_back_(nullptr, INT32_MAX, false, 0);
  }
  int read(int size) { return avio_read_buffer(&m_buffer, m_bytes.data(), size); }

  InputBuffer m_buffer;
  std::vector<unsigned char> m_bytes = std::vector<unsigned char>(1000);
  int64_t m_pushed = 0;
};

using ReadBufferTest = OpenInputTest;

TEST_F(ReadBufferTest, GivesWhatIsThereAndNoMore) {
  push(std::string(100, 'a'));
  push(std::string(50, 'b'));
  flush();
  EXPECT_EQ(read(30), 30);
  EXPECT_EQ(read(1000), 70);
  EXPECT_EQ(m_bytes[69], 'a');
  EXPECT_EQ(read(1000), 50);
  EXPECT_EQ(m_bytes[49], 'b');
}

TEST_F(ReadBufferTest, NothingIsLostAtTheEnd) {
  push(std::string(100, 'a'));
  end();
  EXPECT_EQ(read(1000), 100);
  EXPECT_FALSE(m_buffer.m_eof);
  EXPECT_EQ(read(1000), AVERROR_EOF);
  EXPECT_TRUE(m_buffer.m_eof);
}

TEST_F(ReadBufferTest, EndIsTheEnd) {
  end();
  EXPECT_EQ(read(1000), AVERROR_EOF);
  push("more");
  flush();
  EXPECT_EQ(read(1000), AVERROR_EOF);
  EXPECT_EQ(m_buffer.size(), 1);
}

TEST_F(ReadBufferTest, AbortIsTheEnd) {
  std::atomic<int> result{0};
  const Background reading([&] { result = read(1000); });
  EXPECT_FALSE(reading.ends_within(std::chrono::milliseconds(20)));
  m_buffer.abort();
  EXPECT_TRUE(reading.ends());
  EXPECT_EQ(result, AVERROR_EOF);
  EXPECT_TRUE(m_buffer.m_eof);
}

TEST_F(ReadBufferTest, WaitsForTheHostAndTakesWhatComes) {
  std::atomic<int> result{0};
  const Background reading([&] { result = read(1000); });
  EXPECT_FALSE(reading.ends_within(std::chrono::milliseconds(20)));
  push("data");
  flush();
  EXPECT_TRUE(reading.ends());
  EXPECT_EQ(result, 4);
}

TEST_F(ReadBufferTest, EmptyNodeIsNotTheEnd) {
  m_buffer._push_back_(m_buffer.pool()->mr_malloc(0), INT32_MAX, false, 0);
  push("data");
  end();
  EXPECT_EQ(read(1000), 1);
  EXPECT_EQ(m_bytes[0], 'd');
  EXPECT_EQ(read(1000), 3);
  EXPECT_EQ(read(1000), AVERROR_EOF);
}

TEST_F(ReadBufferTest, StreamIsCutOffWhereNoMoreIsAllowed) {
  push(std::string(100, 'a'));
  push(std::string(100, 'b'));
  end();
  m_buffer.m_allowed = 150;
  EXPECT_EQ(read(1000), 100);
  EXPECT_EQ(read(1000), AVERROR_EOF);
  EXPECT_TRUE(m_buffer.m_eof);
}

void expect_error(const nuv::Expected_<AVFormatContext*>& result, int code, const std::string& text) {
  EXPECT_TRUE(result.has_error);
  EXPECT_EQ(result.value, nullptr);
  EXPECT_EQ(result.code, code);
  EXPECT_EQ(result.message, text);
}

TEST_F(OpenInputTest, UnknownFormat) {
  expect_error(open_input_buffer(&m_buffer, "nonsense"), AVERROR_MUXER_NOT_FOUND,
               "could not find input format 'nonsense'");
}

TEST_F(OpenInputTest, NoMemory) {
  av_max_alloc(10000);  // less than the I/O buffer
  const auto result = open_input_buffer(&m_buffer, "h264");
  av_max_alloc(INT32_MAX);
  expect_error(result, -12, "failed to allocate io for 'h264'");
}

TEST_F(OpenInputTest, EndedInputOfSound) {
  end();
  expect_error(open_input_buffer(&m_buffer, "aac"), AVERROR_EOF, "Could not open input 'aac': End of file");
}

TEST_F(OpenInputTest, EndedInputOfVideo) {
  end();
  expect_error(open_input_buffer(&m_buffer, "h264"), AVERROR_INVALIDDATA,
               "could not find stream information for 'h264'");
}

TEST_F(OpenInputTest, AbortedInput) {
  m_buffer.abort();
  expect_error(open_input_buffer(&m_buffer, "h264"), AVERROR_INVALIDDATA,
               "could not find stream information for 'h264'");
}

TEST_F(OpenInputTest, GarbageOfVideo) {
  for (int i = 0; i < 100; ++i) push(std::string(1000, static_cast<char>(i)));
  end();
  expect_error(open_input_buffer(&m_buffer, "h264"), AVERROR_INVALIDDATA,
               "could not find stream information for 'h264'");
}

/// A format that finds no stream at all.
TEST_F(OpenInputTest, NoStream) {
  push(std::string("FLV\1\5\0\0\0\x9\0\0\0\0", 13));
  end();
  const auto result = open_input_buffer(&m_buffer, "flv");
  EXPECT_TRUE(result.has_error);
  EXPECT_LT(result.code, 0);
  EXPECT_EQ(result.message, "could not find stream information for 'flv'");
}

class OpenedInputTest : public OpenInputTest {
 protected:
  /// Opens while the input goes on: the packets given must be enough.
  void open(const char* format, InputBuffer* other = nullptr) {
    flush();
    Background opening([&] { m_result = open_input_buffer(&m_buffer, format, other); });
    const bool opened = opening.ends_within(std::chrono::seconds(20));
    EXPECT_TRUE(opened);
    if (!opened) m_buffer.abort();
  }
  void expect_found(const RawPackets& packets) {
    const PacketPtr found(av_packet_alloc());
    for (const RawPacket& packet : packets) {
      ASSERT_GE(av_read_frame(m_result.value, found.get()), 0);
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(found->data), static_cast<size_t>(found->size)), packet.data);
      av_packet_unref(found.get());
    }
    EXPECT_EQ(av_read_frame(m_result.value, found.get()), AVERROR_EOF);
  }
  void SetUp() override { m_result.has_error = true; }
  void TearDown() override { const InputContextPtr closing(m_result.value); }

  meru_test::TempDir m_dir;
  nuv::Expected_<AVFormatContext*> m_result;
};

TEST_F(OpenedInputTest, VideoOpensWithItsSecondPacket) {
  push(meru_test::make_video(m_dir, {2}).packets);
  open("h264");
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  EXPECT_EQ(m_result.message, "");
  EXPECT_EQ(m_result.value->flags & AVFMT_FLAG_CUSTOM_IO, 128);
  ASSERT_EQ(m_result.value->nb_streams, 1U);
  const AVCodecParameters* par = m_result.value->streams[0]->codecpar;
  EXPECT_EQ(par->codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(par->width, 160);
  EXPECT_EQ(par->height, 120);
  EXPECT_GT(par->extradata_size, 0);
}

TEST_F(OpenedInputTest, SoundOpensWithItsSecondPacket) {
  RawPackets packets = meru_test::make_audio(m_dir, 0.1).packets;
  packets.resize(2);
  push(packets);
  open("aac");
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  const AVCodecParameters* par = m_result.value->streams[0]->codecpar;
  EXPECT_EQ(par->codec_id, AV_CODEC_ID_AAC);
  EXPECT_EQ(par->sample_rate, 48000);
  EXPECT_EQ(par->frame_size, 1024);
}

TEST_F(OpenedInputTest, VideoWaitsForItsParameterSets) {
  RawPackets packets = meru_test::make_video(m_dir, {60, 30, "160x120", "keyint=30:scenecut=0"}).packets;
  for (size_t i = 0; i < 30; ++i) packets[i].data = meru_test::without_parameter_sets(packets[i].data);
  packets.resize(32);
  push(packets);
  open("h264");
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  EXPECT_EQ(m_result.value->streams[0]->codecpar->width, 160);
}

TEST_F(OpenedInputTest, EveryPacketReadInTheSearchIsStillThere) {
  const RawPackets packets = meru_test::make_video(m_dir, {40}).packets;
  push(packets);
  end();
  open("h264");
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  expect_found(packets);
}

/// Beside a medium that is full, whose host waits.
class OpenedBesideAFullOneTest : public OpenedInputTest {
 protected:
  OpenedBesideAFullOneTest() {
    for (int i = 0; i < kMaxQueued; ++i) m_full.hold("x", 1, i);
    m_full.release(0, kMaxQueued);
  }

  InputBuffer m_full;
};

TEST_F(OpenedBesideAFullOneTest, OnePictureIsEnough) {
  const RawPackets packets = meru_test::make_video(m_dir, {1}).packets;
  push(packets);
  open("h264", &m_full);
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  EXPECT_EQ(m_result.value->streams[0]->codecpar->width, 160);
  expect_found(packets);
}

TEST_F(OpenedBesideAFullOneTest, PacketsThatTellNothingAreWaitedBehind) {
  RawPackets packets = meru_test::make_video(m_dir, {60, 30, "160x120", "keyint=30:scenecut=0"}).packets;
  for (size_t i = 0; i < 30; ++i) packets[i].data = meru_test::without_parameter_sets(packets[i].data);
  for (size_t i = 0; i < 5; ++i) push(packets[i].data);
  flush();
  Background opening([&] { m_result = open_input_buffer(&m_buffer, "h264", &m_full); });
  EXPECT_FALSE(opening.ends_within(std::chrono::milliseconds(300)));
  m_full.clear();  // or it could give way again, between two of the packets that follow
  for (size_t i = 5; i < packets.size(); ++i) push(packets[i].data);
  end();
  ASSERT_TRUE(opening.ends());
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  EXPECT_EQ(m_result.value->streams[0]->codecpar->width, 160);
  expect_found(packets);
}

TEST_F(OpenedBesideAFullOneTest, BeginningIsWaitedFor) {
  const RawPackets packets = meru_test::make_video(m_dir, {2}).packets;
  Background opening([&] { m_result = open_input_buffer(&m_buffer, "h264", &m_full); });
  EXPECT_FALSE(opening.ends_within(std::chrono::milliseconds(300)));
  push(packets);
  flush();
  ASSERT_TRUE(opening.ends());
  ASSERT_FALSE(m_result.has_error) << m_result.message;
  EXPECT_EQ(m_result.value->streams[0]->codecpar->width, 160);
}

}  // namespace

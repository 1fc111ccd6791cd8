#include "raw_packets/copy_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "raw_packets/open_input.h"
#include "support/fake_writer.h"
#include "support/log_capture.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace {

using meru_test::FakeWriter;
using meru_test::RawPacket;
using meru_test::RawPackets;

constexpr AVRational kUsec{1, 1000000};
constexpr AVRational kMilliseconds{1, 1000};

std::string bytes_of(const FakeWriter::Packet& packet) { return {packet.data.begin(), packet.data.end()}; }

/// Two inputs that have ended, and an output that nothing is written to.
class CopyLoopTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    const meru_test::TempDir dir;
    s_video = meru_test::make_video(dir, {10}).packets;
    s_audio = meru_test::make_audio(dir, 0.25).packets;
    s_audio.resize(10);
  }

  CopyLoopTest() : m_output(avformat_alloc_context()) {
    m_video_ost = avformat_new_stream(m_output.get(), nullptr);
    m_audio_ost = avformat_new_stream(m_output.get(), nullptr);
    m_video_ost->time_base = m_audio_ost->time_base = kUsec;
  }

  static void fill(InputBuffer* buffer, const RawPackets& packets) {
    for (RawPacket packet : packets) {
      push_data(buffer, packet.data.data(), static_cast<int>(packet.data.size()), packet.pts);
    }
    push_data(buffer, nullptr, 0, 0);
    buffer->_push_back_(nullptr, INT32_MAX, false, 0);
  }
  static InputContextPtr open(InputBuffer* buffer, const char* format) {
    const auto result = open_input_buffer(buffer, format);
    EXPECT_FALSE(result.has_error) << result.message;
    return InputContextPtr(result.value);
  }
  void fill_video(const RawPackets& packets) {
    fill(&m_video, packets);
    m_video_ctx = open(&m_video, "h264");
  }
  void fill_audio(const RawPackets& packets) {
    fill(&m_audio, packets);
    m_audio_ctx = open(&m_audio, "aac");
  }
  std::vector<FakeWriter::Packet> run() {
    MuxInput video{"h264", m_video_ctx.get(), &m_video, m_video_ost};
    MuxInput audio{"aac", m_audio_ctx.get(), &m_audio, m_audio_ost};
    CopyLoop(&video, &audio, &m_writer).run();
    return m_writer.packets;
  }
  static RawPackets with_stamps(RawPackets packets, const std::vector<long long>& stamps) {
    packets.resize(stamps.size());
    for (size_t i = 0; i < stamps.size(); ++i) packets[i].pts = stamps[i];
    return packets;
  }
  static std::vector<int64_t> stamps_of(const std::vector<FakeWriter::Packet>& packets, int stream) {
    std::vector<int64_t> stamps;
    for (const FakeWriter::Packet& packet : packets) {
      if (packet.stream_index == stream) stamps.push_back(packet.pts);
    }
    return stamps;
  }
  using Stamps = std::vector<int64_t>;

  static RawPackets s_video, s_audio;
  InputBuffer m_video, m_audio;
  FormatContextPtr m_output;
  AVStream* m_video_ost;
  AVStream* m_audio_ost;
  InputContextPtr m_video_ctx, m_audio_ctx;
  FakeWriter m_writer;
  meru_test::LogCapture m_log;
};
RawPackets CopyLoopTest::s_video;
RawPackets CopyLoopTest::s_audio;

TEST_F(CopyLoopTest, PacketsKeepTheirBytesAndGetTheHostsStamps) {
  fill_video(with_stamps(s_video, {100, 200, 350, 600}));
  const auto packets = run();
  ASSERT_EQ(packets.size(), 4U);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(bytes_of(packets[i]), s_video[i].data);
    EXPECT_EQ(packets[i].dts, packets[i].pts);
    EXPECT_EQ(av_cmp_q(packets[i].time_base, kUsec), 0);
    EXPECT_TRUE(packets[i].audio) << "written as privileged";
    EXPECT_EQ(packets[i].stream_index, 0);
  }
  EXPECT_EQ(stamps_of(packets, 0), (Stamps{100, 200, 350, 600}));
  EXPECT_TRUE(packets[0].key);
  EXPECT_FALSE(packets[1].key);
}

/// Nothing is before the first packet: it keeps the demuxer's.
TEST_F(CopyLoopTest, DurationIsTheTimeSinceThePacketBefore) {
  struct Seen : FakeWriter {
    std::vector<int64_t> durations;
    std::vector<int64_t> positions;
    int writePacket(const AVRational*, AVPacket* packet, bool) override {
      durations.push_back(packet->duration);
      positions.push_back(packet->pos);
      return 0;
    }
  } writer;
  fill_video(with_stamps(s_video, {100, 200, 350, 600}));
  MuxInput video{"h264", m_video_ctx.get(), &m_video, m_video_ost};
  MuxInput audio{"aac", nullptr, &m_audio, nullptr};
  CopyLoop(&video, &audio, &writer).run();
  EXPECT_EQ(writer.durations, (std::vector<int64_t>{33333, 100, 150, 250}));
  EXPECT_EQ(writer.positions, (std::vector<int64_t>{-1, -1, -1, -1}));
}

TEST_F(CopyLoopTest, DurationThatContainersRefuseIsLeftOut) {
  struct Seen : FakeWriter {
    std::vector<int64_t> durations;
    int writePacket(const AVRational*, AVPacket* packet, bool) override {
      durations.push_back(packet->duration);
      return 0;
    }
  } writer;
  constexpr int64_t kLongest = INT32_MAX;
  fill_video(with_stamps(s_video, {5, kLongest + 5, 2 * kLongest + 6, 2 * kLongest + 10}));
  MuxInput video{"h264", m_video_ctx.get(), &m_video, m_video_ost};
  MuxInput audio{"aac", nullptr, &m_audio, nullptr};
  CopyLoop(&video, &audio, &writer).run();
  EXPECT_EQ(writer.durations, (std::vector<int64_t>{33333, kLongest, 0, 4}));
}

TEST_F(CopyLoopTest, SmallestStampComesFirst) {
  fill_video(with_stamps(s_video, {0, 100, 200, 300}));
  fill_audio(with_stamps(s_audio, {50, 60, 70, 250, 400}));
  const auto packets = run();
  Stamps all;
  for (const auto& packet : packets) all.push_back(packet.pts);
  EXPECT_EQ(all, (Stamps{0, 50, 60, 70, 100, 200, 250, 300, 400}));
  EXPECT_EQ(stamps_of(packets, 1), (Stamps{50, 60, 70, 250, 400}));
  EXPECT_EQ(m_log.count(2, "reached EOF for 'h264'"), 1);
  EXPECT_EQ(m_log.count(2, "reached EOF for 'aac'"), 1);
}

TEST_F(CopyLoopTest, OfEqualStampsTheSameInputAlwaysComesFirst) {
  const std::vector<long long> stamps = {0, 100, 200, 300, 400};
  fill_video(with_stamps(s_video, stamps));
  fill_audio(with_stamps(s_audio, stamps));
  const auto packets = run();
  ASSERT_EQ(packets.size(), 10U);
  for (size_t i = 0; i < packets.size(); i += 2) {
    EXPECT_EQ(packets[i].pts, packets[i + 1].pts);
    EXPECT_EQ(packets[i].stream_index, packets[0].stream_index);
    EXPECT_NE(packets[i + 1].stream_index, packets[0].stream_index);
  }
}

/// One access unit in two pushes: the second push begins none, and its timestamp is not given to the next.
TEST_F(CopyLoopTest, StampOfAPushThatBeginsNoPacketStaysUnused) {
  RawPackets packets = with_stamps(s_video, {100, 200, 300, 400});
  const std::string parts = packets[1].data;
  packets[1].data = parts.substr(0, 10);
  packets.insert(packets.begin() + 2, {parts.substr(10), 210});
  fill_video(packets);
  EXPECT_EQ(stamps_of(run(), 0), (Stamps{100, 200, 300, 400}));
  Stamp left{};
  EXPECT_EQ(m_video.m_pts_queue._get_front_(left, false, 0, true), nuv::kQueueEmpty);
}

TEST_F(CopyLoopTest, SoundWithoutAStampKeepsTheDemuxersOwn) {
  RawPackets packets = with_stamps(s_audio, {7});
  for (size_t i = 1; i < 4; ++i) packets[0].data += s_audio[i].data;
  fill_audio(packets);
  // Frames of 1024 samples at 48 kHz, in microseconds.
  EXPECT_EQ(stamps_of(run(), 1), (Stamps{7, 21333, 42667, 64000}));
}

TEST_F(CopyLoopTest, VideoWithoutAStampGoesOnAtThePaceBeforeIt) {
  RawPackets packets = with_stamps(s_video, {100, 140});
  for (size_t i = 2; i < 5; ++i) packets[1].data += s_video[i].data;
  fill_video(packets);
  EXPECT_EQ(stamps_of(run(), 0), (Stamps{100, 140, 180, 220, 260}));
}

TEST_F(CopyLoopTest, PaceThatLeadsBeyondTheLastStampIsNotKept) {
  RawPackets packets = with_stamps(s_video, {0, kLastPts - 1000});
  for (size_t i = 2; i < 10; ++i) packets[1].data += s_video[i].data;
  fill_video(packets);
  Stamps expected{0, kLastPts - 1000};
  while (expected.size() < 10) expected.push_back(expected.back() + 1);
  EXPECT_EQ(stamps_of(run(), 0), expected);
}

TEST_F(CopyLoopTest, StampsThatTheOutputCannotTellApartAreMovedByATick) {
  m_video_ost->time_base = kMilliseconds;
  fill_video(with_stamps(s_video, {0, 1, 2, 3000, 3400, 5000}));
  const auto packets = run();
  Stamps ticks;
  for (const auto& packet : packets) ticks.push_back(av_rescale_q(packet.pts, kUsec, kMilliseconds));
  EXPECT_EQ(ticks, (Stamps{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(packets[5].pts, 5000);
}

TEST_F(CopyLoopTest, PacketThatComesTooLateIsDroppedAndCounted) {
  m_video_ost->time_base = kMilliseconds;
  RawPackets packets = with_stamps(s_video, {10000, 20000, 30000, 40000, 50000, 60000, 70000, 5000});
  fill_video(packets);
  EXPECT_EQ(stamps_of(run(), 0), (Stamps{10000, 20000, 30000, 40000, 50000, 60000, 70000}));
  const MR::Ledger& ledger = m_video.m_books.packets;
  EXPECT_EQ(ledger.taken(), 8);
  EXPECT_EQ(ledger.passed(), 7);
  EXPECT_EQ(ledger.dropped(MR::Drop::kTimestamp), 1);
  EXPECT_EQ(m_log.count(2,
                        "a packet of 'h264' is dropped: its timestamp 5000 is not later than the last one written, "
                        "10000"),
            1);
}

/// A side index takes a first dts of 0 for the pts.
TEST_F(CopyLoopTest, FirstDtsBeforeItsPtsIsNotZeroWithASideIndex) {
  for (const bool indexed : {false, true}) {
    InputBuffer buffer;
    for (long long i = 0; i < 5; ++i) {
      RawPacket packet = s_video[static_cast<size_t>(i)];
      push_data_ts(&buffer, packet.data.data(), static_cast<int>(packet.data.size()), i * 40000 + 80000, i * 40000);
    }
    buffer._push_back_(nullptr, INT32_MAX, false, 0);
    const InputContextPtr ctx = open(&buffer, "h264");
    FakeWriter writer;
    MuxInput video{"h264", ctx.get(), &buffer, m_video_ost};
    video.indexed = video.reorders = indexed;
    MuxInput audio{"aac", nullptr, &m_audio, nullptr};
    CopyLoop(&video, &audio, &writer).run();
    ASSERT_EQ(writer.packets.size(), 5U);
    EXPECT_EQ(writer.packets[0].dts, indexed ? -1 : 0);
    EXPECT_EQ(writer.packets[0].pts, 80000);
    EXPECT_EQ(writer.packets[1].dts, 40000);
  }
}

TEST_F(CopyLoopTest, WriteErrorEndsTheCopying) {
  fill_video(s_video);
  fill_audio(s_audio);
  m_writer.packet_result = AVERROR(ENOSPC);
  run();
  EXPECT_EQ(m_writer.calls, 1);
  EXPECT_EQ(m_log.count(2, "error muxing packet: No space left on device"), 1);
  EXPECT_EQ(m_log.count(2, "reached EOF for 'h264'"), 0);
}

/// A header that containers cannot take off: several blocks with a checksum.
TEST_F(CopyLoopTest, DamagedSoundIsLeftOutWithItsStamp) {
  RawPackets packets = with_stamps(s_audio, {0, 100, 200, 300, 400, 500});
  for (const size_t i : {2U, 4U}) {
    packets[i].data[1] = '\xf0';
    packets[i].data[6] = static_cast<char>(packets[i].data[6] | 1);
  }
  fill_audio(packets);
  const auto found = run();
  EXPECT_EQ(stamps_of(found, 1), (Stamps{0, 100, 300, 500}));
  EXPECT_EQ(bytes_of(found[2]), packets[3].data);
  // Once as a failure, then as a detail.
  const char* const kLine = "error reading frame: Invalid data found when processing input";
  EXPECT_EQ(m_log.count(2, kLine), 1);
  EXPECT_EQ(m_log.count(5, kLine), 1);
}

TEST_F(CopyLoopTest, BytesInWhichThereIsNoPacketAreSkipped) {
  RawPackets packets = with_stamps(s_audio, {0, 100, 200, 300, 400});
  packets[2].data.assign(100, '\0');
  fill_audio(packets);
  const auto found = run();
  ASSERT_EQ(found.size(), 4U);
  for (size_t i = 2; i < 4; ++i) EXPECT_EQ(bytes_of(found[i]), packets[i + 1].data);
}

TEST_F(CopyLoopTest, WithoutInputsThereIsNothingToDo) { EXPECT_TRUE(run().empty()); }

/// An input whose reading fails, after `good` bytes of sound.
struct BrokenInput {
  std::string bytes;
  size_t at = 0;
  static int read(void* opaque, uint8_t* buf, int size) {
    auto* self = static_cast<BrokenInput*>(opaque);
    const size_t n = std::min(static_cast<size_t>(size), self->bytes.size() - self->at);
    if (n == 0) return AVERROR(EACCES);
    std::memcpy(buf, self->bytes.data() + self->at, n);
    self->at += n;
    return static_cast<int>(n);
  }
};

class BrokenInputTest : public CopyLoopTest {
 protected:
  /// Sound of so many frames behind which reading fails, instead of the audio buffer.
  void break_audio_after(size_t frames) {
    for (size_t i = 0; i < frames; ++i) m_input.bytes += s_audio[i].data;
    auto* buffer = static_cast<uint8_t*>(av_malloc(4096));
    AVFormatContext* ctx = avformat_alloc_context();
    ctx->pb = avio_alloc_context(buffer, 4096, 0, &m_input, &BrokenInput::read, nullptr, nullptr);
    ctx->flags = AVFMT_FLAG_CUSTOM_IO;
    ASSERT_EQ(avformat_open_input(&ctx, nullptr, av_find_input_format("aac"), nullptr), 0);
    m_audio_ctx.reset(ctx);
  }
  static constexpr const char* kError = "error reading frame: Permission denied";
  BrokenInput m_input;
};

TEST_F(BrokenInputTest, ReadErrorEndsTheCopying) {
  fill_video(with_stamps(s_video, {0, 1000000, 2000000}));
  break_audio_after(2);
  const auto packets = run();
  EXPECT_EQ(m_log.count(2, kError), 1);
  EXPECT_EQ(stamps_of(packets, 0), (Stamps{0}));
  EXPECT_EQ(packets.size(), 3U);
}

TEST_F(BrokenInputTest, ErrorOfTheFirstReadLeavesTheOtherInput) {
  fill_video(with_stamps(s_video, {0, 1000000, 2000000}));
  break_audio_after(1);
  const PacketPtr dropped(av_packet_alloc());
  ASSERT_EQ(av_read_frame(m_audio_ctx.get(), dropped.get()), 0);
  const auto packets = run();
  EXPECT_EQ(m_log.count(2, kError), 1);
  EXPECT_EQ(stamps_of(packets, 0), (Stamps{0, 1000000, 2000000}));
}

}  // namespace

// A stream that lags behind the other one, in containers that cannot bear it.

#include "output/stream_order.h"

#include <gtest/gtest.h>

#include "base/MR_AVWriter.h"
#include "support/books_check.h"
#include "support/eventually.h"
#include "support/packets.h"
#include "support/temp_dir.h"
#include "support/writing.h"

namespace {

using meru_test::ReadBack;
using meru_test::Streams;
using meru_test::TempDir;
using meru_test::TestOutput;
using MR::MR_AVWriter;

// FFmpeg's muxer aborts the process when it meets a packet out of order.
class LaggingAsf : public testing::TestWithParam<int> {};

// Audio that starts `lag` seconds after video was written, with timestamps from 0.
TEST_P(LaggingAsf, IsWrittenInOrderOrDropped) {
  const int lag = GetParam();
  const TempDir dir;
  TestOutput output("asf", dir.file("a.asf"), Streams::kVideoAndAudio);
  MR_AVWriter writer(100000, 0, nullptr);
  writer.m_indexed = true;  // elsewhere this waits for a tenth of a second
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  const int images = lag * 25 + 1;
  for (int i = 0; i < images; ++i) ASSERT_EQ(meru_test::write_video(&writer, i), 0);
  constexpr int kSounds = 25;
  for (int i = 0; i < kSounds; ++i) ASSERT_EQ(meru_test::write_audio(&writer, i * 1920), 0);
  writer.stop();
  output.close();
  const MR::Ledger& audio = writer.m_books.of(meru_test::kAudioStream);
  EXPECT_TRUE(audio.balances());
  EXPECT_EQ(audio.dropped(), lag < 60 ? 0 : kSounds);
  EXPECT_EQ(writer.m_books.of(meru_test::kVideoStream).passed(), images);
  EXPECT_EQ(ReadBack(dir.file("a.asf")).packets(meru_test::kVideoStream), static_cast<size_t>(images));
}

INSTANTIATE_TEST_SUITE_P(Seconds, LaggingAsf, testing::Values(1, 9, 30, 100),
                         [](const auto& test) { return std::to_string(test.param); });

// The encoder of the audio returns its first packet, which lies before time 0, after video was written.
TEST(LaggingFlv, PacketBeforeTheFirstOneIsDroppedAndTheOutputGoesOn) {
  const TempDir dir;
  TestOutput output("flv", dir.file("a.flv"), Streams::kVideoAndAudio);
  for (unsigned i = 0; i < output.get()->nb_streams; ++i) {
    AVCodecParameters* par = output.get()->streams[i]->codecpar;
    par->codec_id = i == 0 ? AV_CODEC_ID_FLV1 : AV_CODEC_ID_MP3;
    par->sample_rate = i == 0 ? 0 : 44100;
  }
  MR_AVWriter writer(1000, 0, nullptr);
  writer.m_live = true;  // waits for a second
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  writer.start();
  for (int i = 0; i < 50; ++i) ASSERT_EQ(meru_test::write_video(&writer, i), 0);
  ASSERT_TRUE(meru_test::eventually([&] { return writer.m_books.of(meru_test::kVideoStream).passed() == 50; }));
  ASSERT_EQ(meru_test::write_audio(&writer, -1105), 0);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(meru_test::write_audio(&writer, 480 + i * 1152), 0);
  writer.stop();
  output.close();
  EXPECT_TRUE(writer.tailer_done());
  EXPECT_EQ(writer.m_books.of(meru_test::kAudioStream).dropped(MR::Drop::kTimestamp), 1);
  EXPECT_EQ(writer.m_books.of(meru_test::kAudioStream).passed(), 50);
  EXPECT_EQ(meru_test::video_packets(dir.file("a.flv")), 50);
}

TEST(StreamOrderTest, LeavesOtherContainersAlone) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"), Streams::kVideoAndAudio);
  MR::StreamOrder order(output.get());
  EXPECT_EQ(order.interleave_usec(), 0);
  AVPacket packet = meru_test::make_packet(meru_test::kVideoStream, 1000000);
  packet.dts = 1000000;
  EXPECT_FALSE(order.is_late(packet));
  packet.dts = 0;
  EXPECT_FALSE(order.is_late(packet));
  av_packet_unref(&packet);
  EXPECT_EQ(MR::StreamOrder(nullptr).interleave_usec(), 0);
}

}  // namespace

#include "AVSnapshot/snapshot.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "support/index_reader.h"
#include "support/indexed_output.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using meru_test::IndexedOutput;
using meru_test::IndexReader;
using meru_test::LogCapture;
using meru_test::read_file;

class SnapshotTest : public testing::Test {
 protected:
  std::string movie(const std::string& name = "a.mp4") const { return m_dir.file(name); }
  std::string index(const std::string& name = "a.idx") const { return m_dir.file(name); }

  meru_test::TempDir m_dir;
};

TEST_F(SnapshotTest, VersionIsTwo) { EXPECT_EQ(Snapshot().version(), 2); }

TEST_F(SnapshotTest, SecondOpenIsRefusedAndKeepsTheFirstFile) {
  Snapshot snapshot;
  EXPECT_TRUE(snapshot.open(index().c_str()));
  LogCapture log;
  EXPECT_FALSE(snapshot.open(index("b.idx").c_str()));
  EXPECT_EQ(log.count(2, "already opened !"), 1);
  EXPECT_TRUE(std::filesystem::exists(index()));
  EXPECT_FALSE(std::filesystem::exists(index("b.idx")));
}

TEST_F(SnapshotTest, MissingFolderMakesOpenFail) { EXPECT_FALSE(Snapshot().open(index("none/a.idx").c_str())); }

TEST_F(SnapshotTest, ClosedSnapshotCanBeOpenedAgain) {
  Snapshot snapshot;
  EXPECT_TRUE(snapshot.open(index().c_str()));
  snapshot.close();
  EXPECT_TRUE(snapshot.open(index("b.idx").c_str()));
}

TEST_F(SnapshotTest, NothingHappensWithoutAFile) {
  Snapshot snapshot;
  snapshot.flush();
  snapshot.close();
  IndexedOutput output("mp4", movie());
  LogCapture log;
  EXPECT_FALSE(snapshot.write_header(output.context()));
  EXPECT_EQ(log.count(2, "---> moov: fp is nullptr!"), 1);
  EXPECT_EQ(output.context()->opaque, nullptr);
}

TEST_F(SnapshotTest, NullContextIsRefused) {
  Snapshot snapshot;
  ASSERT_TRUE(snapshot.open(index().c_str()));
  LogCapture log;
  EXPECT_FALSE(snapshot.write_header(nullptr));
  EXPECT_EQ(log.count(2, "---> moov: oc==null"), 1);
}

TEST_F(SnapshotTest, OutputWithoutIoIsNotHooked) {
  IndexedOutput output("mp4", movie());
  avio_closep(&output.context()->pb);
  LogCapture log;
  EXPECT_FALSE(output.index_to(index()));
  EXPECT_EQ(log.count(2, "---> moov: pb==null, not support"), 1);
  EXPECT_EQ(output.context()->opaque, nullptr);
}

TEST_F(SnapshotTest, FormatThatIsNotAPrivateCopyIsNotHooked) {
  AVFormatContext* oc = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "mp4", movie().c_str()), 0);
  const FormatContextPtr owner(oc);
  ASSERT_GE(avio_open(&oc->pb, movie().c_str(), AVIO_FLAG_WRITE), 0);
  Snapshot snapshot;
  ASSERT_TRUE(snapshot.open(index().c_str()));
  EXPECT_FALSE(snapshot.write_header(oc));
  EXPECT_EQ(oc->opaque, nullptr);
  avio_closep(&oc->pb);
}

TEST_F(SnapshotTest, NothingIsWrittenBeforeTheMuxersHeader) {
  IndexedOutput output("mp4", movie());
  output.add_video();
  ASSERT_TRUE(output.index_to(index()));
  output.snapshot()->flush();
  EXPECT_EQ(read_file(index()), "");
}

TEST_F(SnapshotTest, FailingHeaderWritesNothing) {
  IndexedOutput output("mp4", movie());
  output.add_video(AV_CODEC_ID_FFV1);  // the container does not take it
  ASSERT_TRUE(output.index_to(index()));
  EXPECT_LT(output.write_header(), 0);
  output.drop_snapshot();
  EXPECT_EQ(read_file(index()), "");
}

TEST_F(SnapshotTest, StreamLinesHaveExactlyTheirMembersInOrder) {
  IndexedOutput output("mp4", movie());
  AVStream* video = output.add_video();
  IndexedOutput::set_extradata(video, std::string("\0\0\1\xb0\1", 5));
  output.add_audio();
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  const std::string text = read_file(index());  // on disk already, the recording has only begun
  const std::string comment = text.substr(0, text.find('\n'));
  EXPECT_EQ(comment.rfind("## version=2, ", 0), 0U);
  EXPECT_EQ(text.substr(comment.size() + 1),
            "{\"type\":\"video\",\"index\":0,\"codec\":\"mpeg4\",\"format\":\"yuv420p\",\"h\":48,\"w\":64,"
            "\"tb.num\":1,\"tb.den\":12800,\"qv\":\"AAABsAE=\"}\n"
            "{\"type\":\"audio\",\"index\":1,\"codec\":\"aac\",\"format\":\"fltp\",\"channels\":2,\"frame_size\":1024,"
            "\"sample_rate\":48000,\"tb.num\":1,\"tb.den\":48000,\"qv\":\"EZA=\"}\n");
}

TEST_F(SnapshotTest, MissingExtradataIsAnEmptyText) {
  IndexedOutput output("mp4", movie());
  output.add_video();
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  EXPECT_EQ(IndexReader::of_file(index()).streams.at(0).at("qv"), "");
}

TEST_F(SnapshotTest, StreamOfAnotherTypeRepeatsTheLineBefore) {
  IndexedOutput output("matroska", movie("a.mkv"));
  output.add_video();
  output.add(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_SUBRIP, {1, 1000});
  output.add_audio();
  output.add(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_SUBRIP, {1, 1000});
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  const IndexReader reader = IndexReader::of_file(index());
  ASSERT_EQ(reader.stream_lines.size(), 4U);
  EXPECT_EQ(reader.stream_lines[1], reader.stream_lines[0]);
  EXPECT_EQ(reader.stream_lines[3], reader.stream_lines[2]);
  EXPECT_EQ(reader.audio_index, 2);
}

TEST_F(SnapshotTest, StreamOfAnotherTypeInFrontIsAnEmptyLine) {
  IndexedOutput output("matroska", movie("a.mkv"));
  output.add(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_SUBRIP, {1, 1000});
  output.add_video();
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  const IndexReader reader = IndexReader::of_file(index());
  ASSERT_EQ(reader.stream_lines.size(), 2U);
  EXPECT_EQ(reader.stream_lines[0], "");
  EXPECT_EQ(reader.streams.at(0).at("index"), 1);
}

TEST_F(SnapshotTest, AudioPacketsAreThoseOfTheAudioStream) {
  IndexedOutput output("mp4", movie());
  output.add_video();
  output.add_audio();
  ASSERT_TRUE(output.index_to(index()));
  AVPacket packet;
  meru_compat::init_packet(&packet);
  packet.stream_index = 1;
  EXPECT_FALSE(output.snapshot()->is_audio_packet(&packet));  // the streams are only known with the header
  ASSERT_GE(output.write_header(), 0);
  EXPECT_TRUE(output.snapshot()->is_audio_packet(&packet));
  packet.stream_index = 0;
  EXPECT_FALSE(output.snapshot()->is_audio_packet(&packet));
  EXPECT_FALSE(output.snapshot()->is_audio_packet(nullptr));
}

TEST_F(SnapshotTest, PacketsAfterTheDeletionPassAndAreNotRecorded) {
  IndexedOutput output("mp4", movie());
  output.add_video();
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  for (int i = 0; i < 3; ++i) ASSERT_GE(output.write(0, i * 512, i * 512, 512, true, 100, 7), 0);
  output.drop_snapshot();
  const std::string before = read_file(index());
  for (int i = 3; i < 6; ++i) ASSERT_GE(output.write(0, i * 512, i * 512, 512, true, 100, 9), 0);
  ASSERT_GE(output.write_trailer(), 0);
  EXPECT_EQ(read_file(index()), before);
  EXPECT_EQ(IndexReader::of_file(index()).records.size(), 2U);
  std::string payload;
  for (int i = 0; i < 100; ++i) payload += static_cast<char>(9 + i);
  EXPECT_NE(read_file(movie()).find(payload + payload + payload), std::string::npos);
}

TEST_F(SnapshotTest, DeletionBeforeTheHeaderLeavesThePlainMuxer) {
  IndexedOutput output("mp4", movie());
  output.add_video();
  ASSERT_TRUE(output.index_to(index()));
  output.drop_snapshot();
  ASSERT_GE(output.write_header(), 0);
  ASSERT_GE(output.write(0, 0, 0, 512, true), 0);
  ASSERT_GE(output.write_trailer(), 0);
  EXPECT_EQ(read_file(index()), "");
}

TEST_F(SnapshotTest, RequestToFlushIsNotRecorded) {
  IndexedOutput output("flv", movie("a.flv"));
  output.add_video(AV_CODEC_ID_FLV1);
  ASSERT_TRUE(output.index_to(index()));
  ASSERT_GE(output.write_header(), 0);
  ASSERT_GE(output.write(0, 0, 0, 40, true), 0);
  ASSERT_GE(av_write_frame(output.context(), nullptr), 0);
  ASSERT_GE(output.write(0, 40, 40, 40, true), 0);
  ASSERT_GE(output.write_trailer(), 0);
  output.drop_snapshot();
  EXPECT_EQ(IndexReader::of_file(index()).records.size(), 1U);
}

TEST(GlobalSnapshotsTest, KnowsTheLiveOnes) {
  GlobalSnapshots& all = GlobalSnapshots::instance();
  // The optional's storage outlives what is in it, so that the address stays one to ask for.
  std::optional<Snapshot> first(std::in_place);
  const Snapshot* const gone = &*first;
  {
    const Snapshot second;
    EXPECT_TRUE(all.have(gone));
    EXPECT_TRUE(all.have(&second));
  }
  first.reset();
  EXPECT_FALSE(all.have(gone));
  EXPECT_FALSE(all.have(nullptr));
}

}  // namespace

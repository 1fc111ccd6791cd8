// What the side index says of the packets, text by text.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/eventually.h"
#include "support/index_reader.h"
#include "support/indexed_output.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using meru_test::IndexedOutput;
using meru_test::IndexReader;
using meru_test::read_file;

class SnapshotRecords : public testing::Test {
 protected:
  std::unique_ptr<IndexedOutput> open(const char* format, bool video = true, bool audio = true) {
    auto output = std::make_unique<IndexedOutput>(format, m_dir.file("movie"));
    if (video) output->add_video(std::string(format) == "flv" ? AV_CODEC_ID_FLV1 : AV_CODEC_ID_MPEG4);
    if (audio) output->add_audio();
    if (!output->index_to(m_dir.file("index"))) throw std::runtime_error("not indexed");
    if (output->write_header() < 0) throw std::runtime_error("no header");
    return output;
  }
  IndexReader close(IndexedOutput* output) {
    EXPECT_GE(output->write_trailer(), 0);
    output->drop_snapshot();
    return IndexReader::of_file(m_dir.file("index"));
  }

  meru_test::TempDir m_dir;
};

std::vector<std::string> texts(const IndexReader& reader) {
  std::vector<std::string> out;
  for (const auto& record : reader.records) out.push_back(record.text);
  return out;
}

TEST_F(SnapshotRecords, OnePacketLeavesAnEmptyBody) {
  const auto output = open("mp4");
  output->write(0, 0, 0, 512, true);
  const IndexReader reader = close(output.get());
  EXPECT_EQ(reader.version, 2);
  EXPECT_EQ(reader.streams.size(), 2U);
  EXPECT_EQ(reader.body(), "");
}

TEST_F(SnapshotRecords, OnlyTheFirstRecordCarriesItsPosition) {
  const auto output = open("mp4", true, false);
  const int64_t begin = avio_tell(output->context()->pb);
  for (int i = 0; i < 4; ++i) output->write(0, i * 512, i * 512, 512, i == 0, 1234);
  const IndexReader reader = close(output.get());
  EXPECT_EQ(texts(reader), (std::vector<std::string>{"," + std::to_string(begin) + ",1234,,,512,1;",
                                                     ",,1234,512,,512,;", ",,1234,512,,512,;"}));
}

TEST_F(SnapshotRecords, AllZeroButTheSizeIsSeparatorsAroundIt) {
  const auto output = std::make_unique<IndexedOutput>("flv", m_dir.file("movie"));
  output->add_video(AV_CODEC_ID_FLV1)->avg_frame_rate = {0, 1};  // FFmpeg would make a duration of it
  ASSERT_TRUE(output->index_to(m_dir.file("index")));
  ASSERT_GE(output->write_header(), 0);
  for (int i = 0; i < 3; ++i) output->write(0, 0, 0, 0, false, 100);
  const IndexReader reader = close(output.get());
  ASSERT_EQ(reader.records.size(), 2U);
  EXPECT_EQ(reader.records[1].text, ",,116,,,,;");  // the container adds 16 bytes to each packet
}

TEST_F(SnapshotRecords, UsualDurationIsLeftOutWhenSoundFollows) {
  const auto output = open("mp4");
  output->write(1, 0, 0, 1024, true);
  output->write(1, 1024, 1024, 1024, true);
  output->write(0, 0, 0, 512, true);
  output->write(1, 2048, 2048, 1024, true);
  output->write(1, 3072, 3072, 700, true);
  output->write(1, 4096, 4096, 1024, true);
  const IndexReader reader = close(output.get());
  ASSERT_EQ(reader.records.size(), 5U);
  EXPECT_EQ(reader.records[0].duration, 0);     // 1024 before sound
  EXPECT_EQ(reader.records[1].duration, 1024);  // 1024 before an image
  EXPECT_EQ(reader.records[2].duration, 512);   // an image before sound
  EXPECT_EQ(reader.records[3].duration, 0);
  EXPECT_EQ(reader.records[4].duration, 700);
}

TEST_F(SnapshotRecords, ImageAsLongAsTheSoundsFrameLosesItsDurationBeforeSound) {
  const auto output = open("mp4");
  output->write(0, 0, 0, 1024, true);
  output->write(1, 0, 0, 1024, true);
  output->write(0, 1024, 1024, 1024, true);
  const IndexReader reader = close(output.get());
  ASSERT_EQ(reader.records.size(), 2U);
  EXPECT_EQ(reader.records[0].duration, 0);
  EXPECT_EQ(reader.records[1].duration, 1024);
}

TEST_F(SnapshotRecords, DecodingStampIsWrittenOnlyWhenItsDeltaDiffers) {
  const auto output = open("mp4", true, false);
  const int64_t pts[] = {512, 2048, 1024, 1536, 2560, 3072};
  const int64_t dts[] = {0, 512, 1024, 1536, 2048, 2560};
  for (int i = 0; i < 6; ++i) output->write(0, pts[i], dts[i], 512, i == 0);
  const IndexReader reader = close(output.get());
  ASSERT_EQ(reader.records.size(), 5U);
  std::vector<std::pair<int64_t, int64_t>> deltas;
  for (const auto& record : reader.records) deltas.emplace_back(record.pts_delta, record.dts_delta);
  // The first decoding stamp of 0 is a delta of 0, and so cannot be told from one that is left out.
  EXPECT_EQ(deltas,
            (std::vector<std::pair<int64_t, int64_t>>{{512, 0}, {1536, 512}, {-1024, 512}, {512, 0}, {1024, 512}}));
}

TEST_F(SnapshotRecords, NegativeStampsKeepTheirSign) {
  const auto output = open("mp4", false, true);
  output->write(0, -1024, -1024, 1024, true);
  output->write(0, 0, 0, 1024, true);
  output->write(0, 1024, 1024, 1024, true);
  const auto packets = close(output.get()).packets();
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(packets[0].pts, -1024);
  EXPECT_EQ(packets[1].pts, 0);
}

TEST_F(SnapshotRecords, LastOfSeveralAudioStreamsIsTheAudioKind) {
  const auto output = std::make_unique<IndexedOutput>("mp4", m_dir.file("movie"));
  output->add_audio();
  output->add_audio();
  ASSERT_TRUE(output->index_to(m_dir.file("index")));
  ASSERT_GE(output->write_header(), 0);
  for (int i = 0; i < 3; ++i) {
    output->write(0, i * 1024, i * 1024, 1024, true);
    output->write(1, 48000 + i * 1024, 48000 + i * 1024, 1024, true);
  }
  const IndexReader reader = close(output.get());
  EXPECT_EQ(reader.audio_index, 1);
  std::vector<int64_t> deltas;
  for (const auto& record : reader.records) deltas.push_back(record.pts_delta);
  EXPECT_EQ(deltas, (std::vector<int64_t>{0, 48000, 1024, 1024, 1024}));
  // The first audio stream is of the other kind, so its usual duration is written before the second's frame only.
  EXPECT_EQ(reader.records[1].duration, 1024);
  EXPECT_EQ(reader.records[0].duration, 0);
}

TEST_F(SnapshotRecords, LinesHoldWholeRecordsAndTheLastHasNoLineFeed) {
  const auto output = open("mp4");
  for (int i = 0; i < 400; ++i) {
    output->write(0, i * 512, i * 512, 512, i % 10 == 0, 50 + i);
    output->write(1, i * 1024, i * 1024, 1024, true, 30 + i);
  }
  const IndexReader reader = close(output.get());
  ASSERT_GT(reader.body_lines.size(), 3U);
  EXPECT_EQ(reader.records.size(), 799U);
  EXPECT_FALSE(reader.ends_with_line_feed);
  for (size_t i = 0; i < reader.body_lines.size(); ++i) {
    const std::string& line = reader.body_lines[i];
    const size_t last_record = line.size() - (line.rfind(';', line.size() - 2) + 1);
    EXPECT_LE(line.size() - last_record, 960U) << "line " << i;  // no more than one record beyond
    EXPECT_EQ(line.size() > 960, i + 1 < reader.body_lines.size()) << "line " << i;
  }
}

TEST_F(SnapshotRecords, RecordsLeadToThePacketsBytes) {
  const auto output = open("mp4");
  for (int i = 0; i < 60; ++i) {
    output->write(0, i * 512, i * 512, 512, true, 20 + i, static_cast<uint8_t>(i));
    output->write(1, i * 1024, i * 1024, 1024, true, 15 + i, static_cast<uint8_t>(100 + i));
  }
  const auto packets = close(output.get()).packets();
  const std::string movie = read_file(m_dir.file("movie"));
  ASSERT_EQ(packets.size(), 119U);
  for (size_t i = 0; i < packets.size(); ++i) {
    const size_t n = i / 2;
    ASSERT_EQ(packets[i].size, static_cast<int64_t>((i % 2 == 0 ? 20 : 15) + n)) << i;
    for (int64_t k = 0; k < packets[i].size; ++k) {
      const auto expected = static_cast<uint8_t>((i % 2 == 0 ? n : 100 + n) + static_cast<size_t>(k));
      ASSERT_EQ(static_cast<uint8_t>(movie.at(static_cast<size_t>(packets[i].pos + k))), expected) << i << " " << k;
    }
  }
}

TEST_F(SnapshotRecords, TwoContainersAtOnceReachTheirOwnMuxers) {
  IndexedOutput mp4("mp4", m_dir.file("a.mp4"));
  IndexedOutput flv("flv", m_dir.file("a.flv"));
  mp4.add_video();
  flv.add_video(AV_CODEC_ID_FLV1);
  ASSERT_TRUE(mp4.index_to(m_dir.file("mp4.idx")));
  ASSERT_TRUE(flv.index_to(m_dir.file("flv.idx")));
  ASSERT_GE(mp4.write_header(), 0);
  ASSERT_GE(flv.write_header(), 0);
  for (int i = 0; i < 5; ++i) {
    ASSERT_GE(mp4.write(0, i * 512, i * 512, 512, true, 100), 0);
    ASSERT_GE(flv.write(0, i * 40, i * 40, 40, true, 100), 0);
  }
  ASSERT_GE(mp4.write_trailer(), 0);
  ASSERT_GE(flv.write_trailer(), 0);
  mp4.drop_snapshot();
  flv.drop_snapshot();
  const IndexReader in_mp4 = IndexReader::of_file(m_dir.file("mp4.idx"));
  const IndexReader in_flv = IndexReader::of_file(m_dir.file("flv.idx"));
  ASSERT_EQ(in_mp4.records.size(), 4U);
  ASSERT_EQ(in_flv.records.size(), 4U);
  for (const auto& record : in_mp4.records) EXPECT_EQ(record.size, 100);
  for (const auto& record : in_flv.records) EXPECT_EQ(record.size, 116);
  EXPECT_EQ(read_file(m_dir.file("a.mp4")).substr(4, 4), "ftyp");
  EXPECT_EQ(read_file(m_dir.file("a.flv")).substr(0, 3), "FLV");
}

TEST_F(SnapshotRecords, TwoOutputsOfOneContainerKeepTheirOwnIndexes) {
  IndexedOutput one("mp4", m_dir.file("a.mp4"));
  IndexedOutput two("mp4", m_dir.file("b.mp4"));
  one.add_video();
  two.add_video();
  ASSERT_TRUE(one.index_to(m_dir.file("a.idx")));
  ASSERT_TRUE(two.index_to(m_dir.file("b.idx")));
  ASSERT_GE(one.write_header(), 0);
  ASSERT_GE(two.write_header(), 0);
  for (int i = 0; i < 4; ++i) {
    ASSERT_GE(one.write(0, i * 512, i * 512, 512, true, 100), 0);
    ASSERT_GE(two.write(0, i * 1024, i * 1024, 1024, true, 200), 0);
  }
  one.drop_snapshot();
  two.drop_snapshot();
  for (const auto& record : IndexReader::of_file(m_dir.file("a.idx")).records) EXPECT_EQ(record.size, 100);
  for (const auto& record : IndexReader::of_file(m_dir.file("b.idx")).records) EXPECT_EQ(record.size, 200);
}

TEST_F(SnapshotRecords, IndexThatCannotBeWrittenEndsThereAndTheMovieGoesOn) {
  IndexedOutput output("mp4", m_dir.file("movie"));
  output.add_video(AV_CODEC_ID_MPEG4);
  std::filesystem::create_symlink("/dev/full", m_dir.file("index"));
  ASSERT_TRUE(output.index_to(m_dir.file("index")));
  meru_test::LogCapture log;
  ASSERT_GE(output.write_header(), 0);
  for (int i = 0; i < 200; ++i) ASSERT_GE(output.write(0, i * 512, i * 512, 512, true, 100), 0);
  EXPECT_GE(output.write_trailer(), 0);
  EXPECT_EQ(log.count(2, "the side index cannot be written any more"), 1);
  EXPECT_GT(read_file(m_dir.file("movie")).size(), 200U * 100U);
}

TEST_F(SnapshotRecords, FlushByTheClockLeavesTheFinishedFileAsItWouldBe) {
  const auto output = open("mp4", true, false);
  const std::string header = read_file(m_dir.file("index"));
  std::vector<std::string> seen;  // what lay on the disk, each time that it had grown
  int count = 0;
  const auto push = [&count](IndexedOutput* to) {
    const int i = count++;
    return to->write(0, i, i, 1, i % 7 == 0, 60 + i % 9);  // by the time stamps nothing is due
  };
  // A packet every millisecond or so, until the index has reached the disk in the middle of a line.
  ASSERT_TRUE(meru_test::eventually([&] {
    EXPECT_GE(push(output.get()), 0);
    const std::string now = read_file(m_dir.file("index"));
    if (now != (seen.empty() ? header : seen.back())) seen.push_back(now);
    return !seen.empty() && seen.back().back() == ';';
  }));
  // Every record that is on the disk names bytes that are in the movie by then.
  const auto flushed = IndexReader(seen.back()).packets();
  ASSERT_FALSE(flushed.empty());
  EXPECT_GE(read_file(m_dir.file("movie")).size(), static_cast<size_t>(flushed.back().pos + flushed.back().size));
  for (int i = 0; i < 300; ++i) ASSERT_GE(push(output.get()), 0);
  const int total = count;
  close(output.get());
  const std::string finished = read_file(m_dir.file("index"));
  for (const std::string& text : seen) EXPECT_EQ(finished.substr(0, text.size()), text);

  count = 0;
  const auto quick = open("mp4", true, false);
  while (count < total) ASSERT_GE(push(quick.get()), 0);
  close(quick.get());
  EXPECT_EQ(read_file(m_dir.file("index")), finished);
}

TEST_F(SnapshotRecords, FlushByTheTimeStampsDoesNotWaitForTheClock) {
  const auto output = open("mp4", true, false);
  const int half = output->context()->streams[0]->time_base.den / 2;
  for (int i = 0; i < 3; ++i) ASSERT_GE(output->write(0, i * half, i * half, half, true, 1000), 0);
  const IndexReader reader = IndexReader::of_file(m_dir.file("index"));
  EXPECT_EQ(reader.records.size(), 2U);
  EXPECT_FALSE(reader.ends_with_line_feed);
  EXPECT_GE(read_file(m_dir.file("movie")).size(), 2000U);
  close(output.get());
}

}  // namespace

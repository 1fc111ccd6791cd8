// The side index of a whole movie, against what a demuxer finds in that movie.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "base/MR_AVWriter.h"
#include "base/movie_muxer.h"
#include "support/index_reader.h"
#include "support/media_frames.h"
#include "support/probe.h"
#include "support/small_movie.h"
#include "support/temp_dir.h"

namespace {

using meru_test::IndexReader;

struct Demuxed {
  int64_t size, pts, dts, duration;
  bool key;
};

/// The movie's packets by stream and position.
std::map<std::pair<int, int64_t>, Demuxed> demuxed(const std::string& path) {
  const auto answer =
      meru_test::probe(path, "-show_packets -show_entries packet=pos,size,pts,dts,flags,stream_index,duration");
  std::map<std::pair<int, int64_t>, Demuxed> packets;
  for (const auto& packet : answer.at("packets")) {
    const auto number = [&packet](const char* key) { return std::stoll(packet.at(key).get<std::string>()); };
    packets[{packet.at("stream_index").get<int>(), number("pos")}] = {
        number("size"), packet.at("pts").get<int64_t>(), packet.at("dts").get<int64_t>(),
        packet.at("duration").get<int64_t>(), packet.at("flags").get<std::string>().at(0) == 'K'};
  }
  return packets;
}

class SnapshotMovie : public testing::TestWithParam<const char*> {
 protected:
  std::string movie() const { return m_dir.file(std::string("a.") + GetParam()); }

  /// Two seconds of images and sound, through the muxer and its writing thread.
  void record() {
    MovieInfo info = meru_test::small_movie(movie());
    meru_test::set_text(info.snapshot_path, m_dir.file("a.idx"));
    MovieMuxer muxer(new MR::MR_AVWriter(60, 1000, nullptr));
    muxer.start(info, nullptr, nullptr, false);
    int64_t samples = 0;
    for (int i = 0; i < 50; ++i) {
      const FramePtr picture = meru_test::make_picture(AV_PIX_FMT_YUV420P, 64, 48, i);
      picture->pts = i;
      ASSERT_EQ(muxer.write_video_frame(picture.get(), nullptr), 1);
      for (; samples < (i + 1) * 48000 / 25; samples += 1024) {
        const FramePtr sound = meru_test::make_samples(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 48000, 1024);
        sound->pts = samples;
        ASSERT_GE(muxer.write_audio_frame(sound.get(), nullptr), 0);
      }
    }
    muxer.stop();
  }

  meru_test::TempDir m_dir;
};

TEST_P(SnapshotMovie, IndexNamesEveryPacketButTheLast) {
  record();
  const auto packets = IndexReader::of_file(m_dir.file("a.idx")).packets();
  const auto found = demuxed(movie());
  ASSERT_GT(found.size(), 140U);
  ASSERT_EQ(packets.size() + 1, found.size());
  for (size_t i = 0; i < packets.size(); ++i) {
    const auto& packet = packets[i];
    const auto at = found.find({packet.stream, packet.pos});
    ASSERT_NE(at, found.end()) << "packet " << i << " of stream " << packet.stream << " at " << packet.pos;
    EXPECT_EQ(at->second.size, packet.size) << i;
    EXPECT_EQ(at->second.pts, packet.pts) << i;
    EXPECT_EQ(at->second.dts, packet.dts) << i;
    EXPECT_EQ(at->second.duration, packet.duration) << i;
    EXPECT_EQ(at->second.key, packet.key) << i;
  }
}

TEST_P(SnapshotMovie, IndexDescribesTheStreams) {
  record();
  const auto streams = IndexReader::of_file(m_dir.file("a.idx")).streams;
  const auto probed = meru_test::probe(movie(), "-show_streams").at("streams");
  ASSERT_EQ(streams.size(), 2U);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(streams[i].at("type"), probed[i].at("codec_type"));
    EXPECT_EQ(streams[i].at("codec"), probed[i].at("codec_name"));
    EXPECT_EQ(
        std::to_string(streams[i].at("tb.num").get<int>()) + "/" + std::to_string(streams[i].at("tb.den").get<int>()),
        probed[i].at("time_base"));
    EXPECT_NE(streams[i].at("qv"), "");
  }
  EXPECT_EQ(streams[0].at("w"), probed[0].at("width"));
  EXPECT_EQ(streams[0].at("h"), probed[0].at("height"));
  EXPECT_EQ(streams[0].at("format"), probed[0].at("pix_fmt"));
  EXPECT_EQ(streams[1].at("channels"), probed[1].at("channels"));
  EXPECT_EQ(streams[1].at("format"), probed[1].at("sample_fmt"));
  EXPECT_EQ(std::to_string(streams[1].at("sample_rate").get<int>()), probed[1].at("sample_rate"));
}

INSTANTIATE_TEST_SUITE_P(Containers, SnapshotMovie, testing::Values("mp4", "mov"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace

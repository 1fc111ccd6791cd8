// Video with B-frames, whose frames are decoded in another order than they are shown.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <map>
#include <tuple>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/raw_checks.h"
#include "support/reordered_video.h"

namespace meru_test {
namespace {

struct Encoding {
  const char* name;
  const char* x264;
};
void PrintTo(const Encoding& e, std::ostream* out) { *out << e.name; }

const Encoding kEncodings[] = {{"None", "bframes=0"},
                               {"One", "bframes=1"},
                               {"Two", "bframes=2:b-pyramid=none"},
                               {"ThreeInAPyramid", "bframes=3:b-pyramid=normal"},
                               {"StrictPyramid", "bframes=3:b-pyramid=strict"},
                               {"Eight", "bframes=8:b-pyramid=normal"},
                               {"OpenGroups", "bframes=3:b-pyramid=normal:open-gop=1"},
                               {"SeveralSlices", "bframes=2:slices=3"}};

class BFramesTest : public testing::TestWithParam<std::tuple<const char*, Encoding>> {
 protected:
  /// Encoded once for all containers.
  static const ReorderedVideo& video_of(const Encoding& encoding) {
    static const TempDir dir;
    static std::map<std::string, ReorderedVideo> videos;
    const auto [entry, fresh] = videos.try_emplace(encoding.name);
    if (fresh) entry->second = make_reordered_video(dir, encoding.x264, 60, "null", encoding.name);
    return entry->second;
  }

  /// Every frame is there, at its time, and decodes to what the source decodes to. Containers begin at 0, or at a time
  /// of their own.
  void expect_movie(const std::string& path) {
    const auto found = probe_packets(path, "v:0");
    ASSERT_EQ(found.size(), m_video.packets.size());
    const bool keeps_dts = std::get<0>(GetParam()) != std::string("mkv");
    const double shift = found[0].pts - static_cast<double>(m_video.packets[0].pts) / 1e6;
    for (size_t i = 0; i < found.size(); ++i) {
      EXPECT_NEAR(found[i].pts - shift, static_cast<double>(m_video.packets[i].pts) / 1e6, 0.0011) << "packet " << i;
      if (!keeps_dts) continue;
      EXPECT_NEAR(found[i].dts - shift, static_cast<double>(m_video.packets[i].dts) / 1e6, 0.0011) << "packet " << i;
    }
    EXPECT_EQ(decode_errors(path), "");
    EXPECT_EQ(decoded(path, "-map 0:v " + every_picture() + " -f md5"),
              decoded(m_video.path, "-map 0:v " + every_picture() + " -f md5"));
  }
  std::string movie() const { return m_dir.file(std::string("movie.") + std::get<0>(GetParam())); }

  TempDir m_dir;
  const ReorderedVideo& m_video = video_of(std::get<1>(GetParam()));
};

TEST_P(BFramesTest, RisingTimestampsAreThoseOfDecoding) {
  PacketHost host(raw_movie(movie(), true, false));
  for (const TimedPacket& packet : m_video.packets) host.push_video({packet.data, packet.dts});
  host.stop();
  expect_success(host.status());
  expect_movie(movie());
}

TEST_P(BFramesTest, BothTimestampsAreKept) {
  PacketHost host(raw_movie(movie(), true, false));
  for (const TimedPacket& packet : m_video.packets) EXPECT_TRUE(push_timed(host.session(), packet));
  host.stop();
  expect_success(host.status());
  expect_movie(movie());
}

INSTANTIATE_TEST_SUITE_P(All, BFramesTest,
                         testing::Combine(testing::Values("mp4", "mkv", "flv", "ts"), testing::ValuesIn(kEncodings)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
                         });

class FallingTest : public testing::TestWithParam<Encoding> {};

/// While it is pushed: the host need not end the session to be told.
TEST_P(FallingTest, TimestampsAreRefusedAtOnce) {
  const TempDir dir;
  const ReorderedVideo video = make_reordered_video(dir, GetParam().x264, 20);
  PacketHost host(raw_movie(dir.file("movie.mp4"), true, false));
  for (const TimedPacket& packet : video.packets) host.push_video({packet.data, packet.pts});
  ASSERT_TRUE(eventually([&] { return host.status().entries().size() == 2; }));
  const auto entry = host.status().entries()[1];
  EXPECT_EQ(entry.code, -EINVAL);
  EXPECT_NE(entry.text.find("MERU2_write_video_packet_ts"), std::string::npos) << entry.text;
  EXPECT_TRUE(host.push_video({video.packets[0].data, 1000000}));
  host.stop();
  EXPECT_EQ(host.status().entries().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(All, FallingTest, testing::ValuesIn(std::begin(kEncodings) + 1, std::end(kEncodings)),
                         CaseName());

class TimedTest : public testing::Test {
 protected:
  size_t recorded(const std::vector<TimedPacket>& packets, const char* name = "movie.mkv") {
    PacketHost host(raw_movie(m_dir.file(name), true, false));
    for (const TimedPacket& packet : packets) push_timed(host.session(), packet);
    host.stop();
    expect_success(host.status());
    return probe_packets(m_dir.file(name), "v:0").size();
  }
  TempDir m_dir;
  std::vector<TimedPacket> m_packets = make_reordered_video(m_dir, "bframes=2").packets;
};

TEST_F(TimedTest, ClockThatGoesBackDropsWhatIsLate) {
  for (size_t i = 30; i < m_packets.size(); ++i) m_packets[i].dts -= 400000, m_packets[i].pts -= 400000;
  EXPECT_EQ(recorded(m_packets), m_packets.size() - 10);
}

TEST_F(TimedTest, PresentationBeforeDecodingIsRaised) {
  for (TimedPacket& packet : m_packets) packet.pts = packet.dts - 1000000;
  for (const char* name : {"movie.mp4", "movie.mkv", "movie.flv"})
    EXPECT_EQ(recorded(m_packets, name), m_packets.size());
}

TEST_F(TimedTest, ExtremeTimestampsDoNoHarm) {
  constexpr long long kTimes[] = {INT64_MIN, INT64_MAX, 0, -1, INT64_MIN + 1, INT64_MAX - 1};
  for (const char* name : {"movie.mp4", "movie.mkv", "movie.flv", "movie.ts"}) {
    PacketHost host(raw_movie(m_dir.file(name), true, false));
    for (size_t i = 0; i < m_packets.size(); ++i) {
      push_timed(host.session(), {m_packets[i].data, kTimes[i % 6], kTimes[i / 6 % 6]});
    }
    host.stop();
  }
}

TEST_F(TimedTest, NothingIsPushedWithoutASessionOrBytes) {
  char data[] = "data";
  EXPECT_FALSE(MERU2_write_video_packet_ts(nullptr, data, 4, 0, 0));
  PacketHost host(raw_movie(m_dir.file("movie.mkv"), true, false));
  EXPECT_TRUE(MERU2_write_video_packet_ts(host.session(), nullptr, 1000, 0, 0));
  EXPECT_TRUE(MERU2_write_video_packet_ts(host.session(), data, 0, 0, 0));
  EXPECT_TRUE(MERU2_write_video_packet_ts(host.session(), data, INT32_MIN, 0, 0));
  for (const TimedPacket& packet : m_packets) push_timed(host.session(), packet);
  host.stop();
  EXPECT_EQ(probe_packets(m_dir.file("movie.mkv"), "v:0").size(), m_packets.size());
}

TEST_F(TimedTest, VideoThatIsNotAnnouncedIsDropped) {
  PacketHost host(raw_movie(m_dir.file("movie.mkv"), false, true));
  for (const TimedPacket& packet : m_packets) EXPECT_TRUE(push_timed(host.session(), packet));
  host.push({}, make_audio(m_dir).packets);
  host.stop();
  expect_success(host.status());
}

/// Both functions in one session of a stream that reorders: what rises is recorded.
TEST_F(TimedTest, MixedWithPushesOfOneTimestampAllIsRecorded) {
  for (const bool timed_first : {true, false}) {
    PacketHost host(raw_movie(m_dir.file("movie.mkv"), true, false));
    for (size_t i = 0; i < m_packets.size(); ++i) {
      if ((i < 30) == timed_first) {
        push_timed(host.session(), m_packets[i]);
      } else {
        host.push_video({m_packets[i].data, m_packets[i].dts});
      }
    }
    host.stop();
    expect_success(host.status());
    EXPECT_EQ(probe_packets(m_dir.file("movie.mkv"), "v:0").size(), m_packets.size());
  }
}

/// Two fields are one frame and one packet.
TEST(InterlacedTest, BothFieldsStayOnePacket) {
  const TempDir dir;
  const ReorderedVideo video = make_reordered_video(dir, "bframes=2:tff=1", 40, "interlace");
  PacketHost host(raw_movie(dir.file("movie.mp4"), true, false));
  for (const TimedPacket& packet : video.packets) push_timed(host.session(), packet);
  host.stop();
  EXPECT_EQ(probe_packets(dir.file("movie.mp4"), "v:0").size(), video.packets.size());
  EXPECT_EQ(decode_errors(dir.file("movie.mp4")), "");
}

}  // namespace
}  // namespace meru_test

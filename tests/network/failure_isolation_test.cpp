// A live output that fails costs that output alone: the file, the other outputs and the host go on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/case_name.h"
#include "support/endless_host.h"
#include "support/failing_server.h"
#include "support/overheard.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

struct FailureCase {
  const char* name;
  bool packets;  ///< a session of packets instead of images
  const char* container;
  const char* scheme;
  Trouble trouble;

  /// Images with sound in a Matroska file get Vorbis, which RTMP does not carry.
};
void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

/// The system's and FFmpeg's texts that may tell of it: how a lost connection shows depends on what was on its way.
std::vector<std::string> reasons(const FailureCase& c) {
  switch (c.trouble) {
    case Trouble::kRefused:
      return {"Connection refused"};
    case Trouble::kRejected:
      return {"Input/output error", "Server returned 403 Forbidden (access denied)"};
    default:
      return {"Broken pipe", "Connection reset by peer"};
  }
}

std::unique_ptr<EndlessHost> start(const TempDir& dir, const Outputs& outputs, bool packets) {
  if (packets) return std::make_unique<PackedHost>(dir, outputs);
  return std::make_unique<ImageHost>(outputs);
}

/// The payload of every packet of a stream ("v:0", "a:0"), in order.
std::vector<std::string> payloads(const std::string& path, const std::string& stream) {
  std::vector<std::string> hashes;
  for (const ProbedPacket& packet : probe_packets(path, stream)) hashes.push_back(packet.hash);
  return hashes;
}

/// Every picture is there and decodes, and so does the sound.
void expect_complete(const std::string& path, int pictures) {
  SCOPED_TRACE(path);
  EXPECT_EQ(count_frames(path), pictures);
  EXPECT_EQ(decode_errors(path), "");
  EXPECT_FALSE(payloads(path, "a:0").empty());
}

/// Only the trailer tells how long a file is.
void expect_trailer(const std::string& path) {
  const nlohmann::json answer = probe(path, "-show_format");
  EXPECT_GT(number(answer.at("format"), "duration"), 0) << path;
}

class FailureIsolationTest : public testing::TestWithParam<FailureCase> {
 protected:
  const TempDir m_dir;
};

TEST_P(FailureIsolationTest, CostsThatOutputAlone) {
  const FailureCase& c = GetParam();
  FailingServer failing(m_dir, c.trouble, c.scheme);
  RtmpServer healthy(m_dir.path());
  const Outputs outputs{m_dir.file(std::string("main.") + c.container),
                        {failing.url(), healthy.url("healthy-k3y"), m_dir.file("copy.mkv")}};
  const std::string address = public_address(failing.url());

  Overheard heard;
  const auto host = start(m_dir, outputs, c.packets);
  const auto has_failed = [&] { return !heard.failures(1, address).empty(); };
  ASSERT_TRUE(host->status().wait_for_code(0));
  host->push(25);
  if (failing.strikes()) {
    ASSERT_TRUE(host->push_until([&] { return failing.has_stream(); })) << heard.printed();
    failing.strike();
  }
  ASSERT_TRUE(host->push_until(has_failed)) << heard.printed();
  const int before = host->taken();
  host->push(25);
  EXPECT_EQ(host->taken() - before, 25);
  host->stop();

  const auto failures = heard.failures(1, address);
  ASSERT_EQ(failures.size(), 1U);
  EXPECT_EQ(heard.failure_lines(), 1);
  EXPECT_THAT(reasons(c), testing::Contains(failures[0]));
  heard.expect_no(FailingServer::kKey);
  heard.expect_no("healthy-k3y");
  const auto told = host->status().entries();
  ASSERT_EQ(told.size(), 1U) << "the host is told of the main output alone";

  ASSERT_TRUE(healthy.has_recorded("healthy-k3y"));
  const std::string streamed = healthy.recorded("healthy-k3y");
  for (const std::string& path : {outputs.main, streamed, outputs.others[2]}) expect_complete(path, host->taken());
  for (const std::string& path : {streamed, outputs.others[2]}) {
    for (const char* stream : {"v:0", "a:0"}) EXPECT_EQ(payloads(path, stream), payloads(outputs.main, stream)) << path;
  }
  expect_trailer(outputs.main);
  expect_trailer(outputs.others[2]);
}

INSTANTIATE_TEST_SUITE_P(Images, FailureIsolationTest,
                         testing::Values(FailureCase{"Mp4RtmpRefused", false, "mp4", "rtmp", Trouble::kRefused},
                                         FailureCase{"Mp4RtmpRejected", false, "mp4", "rtmp", Trouble::kRejected},
                                         FailureCase{"Mp4RtmpKilled", false, "mp4", "rtmp", Trouble::kKilled},
                                         FailureCase{"Mp4RtmpReset", false, "mp4", "rtmp", Trouble::kReset},
                                         FailureCase{"Mp4RtspRefused", false, "mp4", "rtsp", Trouble::kRefused},
                                         FailureCase{"Mp4RtspRejected", false, "mp4", "rtsp", Trouble::kRejected},
                                         FailureCase{"Mp4RtspKilled", false, "mp4", "rtsp", Trouble::kKilled},
                                         FailureCase{"Mp4RtspReset", false, "mp4", "rtsp", Trouble::kReset},
                                         FailureCase{"MkvRtmpRefused", false, "mkv", "rtmp", Trouble::kRefused},
                                         FailureCase{"MkvRtmpRejected", false, "mkv", "rtmp", Trouble::kRejected},
                                         FailureCase{"MkvRtmpKilled", false, "mkv", "rtmp", Trouble::kKilled},
                                         FailureCase{"MkvRtmpReset", false, "mkv", "rtmp", Trouble::kReset},
                                         FailureCase{"MkvRtspRefused", false, "mkv", "rtsp", Trouble::kRefused},
                                         FailureCase{"MkvRtspRejected", false, "mkv", "rtsp", Trouble::kRejected},
                                         FailureCase{"MkvRtspKilled", false, "mkv", "rtsp", Trouble::kKilled},
                                         FailureCase{"MkvRtspReset", false, "mkv", "rtsp", Trouble::kReset}),
                         CaseName());

INSTANTIATE_TEST_SUITE_P(Packets, FailureIsolationTest,
                         testing::Values(FailureCase{"Mp4RtmpRefused", true, "mp4", "rtmp", Trouble::kRefused},
                                         FailureCase{"Mp4RtmpRejected", true, "mp4", "rtmp", Trouble::kRejected},
                                         FailureCase{"Mp4RtmpKilled", true, "mp4", "rtmp", Trouble::kKilled},
                                         FailureCase{"Mp4RtmpReset", true, "mp4", "rtmp", Trouble::kReset},
                                         FailureCase{"Mp4RtspRefused", true, "mp4", "rtsp", Trouble::kRefused},
                                         FailureCase{"Mp4RtspRejected", true, "mp4", "rtsp", Trouble::kRejected},
                                         FailureCase{"MkvRtspKilled", true, "mkv", "rtsp", Trouble::kKilled},
                                         FailureCase{"MkvRtspReset", true, "mkv", "rtsp", Trouble::kReset}),
                         CaseName());

}  // namespace
}  // namespace meru_test

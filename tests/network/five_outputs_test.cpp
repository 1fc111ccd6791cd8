// One recording that goes to files and live servers at once.

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/case_name.h"
#include "support/host.h"
#include "support/live_checks.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kImages = 100;
constexpr long long kBegin = 5 * kUsecPerSec;

struct MainFileCase {
  const char* name;
  const char* extension;
  bool no_audio;
};
void PrintTo(const MainFileCase& c, std::ostream* out) { *out << c.name; }

class FiveOutputsTest : public testing::TestWithParam<MainFileCase> {
 protected:
  /// Records the scene to this address and to the others.
  void record(MovieInfo info, const std::vector<std::string>& others) {
    for (size_t i = 0; i < others.size(); ++i) info.other_urls[i] = others.at(i).c_str();
    Host host(info);
    ASSERT_TRUE(host.started());
    EXPECT_EQ(host.push_scene(kImages, kBegin), kImages);
    host.stop();
    expect_only_started(host.status());
  }
  static void expect_same_images(const std::string& path, const std::string& main) {
    SCOPED_TRACE(path);
    EXPECT_EQ(decode_errors(path), "");
    expect_images_in_step(path, kImages, 25);
    EXPECT_EQ(frame_hashes(path, "v"), frame_hashes(main, "v"));
  }
  static void expect_same_received_images(const std::string& path, const std::string& main) {
    SCOPED_TRACE(path);
    EXPECT_EQ(received_errors(path), "");
    expect_images_in_step(path, kImages, 25, first_true_stamp());
    EXPECT_EQ(frame_hashes(path, "v"), frame_hashes(main, "v"));
  }
  static void expect_same_sound(const std::string& path, const std::string& main) {
    SCOPED_TRACE("sound of " + path);
    const auto wanted = probe_packets(main, "a:0");
    const auto found = probe_packets(path, "a:0");
    EXPECT_GT(wanted.size(), 0U);
    ASSERT_EQ(found.size(), wanted.size());
    for (size_t i = 0; i < found.size(); ++i) EXPECT_EQ(found[i].hash, wanted[i].hash) << i;
  }
  /// Images and sound lie as far apart as in the main output.
  static void expect_same_offset(const std::string& path, const std::string& main) {
    const auto lead = [](const std::string& movie) { return stamps(movie, "v:0").at(0) - stamps(movie, "a:0").at(0); };
    EXPECT_NEAR(lead(path), lead(main), 2 * kLiveRounding) << path;
  }

  const TempDir m_dir;
  RtmpServer m_server{m_dir.path()};
};

TEST_P(FiveOutputsTest, AreAllWhole) {
  const std::string main = m_dir.file(std::string("main.") + GetParam().extension);
  const std::string mkv = m_dir.file("further.mkv");
  RtspReceiver receiver(m_dir.file("received.mkv"));
  MovieInfo info = small_movie(main);
  info.no_audio = GetParam().no_audio;
  record(info, {m_server.url("first"), receiver.url(), m_server.url("second"), mkv});

  ASSERT_TRUE(m_server.has_recorded("first"));
  ASSERT_TRUE(m_server.has_recorded("second"));
  ASSERT_TRUE(receiver.ended());
  const std::vector<std::string> exact = {m_server.recorded("first"), m_server.recorded("second"), mkv};
  expect_same_images(main, main);
  expect_same_received_images(receiver.recorded(), main);
  if (!info.no_audio) expect_same_sound(receiver.recorded(), main);
  for (const std::string& path : exact) {
    expect_same_images(path, main);
    if (info.no_audio) continue;
    expect_same_sound(path, main);
    expect_same_offset(path, main);
  }
}

INSTANTIATE_TEST_SUITE_P(All, FiveOutputsTest,
                         testing::Values(MainFileCase{"Mp4Main", "mp4", false}, MainFileCase{"MkvMain", "mkv", false},
                                         MainFileCase{"MkvMainWithoutSound", "mkv", true}),
                         CaseName());

class LiveMainTest : public FiveOutputsTest {};

TEST_F(LiveMainTest, RtmpWithAFurtherFile) {
  const std::string file = m_dir.file("further.mp4");
  record(small_movie(m_server.url("key")), {file});
  ASSERT_TRUE(m_server.has_recorded("key"));
  const std::string live = m_server.recorded("key");
  expect_same_images(live, live);
  expect_same_images(file, live);
  expect_same_sound(file, live);
  expect_same_offset(file, live);
}

TEST_F(LiveMainTest, RtmpWithFurtherLiveOutputs) {
  RtspReceiver receiver(m_dir.file("received.mkv"));
  RtmpServer other(m_dir.path());
  record(small_movie(m_server.url("key")), {other.url("key"), receiver.url()});
  ASSERT_TRUE(m_server.has_recorded("key"));
  ASSERT_TRUE(other.has_recorded("key"));
  ASSERT_TRUE(receiver.ended());
  const std::string live = m_server.recorded("key");
  expect_same_images(live, live);
  expect_same_images(other.recorded("key"), live);
  expect_same_received_images(receiver.recorded(), live);
  expect_same_sound(other.recorded("key"), live);
  expect_same_sound(receiver.recorded(), live);
}

}  // namespace
}  // namespace meru_test

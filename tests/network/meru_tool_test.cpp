// The command with live outputs: what its progress lines say of each, and what it makes of one that fails.

#include "support/meru_tool.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/local_listener.h"
#include "support/probe.h"
#include "support/rtmp_server.h"

namespace meru_test {
namespace {

class MeruLiveTest : public testing::Test {
 protected:
  /// "record", live: 25 images a second, a line of progress every 50 ms.
  std::unique_ptr<ToolProcess> record(const std::string& arguments) {
    return std::make_unique<ToolProcess>(
        m_folder, "--test --size 64x48 --fps 25 --realtime --progress 50 --log log.txt " + arguments);
  }
  /// The key is in no output of the command, nor in the library's own lines of its log.
  void expect_secret_kept(const ToolProcess& tool) {
    EXPECT_EQ(tool.out().find("secret"), std::string::npos) << tool.out();
    EXPECT_EQ(tool.err().find("secret"), std::string::npos) << tool.err();
    EXPECT_EQ(file_text(m_folder.file("log.txt")).find("secret"), std::string::npos);
  }
  /// How many images the last line says were recorded.
  static int told_images(const std::string& out) {
    const size_t end = out.rfind(" frames");
    const size_t begin = out.rfind("  ", end);
    return end == std::string::npos ? -1 : std::atoi(out.c_str() + begin);
  }

  ToolFolder m_folder;
  RtmpServer m_server{m_folder.path()};
  const std::string m_shown = m_server.url("***");
};

TEST_F(MeruLiveTest, LiveMovieIsShownAsLiveAndArrivesWhole) {
  const auto tool = record("--seconds 2 -o " + m_server.url("secret"));
  EXPECT_TRUE(tool->says("fps  " + m_shown + " live\n"));
  EXPECT_EQ(tool->wait(), 0);
  EXPECT_EQ(tool->err(), "");
  EXPECT_EQ(told_images(tool->out()), 50);
  ASSERT_TRUE(m_server.has_recorded("secret"));
  EXPECT_EQ(count_frames(m_server.recorded("secret")), 50);
  EXPECT_EQ(decode_errors(m_server.recorded("secret")), "");
  expect_secret_kept(*tool);
}

TEST_F(MeruLiveTest, StateOfEachOutputIsShown) {
  const auto tool = record("--seconds 30 -o m.mp4 --also " + m_server.url("secret") + " --also n.mkv");
  EXPECT_TRUE(tool->says("MiB  m.mp4 recording, " + m_shown + " live, n.mkv recording\n"));
  ASSERT_TRUE(m_server.has_publisher("secret"));
  m_server.kill();
  ASSERT_TRUE(tool->says("m.mp4 recording, " + m_shown + " failed (")) << tool->out();
  const int failed_at = told_images(tool->out());
  ASSERT_TRUE(eventually([&] { return told_images(tool->out()) > failed_at + 10; }));
  tool->send(SIGINT);
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_EQ(tool->err().rfind("meru: the further output " + m_shown + " failed: ", 0), 0U) << tool->err();
  EXPECT_EQ(line_count(tool->err()), 1);
  for (const char* name : {"m.mp4", "n.mkv"}) {
    EXPECT_EQ(count_frames(m_folder.file(name)), told_images(tool->out())) << name;
    EXPECT_EQ(decode_errors(m_folder.file(name)), "") << name;
  }
  expect_secret_kept(*tool);
}

TEST_F(MeruLiveTest, MovieWhoseServerDiesEndsWithOneLine) {
  const auto tool = record("--seconds 30 -o " + m_server.url("secret"));
  ASSERT_TRUE(m_server.has_publisher("secret"));
  ASSERT_TRUE(tool->says(" live\n"));
  m_server.kill();
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_EQ(tool->err().rfind("meru: the recording of " + m_shown + " failed: ", 0), 0U) << tool->err();
  EXPECT_EQ(line_count(tool->err()), 1);
  expect_secret_kept(*tool);
}

TEST_F(MeruLiveTest, ServerThatNeverAnswersHoldsUpTheStartForItsTimeoutAlone) {
  const SilentServer silent;
  const std::string shown = silent.url("rtmp").substr(0, silent.url("rtmp").rfind('/')) + "/***";
  const auto tool = record("--seconds 1 --timeout 2 -o m.mp4 --also " + silent.url("rtmp"));
  EXPECT_TRUE(tool->says("m.mp4 recording, " + shown + " connecting\n"));
  EXPECT_EQ(tool->wait(), 1);
  EXPECT_EQ(tool->err(), "meru: the further output " + shown + " failed: Connection timed out\n");
  EXPECT_EQ(count_frames(m_folder.file("m.mp4")), 25);
}

TEST_F(MeruLiveTest, RemuxShowsTheStatesToo) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i sine -t 2 -c:v libx264 -bf 0 -c:a aac movie.mp4");
  ToolProcess tool(m_folder, "movie.mp4 --realtime --progress 50 -o m.mkv --also " + m_server.url("secret"), -1,
                   "remux");
  EXPECT_TRUE(tool.says("m.mkv recording, " + m_shown + " live\n"));
  EXPECT_EQ(tool.wait(), 0);
  ASSERT_TRUE(m_server.has_recorded("secret"));
  EXPECT_EQ(count_frames(m_server.recorded("secret")), 50);
  expect_secret_kept(tool);
}

TEST_F(MeruLiveTest, RemuxToAServerThatRefusesKeepsTheKeyToItself) {
  m_folder.make("-f lavfi -i testsrc2=size=64x48:rate=25 -t 1 -c:v libx264 -bf 0 movie.mp4");
  m_server.kill();
  ToolProcess tool(m_folder, "movie.mp4 -o " + m_server.url("secret"), -1, "remux");
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_NE(tool.err().find("Connection refused"), std::string::npos) << tool.err();
  expect_secret_kept(tool);
}

}  // namespace
}  // namespace meru_test

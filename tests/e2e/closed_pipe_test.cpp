// An output to a pipe whose reader leaves: the output fails, the host lives on, and so do the other outputs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>

#include "support/books_check.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

/// A pipe whose reader takes a little and then leaves.
class LeavingReader {
 public:
  explicit LeavingReader(const std::string& path) : m_path(path) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    m_thread = std::thread([this] {
      const int fd = open(m_path.c_str(), O_RDONLY);
      char byte = 0;
      if (read(fd, &byte, 1) < 0) return;
      close(fd);
    });
  }
  ~LeavingReader() { m_thread.join(); }

 private:
  std::string m_path;
  std::thread m_thread;
};

/// The process must have its usual handling of the signal, which ends it.
class ClosedPipeTest : public testing::Test {
 protected:
  ClosedPipeTest() { signal(SIGPIPE, SIG_DFL); }
  TempDir m_dir;
};

TEST_F(ClosedPipeTest, AsMainOutputIsReported) {
  const LeavingReader reader(m_dir.file("pipe.ts"));
  const std::string other = m_dir.file("other.mkv");
  MovieInfo info = small_movie(m_dir.file("pipe.ts"));
  info.other_urls[0] = other.c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  int pushed = 0;
  const auto failed = [&] {
    host.push_scene(1, kUsecPerSec + pushed++ * 40000);
    for (const StatusLog::Entry& entry : host.status().entries()) {
      if (entry.code < 0) return true;
    }
    return false;
  };
  EXPECT_TRUE(eventually(failed));
  host.stop();
  EXPECT_EQ(host.status().entries().back().code, -EPIPE);
  EXPECT_EQ(video_packets(other), pushed);
  EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

TEST_F(ClosedPipeTest, AsAdditionalOutputLeavesTheMovieWhole) {
  const LeavingReader reader(m_dir.file("pipe.ts"));
  const std::string pipe = m_dir.file("pipe.ts");
  MovieInfo info = small_movie(m_dir.file("movie.mp4"));
  info.other_urls[0] = pipe.c_str();
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_EQ(host.push_scene(100, kUsecPerSec), 100);
  host.stop();
  EXPECT_EQ(host.status().entries().size(), 1U);
  EXPECT_EQ(video_packets(m_dir.file("movie.mp4")), 100);
}

// What was never flushed before meets the closed pipe in the stop, on the host's thread.
TEST_F(ClosedPipeTest, IsNoticedByTheStopWithoutASignal) {
  const LeavingReader reader(m_dir.file("pipe.flv"));
  Host host(small_movie(m_dir.file("pipe.flv")));
  ASSERT_TRUE(host.started());
  host.push_scene(2, kUsecPerSec);
  host.stop();
}

TEST_F(ClosedPipeTest, OfPacketsIsReported) {
  const RawVideo video = make_video(m_dir);
  const LeavingReader reader(m_dir.file("pipe.ts"));
  PacketHost host(raw_movie(m_dir.file("pipe.ts"), true, false));
  long long shift = 0;
  const auto failed = [&] {
    for (RawPacket packet : video.packets) {
      packet.pts += shift;
      host.push_video(packet);
    }
    shift += video.packets.back().pts + 40000;
    for (const StatusLog::Entry& entry : host.status().entries()) {
      if (entry.code < 0) return true;
    }
    return false;
  };
  EXPECT_TRUE(eventually(failed));
}

}  // namespace
}  // namespace meru_test

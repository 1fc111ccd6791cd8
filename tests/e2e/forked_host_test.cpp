// A host that forks while it records: the child's handles are those of threads that it does not have.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "support/books_check.h"
#include "support/eventually.h"
#include "support/host.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

/// Runs something in a forked child. @return whether it ended by itself with success
bool child_ends(const std::function<bool()>& run) {
  const pid_t child = fork();
  if (child == 0) _exit(run() ? 0 : 1);
  int status = -1;
  const bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(ForkedHostTest, StopOfARecordingReturnsInTheChildAndTheParentGoesOn) {
  const TempDir dir;
  Host host(small_movie(dir.file("movie.mp4")));
  ASSERT_TRUE(host.started());
  host.push_scene(10, kUsecPerSec);
  EXPECT_TRUE(child_ends([&] {
    if (host.push_image(9 * kUsecPerSec) != 0 || host.push_samples(480, 9 * kUsecPerSec) != 0) return false;
    MERU_stop(host.session_address());
    return host.session() == nullptr;
  }));
  host.push_scene(10, kUsecPerSec + 400000);
  host.stop();
  EXPECT_EQ(video_packets(dir.file("movie.mp4")), 20);
}

TEST(ForkedHostTest, StopOfPacketsReturnsInTheChildAndTheParentGoesOn) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  PacketHost host(raw_movie(dir.file("movie.mp4"), true, false));
  for (const RawPacket& packet : video.packets) host.push_video(packet);
  EXPECT_TRUE(child_ends([&] {
    if (host.push_video(video.packets[0]) || host.push_audio(video.packets[0])) return false;
    MERU2_stop(host.session_address());
    return host.session() == nullptr;
  }));
  host.stop();
  EXPECT_EQ(video_packets(dir.file("movie.mp4")), static_cast<int64_t>(video.packets.size()));
}

TEST(ForkedHostTest, StopOfARepairReturnsInTheChild) {
  const TempDir dir;
  const std::string missing = dir.file("missing");
  void* repair = MERU_StartRepair_Async(missing.c_str(), missing.c_str(), missing.c_str(), nullptr, nullptr);
  EXPECT_TRUE(child_ends([&] {
    MERU_StopRepair(&repair);
    return repair == nullptr;
  }));
  MERU_StopRepair(&repair);
}

TEST(ForkedHostTest, ChildRecordsOnItsOwn) {
  const TempDir dir;
  Host host(small_movie(dir.file("movie.mp4")));
  ASSERT_TRUE(host.started());
  EXPECT_TRUE(child_ends([&] {
    Host own(small_movie(dir.file("child.mp4")));
    own.push_scene(5, kUsecPerSec);
    own.stop();
    return video_packets(dir.file("child.mp4")) == 5;
  }));
}

}  // namespace
}  // namespace meru_test

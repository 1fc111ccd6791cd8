// Programs that a host starts while it records or repairs must not hold the library's files open: they would be in use
// after the host has ended.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "meru/repair.h"
#include "support/cut_recording.h"
#include "support/forked.h"
#include "support/probe.h"
#include "support/run_command.h"

namespace meru_test {
namespace {

/// What a program started now has open in the folder. Also tells that this process has something open there.
std::string inherited_from(const std::string& folder) {
  EXPECT_NE(run_command("ls -l /proc/" + std::to_string(getpid()) + "/fd").output.find(folder), std::string::npos);
  std::istringstream lines(run_command("ls -l /proc/self/fd").output);
  std::string found;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(folder) != std::string::npos) found += line + "\n";
  }
  return found;
}

class InheritedDescriptors : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/proc/self/fd")) GTEST_SKIP() << "descriptors cannot be listed here";
  }
};

TEST_F(InheritedDescriptors, AreNoneOfARecording) {
  TempDir dir;
  MERU_Log_On(dir.file("log").c_str());
  MERU_Log_Level(5);
  for (const char* extension : {"mp4", "mkv", "flv"}) {
    MovieInfo info = small_movie(dir.file(std::string("a.") + extension));
    set_text(info.snapshot_path, dir.file("a.index"));
    const std::string further = dir.file("b.ts");
    info.other_urls[0] = further.c_str();
    Host host(info);
    host.push_scene(30, kUsecPerSec);
    EXPECT_EQ(inherited_from(dir.path()), "") << extension;
  }
}

// Beyond 32 MiB the file is opened once more.
TEST_F(InheritedDescriptors, AreNoneOfALargeFile) {
  TempDir dir;
  MovieInfo info = small_movie(dir.file("a.avi"));
  info.width = info.width_src = 1280;
  info.height = info.height_src = 720;
  info.rate_control = RATE_CONTROL_CQP;
  info.qp = 1;
  info.gop_size = 1;
  info.no_audio = true;
  Host host(info);
  std::vector<uint8_t> noise(1280U * 720 * 4);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * i * 2654435761U >> 13);
  for (int i = 0; i < 400 && std::filesystem::file_size(dir.file("a.avi")) < (33U << 20); ++i) {
    MERU_write_video_bgra(host.session(), noise.data(), static_cast<int>(noise.size()),
                          kUsecPerSec + i * kUsecPerSec / info.fps, 1280 * 4);
  }
  ASSERT_GE(std::filesystem::file_size(dir.file("a.avi")), 33U << 20);
  EXPECT_EQ(inherited_from(dir.path()), "");
}

TEST_F(InheritedDescriptors, AreNoneOfARepair) {
  const CutRecording movie({"", "mp4", false, false}, 300);
  struct Seen {
    std::string folder, inherited;
    int reports = 0;
  } seen;
  seen.folder = movie.path();
  const MovieRepairCallback callback = [](double, int, const char*, void* user) {
    auto* all = static_cast<Seen*>(user);
    ++all->reports;
    all->inherited += inherited_from(all->folder);
  };
  EXPECT_TRUE(MERU_StartRepair_sync(movie.broken.c_str(), movie.index.c_str(), movie.output.c_str(), callback, &seen));
  EXPECT_GE(seen.reports, 1);
  EXPECT_EQ(seen.inherited, "");
}

TEST_F(InheritedDescriptors, DoNotKeepARecordingInUseAfterItsHost) {
  ToolFolder folder;
  const std::string pid_file = folder.file("pid");
  const pid_t host_process = fork();
  ASSERT_GE(host_process, 0);
  if (host_process == 0) {
    MovieInfo info = small_movie(folder.file("a.mp4"));
    set_text(info.snapshot_path, folder.file("a.mp4.meru-index"));
    info.tune = TUNE_ZEROLATENCY;
    Host host(info);
    host.push_scene(50, kUsecPerSec);
    run_command("sleep 600 >/dev/null 2>&1 & echo $! >" + pid_file + ".new; mv " + pid_file + ".new " + pid_file);
    for (;;) pause();
  }
  const bool begun = eventually([&] { return std::filesystem::exists(pid_file); });
  // The writing thread may still be busy with the last frames.
  const bool written = eventually([&] { return file_text(folder.file("a.mp4.meru-index")).size() > 500; });
  kill(host_process, SIGKILL);
  waitpid(host_process, nullptr, 0);
  ASSERT_TRUE(begun);
  EXPECT_TRUE(written);
  const pid_t sleeper = static_cast<pid_t>(std::stoi(file_text(pid_file)));
  const ToolRun run = folder.run("recover .");
  EXPECT_EQ(kill(sleeper, SIGKILL), 0);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("a.repaired.mp4"), std::string::npos) << run.out << run.err;
  EXPECT_GT(count_frames(folder.file("a.repaired.mp4")), 20);
}

}  // namespace
}  // namespace meru_test

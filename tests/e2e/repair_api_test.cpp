// The exported repair functions, in both linkages: results, reports, handles and paths.

#include "support/repair_api.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include "support/cut_recording.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/repair_host.h"

namespace meru_test {
namespace {

constexpr CutRecording::Kind kMp4{"mp4", "mp4", false, false};

class RepairApiTest : public testing::TestWithParam<bool> {
 protected:
  bool repair(const std::string& broken, const std::string& moov, const std::string& output) {
    return api.start_sync(broken.c_str(), moov.c_str(), output.c_str(), RepairLog::callback, &log);
  }
  void* start() {
    return api.start_async(movie.broken.c_str(), movie.index.c_str(), movie.output.c_str(), RepairLog::callback, &log);
  }

  const RepairApi api = GetParam() ? RepairApi::linked() : RepairApi::loaded();
  RepairLog log;
  CutRecording movie{kMp4};
};

INSTANTIATE_TEST_SUITE_P(Both, RepairApiTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Linked" : "Loaded"; });

/// Whether a movie has got its index. One that is still being written has sizes that do not fit yet.
bool is_complete(const std::string& path) {
  try {
    return Mp4Movie::find_box(file_text(path), "moov") != std::string::npos;
  } catch (const std::exception&) {
    return false;
  }
}

TEST_P(RepairApiTest, SyncReturnsWhenTheMovieIsWhole) {
  testing::internal::CaptureStdout();
  ASSERT_TRUE(repair(movie.broken, movie.index, movie.output));
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(sorted_samples(movie.output), sorted_named_bytes(movie.index, movie.broken));
  std::string expected;
  for (const auto& entry : log.entries()) {
    EXPECT_EQ(entry.code, MERU_REPAIR_PROGRESS);
    EXPECT_EQ(entry.text, "");
    char line[40];
    snprintf(line, sizeof(line), "progress:%.6f\n", entry.progress);
    expected += line;
  }
  EXPECT_EQ(log.last().progress, 1.0);
  EXPECT_EQ(printed, expected);
}

TEST_P(RepairApiTest, SyncTellsEveryFailure) {
  EXPECT_FALSE(repair(movie.file("none.mp4"), movie.index, movie.output));
  EXPECT_EQ(log.last().code, MERU_REPAIR_NO_MOVIE);
  EXPECT_EQ(log.last().text, "cannot open broken_file...");
  EXPECT_FALSE(repair(movie.broken, movie.file("none.idx"), movie.output));
  EXPECT_EQ(log.last().code, MERU_REPAIR_NO_INDEX);
  EXPECT_EQ(log.last().text, "parse moov file failed ...");
  EXPECT_FALSE(repair(movie.broken, movie.index, movie.file("none/a.mp4")));
  EXPECT_EQ(log.last().code, MERU_REPAIR_WRITE_FAILED);
  EXPECT_EQ(log.last().text, "No such file or directory");
  for (const auto& entry : log.entries()) EXPECT_EQ(entry.progress, 0.0);
  EXPECT_EQ(log.entries().size(), 3U);
}

TEST_P(RepairApiTest, PathsAreLoggedAndMayBeNull) {
  LogCapture lines;
  ASSERT_TRUE(repair(movie.broken, movie.index, movie.output));
  EXPECT_EQ(lines.count(5, "broken=" + movie.broken + ", moov=" + movie.index + ", output=" + movie.output), 1);
  EXPECT_FALSE(api.start_sync(nullptr, nullptr, nullptr, RepairLog::callback, &log));
  EXPECT_EQ(log.last().code, MERU_REPAIR_NO_MOVIE);
  EXPECT_FALSE(api.start_sync(movie.broken.c_str(), nullptr, nullptr, RepairLog::callback, &log));
  EXPECT_EQ(log.last().code, MERU_REPAIR_NO_INDEX);
  EXPECT_FALSE(api.start_sync(movie.broken.c_str(), movie.index.c_str(), nullptr, nullptr, nullptr));
  void* handle = api.start_async(nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_NE(handle, nullptr);
  api.stop(&handle);
}

TEST_P(RepairApiTest, NullHandlesAreHarmless) {
  void* none = nullptr;
  api.stop(nullptr);
  api.stop(&none);
  EXPECT_EQ(none, nullptr);
  EXPECT_FALSE(api.is_running(nullptr));
}

TEST_P(RepairApiTest, AsyncRunsFromItsReturnToItsLastReport) {
  std::promise<void> go;
  const std::shared_future<void> gone = go.get_future().share();
  log.set_hook([gone] { gone.wait(); });
  void* handle = start();
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(api.is_running(handle));
  go.set_value();
  EXPECT_TRUE(eventually([&] { return !api.is_running(handle); }));
  EXPECT_EQ(log.last().progress, 1.0);
  EXPECT_EQ(sorted_samples(movie.output), sorted_named_bytes(movie.index, movie.broken));

  const size_t told = log.entries().size();
  void* const gone_handle = handle;
  api.stop(&handle);
  EXPECT_EQ(handle, nullptr);
  api.stop(&handle);
  EXPECT_FALSE(api.is_running(gone_handle));
  EXPECT_EQ(log.entries().size(), told);
}

TEST_P(RepairApiTest, AsyncTellsEveryFailure) {
  void* handle = api.start_async(movie.file("none.mp4").c_str(), movie.index.c_str(), movie.output.c_str(),
                                 RepairLog::callback, &log);
  EXPECT_TRUE(eventually([&] { return !api.is_running(handle); }));
  EXPECT_EQ(log.last().code, MERU_REPAIR_NO_MOVIE);
  api.stop(&handle);
  EXPECT_EQ(handle, nullptr);
}

TEST_P(RepairApiTest, StopInsideTheCallbackEndsTheReports) {
  std::promise<void> started;
  const std::shared_future<void> ready = started.get_future().share();
  void* handle = nullptr;
  std::atomic<bool> nulled{false};
  log.set_hook([&, ready] {
    ready.wait();
    void* const before = handle;
    api.stop(&handle);
    nulled = handle == nullptr && !api.is_running(before);
  });
  handle = start();
  started.set_value();
  EXPECT_TRUE(eventually([&] { return nulled.load(); }));
  // It is noted when the callback ends, which may be after the movie's end.
  EXPECT_TRUE(eventually([&] { return !log.entries().empty(); }));
  // The movie is completed behind the callback; no further report comes.
  EXPECT_TRUE(eventually([&] { return is_complete(movie.output); }));
  EXPECT_EQ(log.entries().size(), 1U);
}

TEST_P(RepairApiTest, RunningCanBeAskedWhileAnotherThreadStops) {
  for (int i = 0; i < 10; ++i) {
    void* handle = start();
    void* const asked = handle;
    std::atomic<bool> ended{false};
    std::thread asker([&] {
      while (!ended) (void)api.is_running(asked);
      EXPECT_FALSE(api.is_running(asked));
    });
    api.stop(&handle);
    ended = true;
    asker.join();
  }
}

TEST_P(RepairApiTest, TwoThreadsMayStopTheSameRepair) {
  for (int i = 0; i < 10; ++i) {
    void* first = start();
    void* second = first;
    std::thread other([&] { api.stop(&second); });
    api.stop(&first);
    other.join();
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(second, nullptr);
  }
}

TEST_P(RepairApiTest, SeveralRepairsRunAtOnce) {
  const auto wanted = sorted_named_bytes(movie.index, movie.broken);
  std::vector<void*> handles;
  std::vector<std::string> outputs;
  for (int i = 0; i < 6; ++i) {
    outputs.push_back(movie.file("copy" + std::to_string(i) + (i % 2 == 0 ? ".mp4" : ".mov")));
    handles.push_back(
        api.start_async(movie.broken.c_str(), movie.index.c_str(), outputs.back().c_str(), nullptr, nullptr));
  }
  for (size_t i = 0; i < handles.size(); ++i) {
    EXPECT_TRUE(eventually([&] { return !api.is_running(handles[i]); }));
    api.stop(&handles[i]);
    EXPECT_EQ(sorted_samples(outputs[i]), wanted) << i;
  }
}

TEST_P(RepairApiTest, OutputIsNeverWhatIsRepaired) {
  const std::string index = movie.file("index.mp4");
  std::filesystem::copy(movie.index, index);
  const std::string movie_before = file_text(movie.broken);
  const std::string index_before = file_text(index);
  for (const std::string& path : {movie.broken, index}) {
    const std::string name = std::filesystem::path(path).filename();
    std::filesystem::create_symlink(path, movie.file("soft-" + name));
    std::filesystem::create_hard_link(path, movie.file("hard-" + name));
    const std::string outputs[] = {
        path,
        movie.path() + "/../" + std::filesystem::path(movie.path()).filename().string() + "//" + name,
        "file:" + path,
        movie.file("soft-" + name),
        movie.file("hard-" + name),
        "file:" + movie.file("soft-" + name)};
    for (const std::string& output : outputs) {
      EXPECT_FALSE(repair("\"" + movie.broken + "\" ", " \"" + index + "\"\n", output)) << output;
      EXPECT_EQ(log.last().code, MERU_REPAIR_WRITE_FAILED) << output;
      EXPECT_EQ(log.last().text, "Invalid argument") << output;
      ASSERT_TRUE(file_text(movie.broken) == movie_before) << output;
      ASSERT_TRUE(file_text(index) == index_before) << output;
    }
  }
}

TEST_P(RepairApiTest, AnotherFileAsOutputIsReplaced) {
  write_file(movie.output, std::string(1 << 20, 'x'));
  ASSERT_TRUE(repair(movie.broken, movie.index, movie.output));
  EXPECT_EQ(sorted_samples(movie.output), sorted_named_bytes(movie.index, movie.broken));
}

TEST_P(RepairApiTest, WhatIsRepairedMayBeReadOnlyAndStaysAsItWas) {
  const std::string movie_before = file_text(movie.broken);
  const std::string index_before = file_text(movie.index);
  for (const std::string& path : {movie.broken, movie.index}) {
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
  }
  ASSERT_TRUE(repair(movie.broken, movie.index, movie.output));
  EXPECT_TRUE(file_text(movie.broken) == movie_before);
  EXPECT_TRUE(file_text(movie.index) == index_before);
}

}  // namespace
}  // namespace meru_test

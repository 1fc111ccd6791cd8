// Repairs on a thread of their own: starting, stopping, and what becomes of the object.
#include <gtest/gtest.h>
#include <pthread.h>

#include <future>
#include <system_error>

#include "meru/repair.h"
#include "support/eventually.h"
#include "support/repair_bench.h"
#include "support/sanitized.h"

namespace meru_test {
namespace {

class RepairThread : public RepairBench {
 protected:
  void SetUp() override {
    RepairBench::SetUp();
    std::string body = ",48,1,,,512,1;\n";
    for (int i = 1; i < 300; ++i) body += ",,1,512,,512,;\n";
    write_index(index_header() + body);
  }
  void start() { repair->start_async(broken.c_str(), index.c_str(), output.c_str(), callback()); }
  bool over() const {
    return eventually([this] { return !repair->is_running(); });
  }
};

TEST_F(RepairThread, RunsFromTheStartToTheLastReport) {
  std::promise<void> go;
  std::shared_future<void> gone = go.get_future().share();
  on_report = [&gone](double) { gone.wait(); };
  EXPECT_FALSE(repair->is_running());
  start();
  EXPECT_TRUE(repair->is_running());
  go.set_value();
  ASSERT_TRUE(over());
  EXPECT_EQ(reports().size(), 31U);
  EXPECT_EQ(reports().back(), (RepairReport{1.0, 0, ""}));
  EXPECT_EQ(restored().size(), 300U);
}

TEST_F(RepairThread, PathsAreCopied) {
  std::string movie = broken;
  std::string moov = index;
  std::string target = output;
  repair->start_async(movie.c_str(), moov.c_str(), target.c_str(), callback());
  for (std::string* path : {&movie, &moov, &target}) path->assign(path->size(), 'x');
  ASSERT_TRUE(over());
  EXPECT_EQ(restored().size(), 300U);
}

TEST_F(RepairThread, StopEndsTheRepairAfterItsLineAndWaits) {
  std::promise<void> reported;
  std::promise<void> go;
  std::once_flag once;
  on_report = [&](double) {
    std::call_once(once, [&] {
      reported.set_value();
      go.get_future().wait();
    });
  };
  start();
  reported.get_future().wait();
  std::thread releaser([&] {
    EXPECT_TRUE(eventually([this] { return log.count(5, "repair: stop() ...") == 1; }));
    EXPECT_TRUE(repair->is_running());
    go.set_value();
  });
  repair->stop();
  EXPECT_FALSE(repair->is_running());
  releaser.join();
  EXPECT_EQ(log.count(5, "repair: stop() success."), 1);
  EXPECT_EQ(log.count(2, "repair aborted ."), 1);
  EXPECT_EQ(reports().size(), 2U);
  EXPECT_LT(reports().back().progress, 0.9);
  EXPECT_EQ(restored().size(), 10U);
}

TEST_F(RepairThread, SecondStopDoesNothing) {
  start();
  repair->stop();
  repair->stop();
  EXPECT_EQ(log.count(5, "repair: stop() ..."), 1);
  EXPECT_EQ(log.count(5, "repair: stop() success."), 1);
}

TEST_F(RepairThread, StopWithoutAThreadIsSilent) {
  repair->stop();
  EXPECT_EQ(log.lines().size(), 0U);
}

TEST_F(RepairThread, StopAfterTheEndJoins) {
  start();
  ASSERT_TRUE(over());
  const size_t told = reports().size();
  repair->stop();
  EXPECT_EQ(log.count(5, "repair: stop() success."), 1);
  EXPECT_EQ(reports().size(), told);
}

TEST_F(RepairThread, StoppedObjectCannotBeStartedAgain) {
  repair->stop();
  testing::internal::CaptureStdout();
  start();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "progress:0.000000\n");
  EXPECT_FALSE(repair->is_running());
  EXPECT_EQ(reports(),
            (std::vector<RepairReport>{{0.0, -5, "repair: already stopped.  can't recall this function..."}}));
  EXPECT_FALSE(std::filesystem::exists(output));
  testing::internal::CaptureStdout();
  repair->start_async("", "", "", {});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "progress:0.000000\n");
}

TEST_F(RepairThread, FinishedObjectCanBeStartedAgain) {
  start();
  ASSERT_TRUE(over());
  output = dir.file("again.mp4");
  start();
  ASSERT_TRUE(over());
  EXPECT_EQ(restored().size(), 300U);
}

TEST_F(RepairThread, StopInsideTheCallbackSilencesIt) {
  on_report = [this](double) { repair->stop(); };
  start();
  ASSERT_TRUE(over());
  EXPECT_EQ(reports().size(), 1U);
  EXPECT_EQ(restored().size(), 10U);
  EXPECT_EQ(log.count(5, "repair: stop() ..."), 0);
}

TEST_F(RepairThread, ObjectGivenUpInsideTheCallbackLivesToTheEnd) {
  const std::weak_ptr<MVRepair> watched = repair;
  on_report = [this](double) {
    if (repair == nullptr) return;
    repair->stop();
    repair.reset();
  };
  // Started by a reference of its own: the callback may run before the call returns.
  std::shared_ptr<MVRepair> own = repair;
  own->start_async(broken.c_str(), index.c_str(), output.c_str(), callback());
  own.reset();
  ASSERT_TRUE(eventually([&] { return watched.expired(); }));
  EXPECT_EQ(restored().size(), 10U);
}

TEST_F(RepairThread, DestructionStops) {
  MVRepair alone;
  alone.start_async(broken.c_str(), index.c_str(), output.c_str(), callback());
}

TEST_F(RepairThread, DestructionWaitsForAThreadThatStoppedItself) {
  {
    MVRepair alone;
    on_report = [&alone](double) { alone.stop(); };
    alone.start_async(broken.c_str(), index.c_str(), output.c_str(), callback());
    EXPECT_TRUE(eventually([this] { return !reports().empty(); }));
  }
  EXPECT_EQ(restored().size(), 10U);
}

/// Makes every new thread of the process impossible.
class NoThreads {
 public:
  NoThreads() {
    pthread_attr_init(&m_attributes);
    pthread_getattr_default_np(&m_attributes);
    pthread_attr_getstacksize(&m_attributes, &m_before);
    set(size_t{1} << 46);
  }
  ~NoThreads() {
    set(m_before);
    pthread_attr_destroy(&m_attributes);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  void set(size_t size) {
    EXPECT_EQ(pthread_attr_setstacksize(&m_attributes, size), 0);
    EXPECT_EQ(pthread_setattr_default_np(&m_attributes), 0);
  }
  pthread_attr_t m_attributes{};
  size_t m_before = 0;
};

TEST_F(RepairThread, ThreadThatCannotBeMadeRaises) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers end the process when no thread can be made";
  const NoThreads none;
  try {
    start();
    FAIL() << "a thread was made";
  } catch (const std::system_error& e) {
    EXPECT_EQ(std::string(e.what()).rfind("thread constructor failed", 0), 0U) << e.what();
  }
  EXPECT_FALSE(repair->is_running());
  EXPECT_TRUE(reports().empty());
}

TEST_F(RepairThread, ExportedStartReportsThatNoThreadCanBeMade) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers end the process when no thread can be made";
  struct Told {
    int code = 0;
    std::string text;
  } told;
  void* handle = nullptr;
  testing::internal::CaptureStdout();
  {
    const NoThreads none;
    handle = MERU_StartRepair_Async(
        broken.c_str(), index.c_str(), output.c_str(),
        [](double, int code, const char* text, void* user) {
          *static_cast<Told*>(user) = {code, text};
        },
        &told);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "progress:0.000000\n");
  EXPECT_NE(handle, nullptr);
  EXPECT_EQ(told.code, -10);
  EXPECT_EQ(told.text.rfind("thread constructor failed", 0), 0U) << told.text;
  EXPECT_FALSE(MERU_Repair_IsRunning(handle));
  EXPECT_EQ(begins(2, "the repair could not be started: thread constructor failed"), 1);
  MERU_StopRepair(&handle);
  EXPECT_EQ(handle, nullptr);
}

}  // namespace
}  // namespace meru_test

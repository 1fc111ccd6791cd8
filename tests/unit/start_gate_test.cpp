#include "output/start_gate.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "support/eventually.h"
#include "support/temp_dir.h"

namespace {

using meru_test::TempDir;
using MR::StartGate;

bool write_text(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
  return true;
}

std::string text_of(const std::string& path) {
  std::string text;
  std::ifstream(path) >> text;
  return text;
}

class StartGateTest : public testing::Test {
 protected:
  void open(const std::string& path, bool result = true) {
    EXPECT_TRUE(m_gate.pass([&] {
      m_gate.open_file(
          path, [&] { return write_text(path, "start") && result; }, [this, path] { m_closed.push_back(path); });
    }));
  }
  TempDir m_dir;
  StartGate m_gate;
  std::vector<std::string> m_closed;
};

TEST_F(StartGateTest, StopClosesAndRemovesWhatTheStartCreatedLatestFirst) {
  open(m_dir.file("a"));
  open(m_dir.file("b"));
  EXPECT_FALSE(m_gate.close());
  EXPECT_EQ(m_closed, (std::vector<std::string>{m_dir.file("b"), m_dir.file("a")}));
  EXPECT_FALSE(std::filesystem::exists(m_dir.file("a")));
  EXPECT_FALSE(std::filesystem::exists(m_dir.file("b")));
  EXPECT_TRUE(m_gate.end());
  EXPECT_EQ(m_closed.size(), 2U);
}

TEST_F(StartGateTest, FileThatWasThereBeforeIsClosedAndStays) {
  write_text(m_dir.file("a"), "mine");
  open(m_dir.file("a"));
  m_gate.close();
  EXPECT_EQ(m_closed.size(), 1U);
  EXPECT_TRUE(std::filesystem::exists(m_dir.file("a")));
}

TEST_F(StartGateTest, FileThatAnotherHasPutThereMeanwhileStays) {
  open(m_dir.file("a"));
  write_text(m_dir.file("other"), "theirs");
  std::filesystem::rename(m_dir.file("other"), m_dir.file("a"));
  m_gate.close();
  EXPECT_EQ(text_of(m_dir.file("a")), "theirs");
}

TEST_F(StartGateTest, TargetOfALinkStays) {
  write_text(m_dir.file("target"), "mine");
  std::filesystem::create_symlink(m_dir.file("target"), m_dir.file("a"));
  open(m_dir.file("a"));
  m_gate.close();
  EXPECT_TRUE(std::filesystem::exists(m_dir.file("target")));
  EXPECT_TRUE(std::filesystem::is_symlink(m_dir.file("a")));
}

TEST_F(StartGateTest, NothingPassesAfterTheStop) {
  m_gate.close();
  bool run = false;
  EXPECT_FALSE(m_gate.pass([&] { run = true; }));
  EXPECT_FALSE(m_gate.pass_last([&] { run = true; }));
  EXPECT_FALSE(run);
}

TEST_F(StartGateTest, FileThatCouldNotBeOpenedIsNotClosed) {
  open(m_dir.file("a"), false);
  m_gate.close();
  EXPECT_TRUE(m_closed.empty());
}

TEST_F(StartGateTest, AfterTheLastStepTheStopLeavesTheFilesAlone) {
  open(m_dir.file("a"));
  EXPECT_TRUE(m_gate.pass_last([] {}));
  EXPECT_TRUE(m_gate.close());
  EXPECT_TRUE(m_closed.empty());
  EXPECT_TRUE(std::filesystem::exists(m_dir.file("a")));
}

TEST_F(StartGateTest, StartThatFailsKeepsItsFilesForTheStop) {
  open(m_dir.file("a"));
  EXPECT_FALSE(m_gate.end());
  EXPECT_TRUE(m_gate.close());
  EXPECT_TRUE(m_closed.empty());
}

TEST_F(StartGateTest, StopWaitsForTheStepUnderWay) {
  std::promise<void> inside, go_on;
  std::thread start([&] {
    m_gate.pass([&] {
      inside.set_value();
      go_on.get_future().wait();
      m_gate.open_file(
          m_dir.file("a"), [&] { return write_text(m_dir.file("a"), "x"); }, nullptr);
    });
  });
  inside.get_future().wait();
  std::thread stop([&] { m_gate.close(); });
  EXPECT_TRUE(meru_test::eventually([&] { return m_gate.exited()->load(); }));
  go_on.set_value();
  stop.join();
  start.join();
  EXPECT_FALSE(std::filesystem::exists(m_dir.file("a")));
}

TEST_F(StartGateTest, StopFromInsideAStepDoesNotWaitForIt) {
  EXPECT_TRUE(m_gate.pass([&] {
    m_gate.open_file(
        m_dir.file("a"), [&] { return write_text(m_dir.file("a"), "x"); }, nullptr);
    EXPECT_FALSE(m_gate.close());
    EXPECT_TRUE(m_gate.leave([this] { m_closed.emplace_back("last act"); }));
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("a")));
  }));
  EXPECT_FALSE(m_gate.pass([] {}));
  EXPECT_TRUE(m_gate.end());
  EXPECT_FALSE(std::filesystem::exists(m_dir.file("a")));
  const auto last_act = m_gate.take_last_act();
  ASSERT_TRUE(last_act);
  last_act();
  EXPECT_EQ(m_closed, std::vector<std::string>{"last act"});
}

TEST_F(StartGateTest, NothingCanBeLeftToAStartThatIsOver) {
  EXPECT_FALSE(m_gate.end());
  EXPECT_FALSE(m_gate.leave([] {}));
}

TEST_F(StartGateTest, ExceptionOfAStepLeavesTheGateUsable) {
  EXPECT_THROW(m_gate.pass([] { throw 1; }), int);
  EXPECT_TRUE(m_gate.pass([] {}));
  EXPECT_FALSE(m_gate.close());
}

}  // namespace

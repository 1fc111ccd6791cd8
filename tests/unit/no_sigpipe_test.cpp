#include "common/no_sigpipe.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

namespace {

std::atomic<int> g_signals{0};

class NoSigpipeTest : public testing::Test {
 protected:
  NoSigpipeTest() {
    g_signals = 0;
    m_before = signal(SIGPIPE, [](int) { ++g_signals; });
    EXPECT_EQ(pipe(m_pipe), 0);
    close(m_pipe[0]);
  }
  ~NoSigpipeTest() override {
    close(m_pipe[1]);
    signal(SIGPIPE, m_before);
  }
  bool write_fails() const { return write(m_pipe[1], "x", 1) < 0 && errno == EPIPE; }
  static bool is_blocked() {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, SIGPIPE) == 1;
  }
  int m_pipe[2] = {};
  sighandler_t m_before;
};

TEST_F(NoSigpipeTest, WriteFailsWithoutTheSignalAndTheHandlerStays) {
  {
    const NoSigpipe none;
    EXPECT_TRUE(write_fails());
  }
  EXPECT_EQ(g_signals, 0);
  EXPECT_FALSE(is_blocked());
  EXPECT_TRUE(write_fails());
  EXPECT_EQ(g_signals, 1);
}

TEST_F(NoSigpipeTest, MayBeNested) {
  const NoSigpipe outer;
  {
    const NoSigpipe inner;
    EXPECT_TRUE(write_fails());
  }
  EXPECT_TRUE(is_blocked());
  EXPECT_TRUE(write_fails());
  EXPECT_EQ(g_signals, 0);
}

TEST_F(NoSigpipeTest, SignalThatWasPendingBeforeIsKept) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  EXPECT_TRUE(write_fails());
  {
    const NoSigpipe none;
    EXPECT_TRUE(write_fails());
  }
  EXPECT_EQ(g_signals, 0);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  EXPECT_EQ(g_signals, 1);
}

}  // namespace

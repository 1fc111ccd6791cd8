// References given back from outside the pool, and the pool between threads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "raw_packets/mem_pool.h"

namespace {

using nuv::MRMemNode;
using nuv::MRMemPool;
using testing::ElementsAre;

constexpr char kNoPool[] = "[ERROR] *** MRMemNode's pool is NULL, exit\n";

/// Notes what is called.
class NotingPool final : public nuv::iMemNodePool {
 public:
  void lock_ref() override { m_calls.emplace_back("lock"); }
  void unlock_ref() override { m_calls.emplace_back("unlock"); }
  void mr_free(MRMemNode* node) override {
    m_calls.emplace_back("free");
    --node->ref_count;
  }

  std::vector<std::string> m_calls;
};

class ReleaseNodeTest : public testing::Test {
 protected:
  ReleaseNodeTest() { m_node.pool = &m_pool; }

  MRMemNode m_node{};
  NotingPool m_pool;
};

TEST_F(ReleaseNodeTest, LastReferenceGoesToThePoolUnderItsLock) {
  m_node.ref_count = 1;
  nuv::release_node(&m_node);
  EXPECT_THAT(m_pool.m_calls, ElementsAre("lock", "free", "unlock"));
  EXPECT_EQ(m_node.ref_count, 0);
}

TEST_F(ReleaseNodeTest, OtherReferencesAreOnlyCounted) {
  m_node.ref_count = 3;
  nuv::release_node(&m_node);
  EXPECT_THAT(m_pool.m_calls, ElementsAre("lock", "unlock"));
  EXPECT_EQ(m_node.ref_count, 2);
}

TEST_F(ReleaseNodeTest, NodeWithoutReferencesIsLeftAlone) {
  m_node.ref_count = 0;
  nuv::release_node(&m_node);
  EXPECT_THAT(m_pool.m_calls, ElementsAre("lock", "unlock"));
  EXPECT_EQ(m_node.ref_count, 0);
}

TEST_F(ReleaseNodeTest, NegativeCountBecomesZero) {
  for (const int count : {-1, INT_MIN}) {
    m_node.ref_count = count;
    nuv::release_node(&m_node);
    EXPECT_EQ(m_node.ref_count, 0);
  }
  EXPECT_THAT(m_pool.m_calls, ElementsAre("lock", "unlock", "lock", "unlock"));
}

TEST_F(ReleaseNodeTest, NullIsIgnored) {
  testing::internal::CaptureStderr();
  nuv::release_node(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ReleaseNodeTest, NodeWithoutAPoolIsReportedAndFreed) {
  auto* node = new (std::malloc(512)) MRMemNode();
  node->ref_count = 5;
  testing::internal::CaptureStderr();
  nuv::release_node(node);  // the leak sanitizer sees whether it was freed
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kNoPool);
}

TEST_F(ReleaseNodeTest, ReportIsWrittenAtOnceEvenWhereStandardErrorIsBuffered) {
  const auto release_and_die = [] {
    static std::array<char, 4096> buffer;
    if (std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size()) != 0) _exit(1);
    auto* node = new (std::malloc(512)) MRMemNode();
    nuv::release_node(node);
    _exit(0);  // flushes nothing
  };
  EXPECT_EXIT(release_and_die(), testing::ExitedWithCode(0), testing::HasSubstr(kNoPool));
}

TEST(ReleaseNodeToAPool, CachesTheBlock) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(10);
  ++node->ref_count;
  nuv::release_node(node);
  EXPECT_EQ(pool.cached_count(), 0);
  nuv::release_node(node);
  EXPECT_EQ(pool.cached_count(), 1);
  nuv::release_node(node);
  EXPECT_EQ(pool.cached_count(), 1);
}

TEST(MemPoolThreads, ReferenceLockCanBeTakenAgainByItsHolder) {
  MRMemPool pool;
  pool.lock_ref();
  pool.lock_ref();
  MRMemNode* node = pool.mr_malloc(1);
  nuv::release_node(node);
  pool.unlock_ref();
  pool.unlock_ref();
  EXPECT_EQ(pool.cached_count(), 1);
  std::thread([&] { nuv::release_node(pool.mr_malloc(1)); }).join();  // would hang if a lock were left
  EXPECT_EQ(pool.cached_count(), 1);
}

TEST(MemPoolThreads, SharedNodesComeBackExactlyOnce) {
  constexpr int kThreads = 4;
  constexpr int kNodes = 20000;
  MRMemPool pool;
  std::vector<MRMemNode*> nodes;
  for (int i = 0; i < kNodes; ++i) {
    nodes.push_back(pool.mr_malloc(64));
    nodes.back()->ref_count = kThreads;
  }
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      // Both ways of giving a reference back, at the same time.
      for (MRMemNode* node : nodes) t % 2 == 0 ? nuv::release_node(node) : pool.mr_free(node);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pool.cached_count(), kNodes);
  for (const MRMemNode* node : nodes) EXPECT_EQ(node->ref_count, 0);
}

TEST(MemPoolThreads, NoBlockIsHandedOutTwice) {
  constexpr int kThreads = 4;
  MRMemPool pool;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&pool, t] {
      std::vector<MRMemNode*> held(8, nullptr);
      for (int i = 0; i < 4000; ++i) {
        MRMemNode*& slot = held[static_cast<size_t>(i) % held.size()];
        if (slot != nullptr) {
          EXPECT_EQ(slot->data[0], t) << "nobody else wrote to it";
          nuv::release_node(slot);
        }
        slot = pool.mr_malloc(i * 7 % 6000 + 1);
        slot->data[0] = static_cast<unsigned char>(t);
      }
      for (MRMemNode* node : held) nuv::release_node(node);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(pool.cached_count(), 0);
  EXPECT_LE(pool.cached_count(), 5 * kThreads * 8) << "at most all that were out at a time, in each of the 5 classes";
}

}  // namespace

// Pool and queues between many threads, for the sanitized builds above all. Every thread's numbers come from a
// generator with a fixed seed; how the threads meet differs with every run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "raw_packets/packet_stream_queue.h"
#include "support/eventually.h"
#include "support/stream_queue.h"

namespace {

using meru_test::kUnbounded;
using meru_test::stream_byte;
using nuv::MRMemNode;
using nuv::MRMemPool;
using nuv::MRPacketQueue;

constexpr int kBound = 8;

/// Numbers in [low, high].
class Numbers {
 public:
  explicit Numbers(unsigned seed) : m_engine(seed + 1) {}
  int in(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_engine); }

 private:
  std::minstd_rand m_engine;
};

/// Threads that have ended when this does.
class Threads {
 public:
  ~Threads() { join(); }
  void start(std::function<void()> work) { m_threads.emplace_back(std::move(work)); }
  void join() {
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
  }

 private:
  std::vector<std::thread> m_threads;
};

/// Whether every block that the pool ever made is in its cache.
void expect_all_blocks_back(MRMemPool* pool) {
  const int cached = pool->cached_count();
  MRMemNode* fresh = pool->mr_malloc(1 << 20);  // of a class that nobody has used, so its number is the count of blocks
  EXPECT_EQ(fresh->id, cached);
  pool->mr_free(fresh);
}

/// Pushes `total` bytes of the stream in nodes of all sizes, then the end marker.
void write_stream(MRPacketQueue* queue, unsigned seed, size_t total) {
  Numbers numbers(seed);
  for (size_t written = 0; written < total;) {
    const auto size = std::min(static_cast<size_t>(numbers.in(0, 5000)), total - written);
    MRMemNode* node = queue->pool()->mr_malloc(static_cast<int>(size));
    ASSERT_NE(node, nullptr);
    for (size_t i = 0; i < size; ++i) node->data[i] = stream_byte(written + i);
    written += size;
    const bool block = numbers.in(0, 1) == 0;
    while (queue->_push_back_(node, kBound, block, 1) != nuv::kQueueDone) ASSERT_FALSE(block);
  }
  ASSERT_EQ(queue->_push_back_(nullptr, kUnbounded, false, 0), nuv::kQueueDone);
}

/// Reads the stream in pieces of all sizes, and sees that it is whole.
void read_stream(MRPacketQueue* queue, unsigned seed, size_t total) {
  Numbers numbers(seed);
  std::vector<unsigned char> piece(12000);
  for (size_t done = 0; done < total;) {
    const auto wanted = std::min(static_cast<size_t>(numbers.in(1, 12000)), total - done);
    const bool block = numbers.in(0, 2) != 0;
    const int result = queue->_read_nbytes_(piece.data(), static_cast<int>(wanted), block, 1);
    if (!block && result == nuv::kReadNoMoreData) continue;  // what there was comes first in the next read
    ASSERT_EQ(result, nuv::kReadDone);
    size_t wrong = 0;
    for (size_t i = 0; i < wanted; ++i) wrong += piece[i] != stream_byte(done + i) ? 1U : 0U;
    ASSERT_EQ(wrong, 0U) << "after " << done;
    done += wanted;
  }
  ASSERT_EQ(queue->_read_nbytes_(piece.data(), 1, true, 0), nuv::kReadNoMoreData) << "the end marker";
}

TEST(RawPacketsStress, EveryElementArrivesOnceAndInItsProducersOrder) {
  constexpr int kProducers = 3;
  constexpr int kConsumers = 2;
  constexpr long long kEach = 4000;
  nuv::BlockingQueue<long long> queue;
  std::vector<std::thread> producers;
  for (long long p = 0; p < kProducers; ++p) {
    producers.emplace_back([&queue, p] {
      for (long long i = 0; i < kEach; ++i) {
        // Timed and blocking producers side by side; the bound keeps both waiting much of the time.
        const bool block = i % 3 != 0;
        while (queue._push_back_(p * kEach + i, 8, block, 1) == nuv::kQueueFull) EXPECT_FALSE(block);
      }
    });
  }
  std::array<std::vector<long long>, kConsumers> taken;
  std::vector<std::thread> consumers;
  for (std::vector<long long>& mine : taken) {
    consumers.emplace_back([&queue, &mine] {
      long long value = 0;
      for (bool block = false;; block = !block) {
        const int result = queue._get_front_(value, block, 1, true);
        if (result == nuv::kQueueAborted) return;
        if (result == nuv::kQueueDone) mine.push_back(value);
      }
    });
  }
  for (std::thread& thread : producers) thread.join();
  ASSERT_TRUE(meru_test::eventually([&] { return queue.size() == 0; }));
  queue.abort();
  for (std::thread& thread : consumers) thread.join();

  std::vector<int> seen(kProducers * kEach, 0);
  for (const std::vector<long long>& mine : taken) {
    std::array<long long, kProducers> last{-1, -1, -1};
    for (const long long value : mine) {
      ++seen[static_cast<size_t>(value)];
      long long& previous = last[static_cast<size_t>(value / kEach)];
      EXPECT_GT(value, previous);
      previous = value;
    }
  }
  EXPECT_THAT(seen, testing::Each(1));
}

TEST(RawPacketsStress, StreamsThatShareAPoolArriveWhole) {
  constexpr unsigned kStreams = 3;
  constexpr size_t kBytes = 2000000;
  MRMemPool pool;
  {
    std::array<MRPacketQueue, kStreams> queues{MRPacketQueue(&pool), MRPacketQueue(&pool), MRPacketQueue(&pool)};
    Threads threads;
    for (unsigned i = 0; i < kStreams; ++i) {
      threads.start([&queues, i] { write_stream(&queues[i], i, kBytes + i); });
      threads.start([&queues, i] { read_stream(&queues[i], 100 + i, kBytes + i); });
    }
    threads.join();
    for (MRPacketQueue& queue : queues) EXPECT_EQ(queue.size(), 0);
  }
  expect_all_blocks_back(&pool);
}

TEST(RawPacketsStress, EveryBlockComesBackThroughAbortsAndClearsAtAnyMoment) {
  MRMemPool pool;
  for (unsigned round = 0; round < 60; ++round) {
    MRPacketQueue queue(&pool);
    std::atomic<int> pushed{0};
    Threads threads;
    for (unsigned producer = 0; producer < 2; ++producer) {
      threads.start([&, producer] {
        Numbers numbers(1000 * round + producer);
        for (;;) {
          MRMemNode* node = pool.mr_malloc(numbers.in(0, 3000));
          const int result = queue._push_back_(node, kBound, numbers.in(0, 1) == 0, 1);
          if (result != nuv::kQueueDone) nuv::release_node(node);
          if (result == nuv::kQueueAborted) return;
          if (result == nuv::kQueueDone) ++pushed;
        }
      });
    }
    threads.start([&, round] {
      Numbers numbers(1000 * round + 10);
      std::vector<unsigned char> piece(7000);
      for (;;) {
        const int result = queue._read_nbytes_(piece.data(), numbers.in(1, 7000), numbers.in(0, 1) == 0, 1);
        if (result == nuv::kReadAborted) return;
      }
    });
    Numbers numbers(1000 * round + 20);
    const int enough = numbers.in(0, 300);
    EXPECT_TRUE(meru_test::eventually([&] {
      queue.clear();
      return pushed >= enough;
    }));
    queue.abort();
    if (numbers.in(0, 1) == 0) queue.clear();
  }
  expect_all_blocks_back(&pool);
}

TEST(RawPacketsStress, WaitersOfBothKindsAreSentAwayByAnAbortAtAnyMoment) {
  for (int round = 0; round < 200; ++round) {
    nuv::BlockingQueue<long long> queue;
    std::atomic<int> sent_away{0};
    Threads threads;
    for (int i = 0; i < 2; ++i) {
      threads.start([&] {
        while (queue._push_back_(1, 1, true, 0) == nuv::kQueueDone) {
        }
        ++sent_away;
      });
      threads.start([&] {
        long long value = 0;
        while (queue._get_front_(value, true, 0, true) == nuv::kQueueDone) EXPECT_EQ(value, 1);
        ++sent_away;
      });
    }
    if (round % 2 == 0) std::this_thread::yield();
    queue.abort();
    threads.join();
    EXPECT_EQ(sent_away, 4);
  }
}

}  // namespace

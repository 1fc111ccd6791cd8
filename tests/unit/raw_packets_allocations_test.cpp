// Counts what the pool and the queues allocate, and lets allocations fail, by standing in for the allocator of the
// whole program: every malloc, calloc, realloc, aligned allocation and operator new (which calls malloc) of any thread
// counts.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <thread>
#include <vector>

#include "raw_packets/packet_stream_queue.h"
#include "support/sanitized.h"

namespace {
std::atomic<long> g_allocations{0};
std::atomic<bool> g_fail{false};

bool counted() {
  ++g_allocations;
  return !g_fail;
}
}  // namespace

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) { return counted() ? __libc_malloc(size) : nullptr; }
void* calloc(size_t count, size_t size) { return counted() ? __libc_calloc(count, size) : nullptr; }
void* realloc(void* block, size_t size) { return counted() ? __libc_realloc(block, size) : nullptr; }
void* memalign(size_t alignment, size_t size) { return counted() ? __libc_memalign(alignment, size) : nullptr; }
void* aligned_alloc(size_t alignment, size_t size) { return counted() ? __libc_memalign(alignment, size) : nullptr; }
int posix_memalign(void** out, size_t alignment, size_t size) {
  *out = counted() ? __libc_memalign(alignment, size) : nullptr;
  return *out != nullptr ? 0 : ENOMEM;
}
}
constexpr bool kReplaced = true;
#else
constexpr bool kReplaced = false;
#endif

namespace {

using nuv::MRMemNode;
using nuv::MRMemPool;
using nuv::MRPacketQueue;

constexpr int kMaxNodes = 500;

class RawPacketsAllocations : public testing::Test {
 protected:
  void SetUp() override {
    if (!kReplaced) GTEST_SKIP() << "the allocator cannot be replaced in this build";
    const long before = g_allocations;
    ::operator delete(::operator new(1));  // not a new expression, which the compiler may leave out
    ASSERT_EQ(g_allocations - before, 1) << "the allocator of this program counts";
  }

  /// What the packets of a second of video and sound look like, in every size class up to 64 KiB.
  static int packet_size(int i) { return i % 30 == 0 ? 60000 : i * 37 % 9000 + 1; }
};

/// Fails every allocation while it lives.
struct NoMemory {
  NoMemory() { g_fail = true; }
  ~NoMemory() { g_fail = false; }
};

void push(MRPacketQueue* queue, int size) {
  MRMemNode* node = queue->pool()->mr_malloc(size);
  ASSERT_NE(node, nullptr);
  ASSERT_EQ(queue->_push_back_(node, kMaxNodes, true, 0), nuv::kQueueDone);
}

TEST_F(RawPacketsAllocations, WarmPoolAllocatesNothing) {
  MRMemPool pool;
  std::vector<MRMemNode*> out(300, nullptr);
  const auto go_round = [&] {
    for (int i = 0; i < 300; ++i) out[static_cast<size_t>(i)] = pool.mr_malloc(packet_size(i));
    for (MRMemNode* node : out) nuv::release_node(node);
  };
  go_round();
  const long before = g_allocations;
  EXPECT_GE(before, 300);
  for (int round = 0; round < 20; ++round) go_round();
  EXPECT_EQ(g_allocations - before, 0);
}

TEST_F(RawPacketsAllocations, WarmQueuesAllocateNothingPerPacket) {
  MRPacketQueue queue(nullptr);
  nuv::BlockingQueue<long long> stamps;
  std::vector<unsigned char> buffer(1 << 16);
  const auto go_round = [&] {
    int bytes = 0;
    for (int i = 0; i < kMaxNodes; ++i) {
      push(&queue, packet_size(i));
      ASSERT_EQ(stamps._push_back_(i, 2147483647, false, 0), nuv::kQueueDone);
      bytes += packet_size(i);
    }
    // In pieces that end within nodes, with a node left over each time.
    for (int n = 0; bytes > 0; bytes -= n) {
      n = std::min(bytes, 32768);
      ASSERT_EQ(queue._read_nbytes_(buffer.data(), n, true, 0), nuv::kReadDone);
    }
    long long stamp = 0;
    while (stamps._get_front_(stamp, false, 0, true) == nuv::kQueueDone) {
    }
    ASSERT_EQ(stamp, kMaxNodes - 1);
  };
  go_round();
  const long before = g_allocations;
  for (int round = 0; round < 20; ++round) go_round();
  EXPECT_EQ(g_allocations - before, 0);
}

TEST_F(RawPacketsAllocations, WarmQueueAllocatesNothingBetweenThreads) {
  constexpr int kSize = 3000;
  constexpr int kPackets = 20000;
  MRPacketQueue queue(nullptr);
  std::vector<unsigned char> buffer(kSize * (kMaxNodes + 2));
  // As many blocks as can be out at a time: those queued, the writer's next, and the reader's.
  for (int i = 0; i < kMaxNodes + 2; ++i) {
    ASSERT_EQ(queue._push_back_(queue.pool()->mr_malloc(kSize), kMaxNodes + 2, false, 0), nuv::kQueueDone);
  }
  ASSERT_EQ(queue._read_nbytes_(buffer.data(), kSize * (kMaxNodes + 2), true, 0), nuv::kReadDone);

  std::atomic<int> arrived{0};
  std::atomic<bool> begin{false};
  const auto wait_for_begin = [&] {
    ++arrived;
    while (!begin) std::this_thread::yield();
  };
  std::atomic<int> written{0};
  std::thread writer([&] {
    wait_for_begin();
    for (int i = 0; i < kPackets; ++i) push(&queue, kSize);
    ++written;
    while (begin) std::this_thread::yield();  // a thread's end is not of the packets' steady state
  });
  while (arrived < 1) std::this_thread::yield();
  const long before = g_allocations;
  begin = true;
  for (int i = 0; i < kPackets * 3; ++i) {
    ASSERT_EQ(queue._read_nbytes_(buffer.data(), kSize / 3, true, 0), nuv::kReadDone);
  }
  EXPECT_EQ(g_allocations - before, 0);
  begin = false;
  writer.join();
  EXPECT_EQ(written, 1);
}

TEST_F(RawPacketsAllocations, PoolWithoutMemoryReturnsNullAndIsUnchanged) {
  MRMemPool pool;
  MRMemNode* held = pool.mr_malloc(10);
  {
    const NoMemory no_memory;
    EXPECT_EQ(pool.mr_malloc(10), nullptr);
    EXPECT_EQ(pool.mr_malloc(100000), nullptr);
  }
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
  MRMemNode* next = pool.mr_malloc(10);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->id, 1);
  pool.mr_free(held);
  pool.mr_free(next);
}

TEST_F(RawPacketsAllocations, CachedBlocksAreHandedOutAndTakenBackWithoutMemory) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(10);
  MRMemNode* other = pool.mr_malloc(5000);
  {
    const NoMemory no_memory;
    for (int i = 0; i < 3; ++i) {
      nuv::release_node(node);
      pool.mr_free(other);
      EXPECT_EQ(pool.cached_count(), 2);
      EXPECT_EQ(pool.mr_malloc(20), node);
      EXPECT_EQ(pool.mr_malloc(6000), other);
    }
  }
  pool.mr_free(node);
  pool.mr_free(other);
}

TEST_F(RawPacketsAllocations, BlockThatCannotBeCachedForWantOfMemoryGoesBackToTheSystem) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(10);
  pool.mr_clear();  // with the class's list, which caching would have to make again
  {
    const NoMemory no_memory;
    pool.mr_free(node);
  }
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
  node = pool.mr_malloc(10);
  EXPECT_EQ(node->id, 1);
  pool.mr_free(node);
  EXPECT_EQ(pool.cached_count(), 1);
}

TEST_F(RawPacketsAllocations, PushWithoutMemoryIsRefusedAsFull) {
  nuv::BlockingQueue<long long> queue;
  for (const bool block : {false, true}) {
    const NoMemory no_memory;
    EXPECT_EQ(queue._push_back_(1, 500, block, 0), nuv::kQueueFull);
  }
  EXPECT_EQ(queue.size(), 0);
  EXPECT_EQ(queue._push_back_(2, 500, true, 0), nuv::kQueueDone);
  long long value = 0;
  EXPECT_EQ(queue._get_front_(value, true, 0, true), nuv::kQueueDone);
  EXPECT_EQ(value, 2);
  const NoMemory no_memory;
  EXPECT_EQ(queue._push_back_(3, 500, true, 0), nuv::kQueueDone) << "with the room of the one before";
}

TEST_F(RawPacketsAllocations, BytesThatCannotBeKeptForTheNextReadAreLost) {
  MRPacketQueue queue(nullptr);
  push(&queue, 100);
  push(&queue, 100);
  std::vector<unsigned char> buffer(1000);
  {
    const NoMemory no_memory;
    // 200 bytes fit a cached block of the smallest class, 500 do not.
    EXPECT_EQ(queue._read_nbytes_(buffer.data(), 1000, false, 0), nuv::kReadNoMoreData);
    EXPECT_EQ(queue.cursor_remain(), 200);
  }
  push(&queue, 300);
  {
    const NoMemory no_memory;
    EXPECT_EQ(queue._read_nbytes_(buffer.data(), 1000, false, 0), nuv::kReadNoMoreData);
    EXPECT_EQ(queue.cursor_remain(), 0);
  }
  push(&queue, 7);
  EXPECT_EQ(queue._read_nbytes_(buffer.data(), 7, false, 0), nuv::kReadDone);
}

}  // namespace

#include "raw_packets/mem_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

using nuv::MRMemNode;
using nuv::MRMemPool;
using testing::ElementsAre;

constexpr int kHeader = 56;

unsigned char* start_of(MRMemNode* node) { return reinterpret_cast<unsigned char*>(node); }
uintptr_t address(const unsigned char* byte) { return reinterpret_cast<uintptr_t>(byte); }

/// Caches a block of the smallest class for each of `count`, with the serial numbers in rising order.
void cache_blocks(MRMemPool* pool, int count) {
  std::vector<MRMemNode*> nodes;
  for (int i = 0; i < count; ++i) nodes.push_back(pool->mr_malloc(100));
  for (MRMemNode* node : nodes) pool->mr_free(node);
}

struct SizeClassCase {
  int request, capacity;
};
class MemPoolSizeClass : public testing::TestWithParam<SizeClassCase> {};

TEST_P(MemPoolSizeClass, BlockHasTheClassAndHoldsThePayload) {
  MRMemPool pool;
  const int request = GetParam().request;
  MRMemNode* node = pool.mr_malloc(request);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->capacity, GetParam().capacity);
  EXPECT_EQ(node->size, request);
  EXPECT_EQ(address(node->data) % 16, 0U);
  EXPECT_GE(node->data, start_of(node) + kHeader);
  EXPECT_LE(node->data + request, start_of(node) + node->capacity);
  std::memset(node->data, 0xA5, static_cast<size_t>(request));  // the address sanitizer watches the borders
  pool.mr_free(node);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, MemPoolSizeClass,
    testing::Values(SizeClassCase{0, 512}, SizeClassCase{1, 512}, SizeClassCase{441, 512}, SizeClassCase{442, 2048},
                    SizeClassCase{512, 2048}, SizeClassCase{513, 2048}, SizeClassCase{1977, 2048},
                    SizeClassCase{1978, 4096}, SizeClassCase{2048, 4096}, SizeClassCase{2049, 4096},
                    SizeClassCase{4025, 4096}, SizeClassCase{4026, 4160}, SizeClassCase{4096, 4160},
                    SizeClassCase{4097, 8192}, SizeClassCase{8121, 8192}, SizeClassCase{8122, 8256},
                    SizeClassCase{8190, 8256}, SizeClassCase{8192, 8256}, SizeClassCase{8193, 12288},
                    SizeClassCase{12217, 12288}, SizeClassCase{12218, 12352}, SizeClassCase{12288, 12352},
                    SizeClassCase{1048505, 1048576}, SizeClassCase{1048506, 1048640}));

TEST(MemPoolSizeClassLimits, SizesThatNoBlockCanHaveAreRefused) {
  EXPECT_EQ(MRMemPool::size_class(2147479481, 16), 2147479552);
  EXPECT_EQ(MRMemPool::size_class(2147479482, 16), 2147479616);
  EXPECT_EQ(MRMemPool::size_class(2147479552, 16), 2147479616) << "the largest";
  EXPECT_EQ(MRMemPool::size_class(2147479553, 16), -1);
  EXPECT_EQ(MRMemPool::size_class(INT_MAX - 70, 16), -1);
  EXPECT_EQ(MRMemPool::size_class(INT_MAX, 16), -1);
  EXPECT_EQ(MRMemPool::size_class(-1, 16), -1);
  EXPECT_EQ(MRMemPool::size_class(INT_MIN, 16), -1);
}

TEST(MemPoolSizeClassLimits, EveryRequestFitsWhateverTheAlignment) {
  for (const int align : {0, 1, 2, 4, 8, 16}) {
    // The system's blocks start at a multiple of 16, so the header moves only with an alignment of 16.
    const int payload = align == 16 ? 64 : kHeader;
    for (int n = 0; n <= 70000; ++n) {
      const int capacity = MRMemPool::size_class(n, align);
      ASSERT_GE(capacity, payload + n) << "n=" << n << " align=" << align;
      ASSERT_LE(capacity, n + 4096 + 64) << "n=" << n << " align=" << align;
    }
  }
}

TEST(MemPoolSizeClassLimits, ASmallerAlignmentNeedsLessRoomForTheHeader) {
  EXPECT_EQ(MRMemPool::size_class(449, 8), 512);
  EXPECT_EQ(MRMemPool::size_class(450, 8), 2048);
  EXPECT_EQ(MRMemPool::size_class(8192, 8), 8248);
  for (const int align : {0, 1}) {
    EXPECT_EQ(MRMemPool::size_class(456, align), 512) << align;
    EXPECT_EQ(MRMemPool::size_class(457, align), 2048) << align;
    EXPECT_EQ(MRMemPool::size_class(8192, align), 8248) << align;
  }
}

TEST(MemPoolTest, RefusedSizesLeaveThePoolUnchanged) {
  MRMemPool pool;
  for (const int size : {-1, INT_MIN, INT_MAX, INT_MAX - 4094}) EXPECT_EQ(pool.mr_malloc(size), nullptr) << size;
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
  MRMemNode* node = pool.mr_malloc(1);
  EXPECT_EQ(node->id, 0);
  pool.mr_free(node);
}

TEST(MemPoolTest, NewBlockIsZeroedButForWhatItSays) {
  MRMemPool pool;
  const auto before = static_cast<int32_t>(std::time(nullptr));
  std::vector<MRMemNode*> nodes;
  for (int i = 0; i < 3; ++i) {
    MRMemNode* node = nodes.emplace_back(pool.mr_malloc(10 + i));
    EXPECT_EQ(node->size, 10 + i);
    EXPECT_EQ(node->pts, 0);
    EXPECT_EQ(node->reserved, 0);
    EXPECT_EQ(node->id, i);
    EXPECT_EQ(node->capacity, 512);
    EXPECT_EQ(node->ref_count, 1);
    EXPECT_GE(node->alloc_time, before);
    EXPECT_LE(node->alloc_time, static_cast<int32_t>(std::time(nullptr)));
    EXPECT_EQ(node->pool, &pool);
  }
  for (MRMemNode* node : nodes) pool.mr_free(node);
}

TEST(MemPoolTest, PayloadFollowsTheHeaderAtTheAlignmentAskedFor) {
  for (const int align : {0, 1, 2, 4, 8}) {
    MRMemPool pool(align);
    MRMemNode* node = pool.mr_malloc(457);
    EXPECT_EQ(node->data, start_of(node) + kHeader) << align;
    EXPECT_LE(node->data + node->size, start_of(node) + node->capacity) << align;
    pool.mr_free(node);
  }
}

TEST(MemPoolTest, AlignmentsThatBlocksCannotHaveMeanSixteen) {
  for (const int align : {-1, 3, 12, 32, INT_MAX, INT_MIN}) {
    MRMemPool pool(align);
    MRMemNode* node = pool.mr_malloc(4096);
    EXPECT_EQ(node->capacity, 4160) << align;
    EXPECT_EQ(address(node->data) % 16, 0U) << align;
    pool.mr_free(node);
  }
}

TEST(MemPoolTest, BlocksOfAClassAreReusedFirstInFirstOut) {
  MRMemPool pool;
  MRMemNode* a = pool.mr_malloc(100);
  MRMemNode* b = pool.mr_malloc(100);
  MRMemNode* other = pool.mr_malloc(1000);
  pool.mr_free(b);
  pool.mr_free(other);
  pool.mr_free(a);
  EXPECT_EQ(pool.cached_count(), 3);
  EXPECT_EQ(pool.cached_bytes(), 512 + 512 + 2048);
  EXPECT_EQ(pool.mr_malloc(441), b);
  EXPECT_EQ(pool.cached_count(), 2);
  EXPECT_EQ(pool.cached_bytes(), 512 + 2048);
  EXPECT_EQ(pool.mr_malloc(0), a);
  EXPECT_EQ(pool.cached_count(), 1);
  MRMemNode* fresh = pool.mr_malloc(1);
  EXPECT_EQ(a->id, 0);
  EXPECT_EQ(b->id, 1);
  EXPECT_EQ(other->id, 2);
  EXPECT_EQ(fresh->id, 3) << "the cached block is of another class";
  for (MRMemNode* node : {a, b, fresh}) pool.mr_free(node);
}

TEST(MemPoolTest, ReusedBlockKeepsItsStampsAndIsGivenANewSizeAndTime) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(300);
  node->pts = 1234;
  node->reserved = 5678;
  node->alloc_time = 0;
  const unsigned char* data = node->data;
  pool.mr_free(node);
  EXPECT_EQ(node->size, 0) << "while cached";
  EXPECT_EQ(node->ref_count, 0);
  const auto before = static_cast<int32_t>(std::time(nullptr));
  ASSERT_EQ(pool.mr_malloc(200), node);
  EXPECT_EQ(node->size, 200);
  EXPECT_EQ(node->ref_count, 1);
  EXPECT_GE(node->alloc_time, before);
  EXPECT_EQ(node->data, data);
  EXPECT_EQ(node->pts, 1234);
  EXPECT_EQ(node->reserved, 5678);
  EXPECT_EQ(node->id, 0);
  EXPECT_EQ(node->capacity, 512);
  pool.mr_free(node);
}

TEST(MemPoolTest, BlockIsCachedWithItsLastReference) {
  MRMemPool pool;
  MRMemNode* node = pool.mr_malloc(10);
  ++node->ref_count;
  pool.mr_free(node);
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(node->ref_count, 1);
  EXPECT_EQ(node->size, 10);
  pool.mr_free(node);
  EXPECT_EQ(pool.cached_count(), 1);
  EXPECT_EQ(node->ref_count, 0);
}

TEST(MemPoolTest, NullAndNodesWithoutReferencesAreLeftAlone) {
  MRMemPool pool;
  pool.mr_free(nullptr);
  MRMemNode* node = pool.mr_malloc(10);
  pool.mr_free(node);
  pool.mr_free(node);
  EXPECT_EQ(node->ref_count, 0);
  node->ref_count = -3;
  pool.mr_free(node);
  EXPECT_EQ(node->ref_count, -3);
  EXPECT_EQ(pool.cached_count(), 1);
  EXPECT_EQ(pool.cached_bytes(), 512);
}

TEST(MemPoolTest, ClearEmptiesTheCacheAndGoesOnCounting) {
  MRMemPool pool;
  MRMemNode* out = pool.mr_malloc(5000);
  cache_blocks(&pool, 3);
  pool.mr_clear();
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
  MRMemNode* node = pool.mr_malloc(100);
  EXPECT_EQ(node->id, 4);
  pool.mr_free(node);
  pool.mr_free(out);
  EXPECT_EQ(pool.cached_count(), 2) << "a block that was out is cached as ever";
  EXPECT_EQ(pool.mr_malloc(5000), out);
  pool.mr_free(out);
  pool.mr_clear();
  pool.mr_clear();
  EXPECT_EQ(pool.cached_count(), 0);
}

TEST(MemPoolTest, BlockStillOutIsNotTouchedByThePoolsEnd) {
  MRMemNode* node = nullptr;
  {
    MRMemPool pool;
    node = pool.mr_malloc(3);
    std::memcpy(node->data, "abc", 3);
  }
  EXPECT_EQ(std::memcmp(node->data, "abc", 3), 0);
  EXPECT_EQ(node->ref_count, 1);
  std::free(node);
}

TEST(MemPoolBound, FullCacheGivesBlocksBack) {
  MRMemPool pool;
  pool.set_max_cached(2);
  cache_blocks(&pool, 4);
  EXPECT_EQ(pool.cached_count(), 2);
  EXPECT_EQ(pool.cached_bytes(), 1024);
  std::vector<MRMemNode*> nodes;
  std::vector<int> ids;
  for (int i = 0; i < 3; ++i) ids.push_back(nodes.emplace_back(pool.mr_malloc(0))->id);
  EXPECT_THAT(ids, ElementsAre(0, 1, 4)) << "the last two went back to the system";
  for (MRMemNode* node : nodes) pool.mr_free(node);
}

TEST(MemPoolBound, ZeroCachesNothing) {
  MRMemPool pool;
  pool.set_max_cached(0);
  cache_blocks(&pool, 3);
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
}

TEST(MemPoolBound, LoweredBoundEvictsTheOldestWithTheNextRelease) {
  MRMemPool pool;
  MRMemNode* out = pool.mr_malloc(1000);
  cache_blocks(&pool, 5);
  pool.set_max_cached(2);
  EXPECT_EQ(pool.cached_count(), 5) << "not by itself";
  pool.mr_free(out);
  EXPECT_EQ(pool.cached_count(), 2);
  EXPECT_EQ(pool.cached_bytes(), 1024);
  MRMemNode* oldest = pool.mr_malloc(0);
  EXPECT_EQ(oldest->id, 4) << "1, 2 and 3 were evicted, 0 was given back";
  pool.mr_free(oldest);
}

TEST(MemPoolBound, EvictionGoesOverAllClasses) {
  MRMemPool pool;
  MRMemNode* out = pool.mr_malloc(0);
  std::vector<MRMemNode*> nodes;
  for (const int size : {100, 1000, 3000, 5000, 10000}) {
    for (int i = 0; i < 2; ++i) nodes.push_back(pool.mr_malloc(size));
  }
  for (MRMemNode* node : nodes) pool.mr_free(node);
  EXPECT_EQ(pool.cached_count(), 10);
  EXPECT_EQ(pool.cached_bytes(), 2 * (512 + 2048 + 4096 + 8192 + 12288));
  pool.set_max_cached(1);
  pool.mr_free(out);
  EXPECT_EQ(pool.cached_count(), 1);
  EXPECT_THAT(pool.cached_bytes(), testing::AnyOf(512, 2048, 4096, 8192, 12288)) << "of the one that is left";
  pool.set_max_cached(0);
  cache_blocks(&pool, 1);
  EXPECT_EQ(pool.cached_count(), 0);
  EXPECT_EQ(pool.cached_bytes(), 0);
}

TEST(MemPoolBound, NegativeBoundIsNone) {
  MRMemPool pool;
  pool.set_max_cached(0);
  pool.set_max_cached(-7);
  cache_blocks(&pool, 300);
  EXPECT_EQ(pool.cached_count(), 300);
}

TEST(MemPoolBound, CacheStaysWithinACountOf32Bits) {
  MRMemPool pool;
  // The blocks say that they are large: so much memory need not be there for the test.
  std::vector<MRMemNode*> nodes;
  for (const int capacity : {1 << 30, (1 << 30) - 1, 1}) {
    nodes.push_back(pool.mr_malloc(0));
    nodes.back()->capacity = capacity;
  }
  pool.mr_free(nodes[0]);
  pool.mr_free(nodes[1]);
  EXPECT_EQ(pool.cached_bytes(), INT_MAX);
  pool.mr_free(nodes[2]);
  EXPECT_EQ(pool.cached_bytes(), INT_MAX) << "given back to the system";
  EXPECT_EQ(pool.cached_count(), 2);
}

TEST(MemPoolHook, IsCalledWithEachLastReferenceBeforeTheBlockIsCached) {
  MRMemPool pool;
  std::vector<int> seen;
  pool.set_on_release([&](MRMemNode*& node) {
    EXPECT_EQ(pool.cached_count(), static_cast<int>(seen.size())) << "the pool can be used in the hook";
    EXPECT_EQ(node->size, 10);
    EXPECT_EQ(node->ref_count, 0);
    seen.push_back(node->id);
  });
  MRMemNode* a = pool.mr_malloc(10);
  MRMemNode* b = pool.mr_malloc(10);
  ++a->ref_count;
  pool.mr_free(a);
  EXPECT_THAT(seen, ElementsAre());
  nuv::release_node(b);
  pool.mr_free(a);
  EXPECT_THAT(seen, ElementsAre(1, 0));
  EXPECT_EQ(pool.cached_count(), 2);
}

TEST(MemPoolHook, CanKeepTheBlock) {
  MRMemPool pool;
  MRMemNode* kept = nullptr;
  pool.set_on_release([&](MRMemNode*& node) { std::swap(kept, node); });
  MRMemNode* node = pool.mr_malloc(10);
  pool.mr_free(node);
  EXPECT_EQ(kept, node);
  EXPECT_EQ(pool.cached_count(), 0);
  std::free(kept);
}

}  // namespace

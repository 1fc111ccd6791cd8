#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "raw_packets/spare_links.h"

namespace nuv {

class iMemNodePool;

/// The header at the start of every block of a pool; the payload follows it within the same block. Whoever holds a
/// reference may read and write the payload, `size` up to what the block holds, and `pts`; the rest is the pool's.
struct MRMemNode {
  unsigned char* data;             ///< start of the payload
  int32_t size;                    ///< payload bytes in use; 0 while the block is cached
  int64_t pts;                     ///< time stamp in microseconds; a reused block keeps the one it had
  int64_t reserved;                ///< zero on a new block, not used
  int32_t id;                      ///< serial number of the block in its pool, from 0, kept across reuse
  int32_t capacity;                ///< size of the whole block in bytes, this header included
  std::atomic<int32_t> ref_count;  ///< references held; 0 while the block is cached
  int32_t alloc_time;              ///< wall-clock seconds of the last mr_malloc, cut to 32 bits
  iMemNodePool* pool;              ///< owner; null for a block that only `free` takes back
};

// The layout of a block is fixed: payloads start at or after byte 56.
static_assert(std::is_standard_layout_v<MRMemNode> && std::is_trivially_destructible_v<MRMemNode>);
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t) && std::atomic<int32_t>::is_always_lock_free);
static_assert(offsetof(MRMemNode, data) == 0 && offsetof(MRMemNode, size) == 8);
static_assert(offsetof(MRMemNode, pts) == 16 && offsetof(MRMemNode, reserved) == 24);
static_assert(offsetof(MRMemNode, id) == 32 && offsetof(MRMemNode, capacity) == 36);
static_assert(offsetof(MRMemNode, ref_count) == 40 && offsetof(MRMemNode, alloc_time) == 44);
static_assert(offsetof(MRMemNode, pool) == 48 && sizeof(MRMemNode) == 56);

/// How a node finds its pool again.
class iMemNodePool {
 public:
  virtual void lock_ref() = 0;    ///< takes the lock under which release_node changes reference counts
  virtual void unlock_ref() = 0;  ///< gives it back
  /// Drops one reference, and takes the block back when it was the last.
  virtual void mr_free(MRMemNode* node) = 0;

 protected:
  // Never deleted through this interface.
  ~iMemNodePool() = default;
};

/// Gives a reference back from outside a pool; null is ignored, and so is a node without references (a negative count
/// becomes 0). A node without a pool is reported on standard error and given to `free`. Any thread.
void release_node(MRMemNode* node);

/// Hands out reference-counted blocks in a few size classes and keeps those that come back for reuse, first in first
/// out within a class, so that a steady stream of packets causes no allocation. It owns every block that it made; what
/// is still handed out when it is destroyed is left alone, and must not be released any more. Any thread.
class MRMemPool final : public iMemNodePool {
 public:
  using ReleaseHook = std::function<void(MRMemNode*&)>;

  /// @param align  alignment of the payloads in bytes: 0 (none) or a power of two up to 16; anything else means 16
  explicit MRMemPool(int32_t align = kDefaultAlign);
  ~MRMemPool();
  MRMemPool(const MRMemPool&) = delete;
  MRMemPool& operator=(const MRMemPool&) = delete;

  /// @param size  payload bytes wanted, 0 allowed
  /// @return a node with one reference and `size` set; null when `size` is negative or too large for 32-bit block
  ///         sizes, or when there is no memory
  MRMemNode* mr_malloc(int size);

  /// Drops one reference. The last one sends the block to the cache, or to the system when the cache is full. Null and
  /// nodes without references are ignored.
  void mr_free(MRMemNode* node) override;

  /// Releases every cached block to the system. Serial numbers go on.
  void mr_clear();

  void lock_ref() override { m_ref_mutex.lock(); }
  void unlock_ref() override { m_ref_mutex.unlock(); }

  /// Bounds the number of cached blocks; negative means no bound, as at the start. Takes effect with the next release.
  void set_max_cached(int32_t max_cached);
  /// Sets what is called with every node whose last reference is dropped, before it is cached; it may set the pointer
  /// to null and so keep the block, which is then its own to free. It runs on the releasing thread. To be set before
  /// nodes are released.
  void set_on_release(ReleaseHook hook) { m_on_release = std::move(hook); }

  int32_t cached_bytes();  ///< block sizes of all cached blocks; at most 2147483647, a block beyond is not cached
  int32_t cached_count();  ///< number of cached blocks

  /// @return the size of the block that holds a payload of `n` bytes with this alignment, header included; -1 when `n`
  ///         is negative or no 32-bit size is large enough
  static int32_t size_class(int32_t n, int32_t align);

 private:
  static constexpr int32_t kDefaultAlign = 16;
  using NodeList = std::list<MRMemNode*>;

  // All of these want m_mutex.
  MRMemNode* take_cached(int32_t capacity);
  MRMemNode* make_block(int32_t capacity);
  void account_removed(const MRMemNode* node);
  bool cache(MRMemNode* node);
  void free_block(MRMemNode* node);
  void evict(int32_t count);

  const int32_t m_align;
  std::unordered_map<int32_t, NodeList> m_free_lists;  // guarded by m_mutex; cached blocks by size, oldest first
  ReleaseHook m_on_release;
  std::mutex m_mutex;
  std::recursive_mutex m_ref_mutex;  // recursive: mr_free may be called while it is held
  int32_t m_cached_bytes = 0;        // guarded by m_mutex, like all that follows
  int32_t m_cached_count = 0;
  int32_t m_next_id = 0;
  int32_t m_max_cached = -1;
  SpareLinks<MRMemNode*> m_links;  // one for each block handed out, so that taking it back never allocates
};

}  // namespace nuv

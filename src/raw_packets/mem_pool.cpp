#include "raw_packets/mem_pool.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <new>

namespace nuv {

namespace {

constexpr int32_t kHeaderSize = 56;
constexpr int32_t kPage = 4096;
constexpr int32_t kMaxSize = std::numeric_limits<int32_t>::max();

/// Holds a pool's reference lock.
class RefLock {
 public:
  explicit RefLock(iMemNodePool* pool) : m_pool(pool) { m_pool->lock_ref(); }
  ~RefLock() { m_pool->unlock_ref(); }
  RefLock(const RefLock&) = delete;
  RefLock& operator=(const RefLock&) = delete;

 private:
  iMemNodePool* m_pool;
};

/// Lowers the count unless it is below 1 already.
/// @return whether this was the last reference
bool drop_reference(std::atomic<int32_t>* ref_count) {
  int32_t count = ref_count->load();
  while (count > 0 && !ref_count->compare_exchange_weak(count, count - 1)) {
  }
  return count == 1;
}

/// The payload's place in a block: behind the header, at the next multiple of the alignment.
unsigned char* payload_of(void* block, int32_t align) {
  unsigned char* data = static_cast<unsigned char*>(block) + kHeaderSize;
  if (align == 0) return data;
  const auto step = static_cast<uintptr_t>(align);
  const uintptr_t past = reinterpret_cast<uintptr_t>(data) % step;
  return past == 0 ? data : data + (step - past);
}

void report_node_without_pool() {
  std::fputs("[ERROR] *** MRMemNode's pool is NULL, exit\n", stderr);
  std::fflush(stderr);
}

}  // namespace

void release_node(MRMemNode* node) {
  if (node == nullptr) return;
  if (node->pool == nullptr) {
    report_node_without_pool();
    std::free(node);
    return;
  }
  iMemNodePool* const pool = node->pool;
  const RefLock lock(pool);
  // The pool lowers counts without this lock, so a count read here can be outdated when it is changed.
  int32_t count = node->ref_count.load();
  while (count > 1 && !node->ref_count.compare_exchange_weak(count, count - 1)) {
  }
  if (count == 1) pool->mr_free(node);
  if (count < 0) node->ref_count.compare_exchange_strong(count, 0);
}

MRMemPool::MRMemPool(int32_t align)
    : m_align(align >= 0 && align <= kDefaultAlign && (align & (align - 1)) == 0 ? align : kDefaultAlign) {}

MRMemPool::~MRMemPool() { mr_clear(); }

int32_t MRMemPool::size_class(int32_t n, int32_t align) {
  if (n < 0) return -1;
  // Without an alignment a block still starts with its header, which takes one byte more than the slack below.
  const int64_t step = std::max(align, 1);
  const int64_t slack = step + kHeaderSize - 1;
  int64_t size = (int64_t{n} + kPage - 1) / kPage * kPage;
  if (n <= 512) {
    size = 512;
  } else if (n <= 2048) {
    size = 2048;
  }
  if (size - n < slack) {
    // The next class that has room for the header: each limit is that class less 55.
    if (size < 457) {
      size = 512;
    } else if (size < 1993) {
      size = 2048;
    } else if (size < 4041) {
      size = 4096;
    } else {
      size = (size + slack) / step * step;
    }
  }
  return size <= kMaxSize ? static_cast<int32_t>(size) : -1;
}

MRMemNode* MRMemPool::take_cached(int32_t capacity) {
  const auto list = m_free_lists.find(capacity);
  if (list == m_free_lists.end() || list->second.empty()) return nullptr;
  MRMemNode* node = list->second.front();
  m_links.pop_front(&list->second);
  account_removed(node);
  return node;
}

void MRMemPool::account_removed(const MRMemNode* node) {
  --m_cached_count;
  m_cached_bytes = std::max(m_cached_bytes - node->capacity, 0);
}

MRMemNode* MRMemPool::make_block(int32_t capacity) {
  void* block = std::malloc(static_cast<size_t>(capacity));
  if (block == nullptr) return nullptr;
  try {
    // What the block needs when it comes back, so that taking it back cannot fail.
    m_free_lists.try_emplace(capacity);
    m_links.add();
  } catch (const std::bad_alloc&) {
    std::free(block);
    return nullptr;
  }
  auto* node = new (block) MRMemNode();
  node->data = payload_of(block, m_align);
  node->id = m_next_id;
  node->capacity = capacity;
  node->pool = this;
  m_next_id = m_next_id < kMaxSize ? m_next_id + 1 : 0;
  return node;
}

MRMemNode* MRMemPool::mr_malloc(int size) {
  const int32_t capacity = size_class(size, m_align);
  if (capacity < 0) return nullptr;
  MRMemNode* node = nullptr;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    node = take_cached(capacity);
    if (node == nullptr) node = make_block(capacity);
    if (node == nullptr) return nullptr;
    node->size = size;
    node->alloc_time = static_cast<int32_t>(std::time(nullptr));
  }
  // Nobody else sees the node yet.
  node->ref_count = 1;
  return node;
}

void MRMemPool::mr_free(MRMemNode* node) {
  if (node == nullptr || !drop_reference(&node->ref_count)) return;
  if (m_on_release) m_on_release(node);
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (node == nullptr) {
    m_links.remove();  // the hook has kept the block, which will not come back
  } else if (m_max_cached >= 0 && m_cached_count >= m_max_cached) {
    free_block(node);
    evict(m_cached_count - m_max_cached);
  } else if (!cache(node)) {
    free_block(node);
  }
}

bool MRMemPool::cache(MRMemNode* node) {
  if (node->capacity > kMaxSize - m_cached_bytes) return false;
  try {
    // Neither allocates, but for the list after mr_clear has removed it.
    m_links.push_back(&m_free_lists[node->capacity], node);
  } catch (const std::bad_alloc&) {
    return false;
  }
  node->size = 0;
  m_cached_bytes += node->capacity;
  ++m_cached_count;
  return true;
}

void MRMemPool::free_block(MRMemNode* node) {
  std::free(node);
  m_links.remove();
}

void MRMemPool::evict(int32_t count) {
  for (auto& entry : m_free_lists) {
    NodeList& nodes = entry.second;
    for (; count > 0 && !nodes.empty(); --count) {
      MRMemNode* node = nodes.front();
      m_links.pop_front(&nodes);
      account_removed(node);
      free_block(node);
    }
  }
}

void MRMemPool::mr_clear() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& entry : m_free_lists) {
    for (MRMemNode* node : entry.second) std::free(node);
  }
  m_free_lists.clear();
  m_cached_bytes = 0;
  m_cached_count = 0;
}

void MRMemPool::set_max_cached(int32_t max_cached) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_max_cached = max_cached;
}

int32_t MRMemPool::cached_bytes() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_cached_bytes;
}

int32_t MRMemPool::cached_count() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_cached_count;
}

}  // namespace nuv

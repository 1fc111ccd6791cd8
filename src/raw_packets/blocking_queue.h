#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <new>
#include <type_traits>

#include "raw_packets/spare_links.h"

namespace nuv {

/// What the operations of a queue return.
constexpr int kQueueDone = 0;
constexpr int kQueueAborted = 1;
constexpr int kQueueEmpty = 2;
constexpr int kQueueFull = 3;

/// First-in first-out queue between threads, with the bound given by each push. Any number of producers and consumers.
///
/// A push wakes one waiting consumer and a pop one waiting producer. So producers that wait at the same time should
/// give the same bound, and only the one consumer of a queue should look at its front without removing it; otherwise
/// the wake-up can reach one that has no use for it.
///
/// No operation throws. Once there are links for the largest number of elements that were queued at a time, none
/// allocates.
template <class T>
class BlockingQueue {
  static_assert(std::is_trivially_copyable_v<T>, "elements are copied under the lock and must not throw");

 public:
  BlockingQueue() = default;
  /// Aborts. Elements still queued are not disposed of: a subclass that owns them clears first.
  virtual ~BlockingQueue() { abort(); }
  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  /// Appends `value` when fewer than `max_size` elements are queued.
  /// @param max_size    0 and less: always full
  /// @param block       wait for room without limit; `timeout_ms` is then not used
  /// @param timeout_ms  not blocking: wait once, this long at most; 0 does not wait. A wake-up that brings no room ends
  ///                    the wait early.
  /// @return kQueueDone, kQueueAborted, or kQueueFull (blocking too, if there is no memory for one element more)
  int _push_back_(const T& value, int max_size, bool block, unsigned timeout_ms);

  /// Copies the oldest element to `value`, and removes it when `pop` is set. `value` is unchanged on failure.
  /// @param block, timeout_ms  as for _push_back_, waiting for an element
  /// @return kQueueDone, kQueueAborted (even with elements queued), or kQueueEmpty
  int _get_front_(T& value, bool block, unsigned timeout_ms, bool pop);

  /// Marks the end: behind what is queued, now or later, every get finds an empty value. Needs no memory, as a pushed
  /// end marker would.
  void end();

  /// Sends every waiting thread away and makes every later push and get return kQueueAborted, for good. What is queued
  /// stays until clear.
  void abort();

  /// Disposes of all elements, oldest first, and removes them. Works on an aborted queue too, and does not end an
  /// abort.
  void clear();

  bool aborted();  ///< whether abort was called
  int size();      ///< elements queued

 protected:
  // Called with m_mutex held; they must not throw.
  virtual void on_node_deque_event(const T& /*value*/) {}  ///< after an element was removed by _get_front_
  virtual void on_node_enque_event(const T& /*value*/) {}  ///< after an element was appended
  virtual void on_clear_event() {}                         ///< at the end of clear

  std::atomic<bool> m_abort{false};  // set under m_mutex, never cleared; read ahead of the lock as a shortcut only
  std::mutex m_mutex;
  std::condition_variable_any m_not_empty;  // waited on by consumers
  std::condition_variable_any m_not_full;   // waited on by producers
  std::list<T> m_queue;                     // guarded by m_mutex
  std::function<void(T&)> m_free_func;      // disposes of elements in clear; set before the queue is used

 private:
  template <class Ready>
  int wait(std::unique_lock<std::mutex>* lock, std::condition_variable_any* changed, bool block, unsigned timeout_ms,
           int failure, Ready ready);

  SpareLinks<T> m_links;  // guarded by m_mutex
  bool m_ended = false;   // guarded by m_mutex
};

template <class T>
template <class Ready>
int BlockingQueue<T>::wait(std::unique_lock<std::mutex>* lock, std::condition_variable_any* changed, bool block,
                           unsigned timeout_ms, int failure, Ready ready) {
  for (;;) {
    if (m_abort) return kQueueAborted;
    if (ready()) return kQueueDone;
    if (block) {
      changed->wait(*lock);
    } else if (timeout_ms == 0) {
      return failure;
    } else {
      // Whether it timed out is not asked: a wake-up that comes with the deadline has been used up by this thread, and
      // nobody else is told of what is there now.
      changed->wait_until(*lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms));
      timeout_ms = 0;
    }
  }
}

template <class T>
int BlockingQueue<T>::_push_back_(const T& value, int max_size, bool block, unsigned timeout_ms) {
  if (m_abort) return kQueueAborted;
  std::unique_lock<std::mutex> lock(m_mutex);
  const int result = wait(&lock, &m_not_full, block, timeout_ms, kQueueFull,
                          [&] { return static_cast<int32_t>(m_queue.size()) < max_size; });
  if (result != kQueueDone) return result;
  try {
    m_links.push_back(&m_queue, value);
  } catch (const std::bad_alloc&) {
    return kQueueFull;
  }
  on_node_enque_event(value);
  m_not_empty.notify_one();
  return kQueueDone;
}

template <class T>
int BlockingQueue<T>::_get_front_(T& value, bool block, unsigned timeout_ms, bool pop) {
  if (m_abort) return kQueueAborted;
  std::unique_lock<std::mutex> lock(m_mutex);
  const int result =
      wait(&lock, &m_not_empty, block, timeout_ms, kQueueEmpty, [&] { return m_ended || !m_queue.empty(); });
  if (result != kQueueDone) return result;
  if (m_queue.empty()) {
    value = T();
    return kQueueDone;
  }
  value = m_queue.front();
  if (!pop) return kQueueDone;
  m_links.pop_front(&m_queue);
  on_node_deque_event(value);
  m_not_full.notify_one();
  return kQueueDone;
}

template <class T>
void BlockingQueue<T>::end() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
  }
  m_not_empty.notify_all();
}

template <class T>
void BlockingQueue<T>::abort() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_abort = true;
  }
  m_not_empty.notify_all();
  m_not_full.notify_all();
}

template <class T>
void BlockingQueue<T>::clear() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  while (!m_queue.empty()) {
    if (m_free_func) m_free_func(m_queue.front());
    m_links.pop_front(&m_queue);
  }
  on_clear_event();
  m_not_full.notify_all();
}

template <class T>
bool BlockingQueue<T>::aborted() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_abort;
}

template <class T>
int BlockingQueue<T>::size() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<int>(m_queue.size());
}

}  // namespace nuv

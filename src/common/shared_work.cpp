#include "common/shared_work.h"

#include <algorithm>
#include <system_error>

namespace {

constexpr int kMostThreads = 4;

}  // namespace

int SharedWork::usual_threads() {
  return std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, kMostThreads);
}

SharedWork::SharedWork(int threads) {
  m_helpers.reserve(static_cast<size_t>(std::max(threads - 1, 0)));
  try {
    for (int thread = 1; thread < threads; ++thread) m_helpers.emplace_back(&SharedWork::help, this, thread);
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): those that are there do the work
  }
}

SharedWork::~SharedWork() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_over = true;
  }
  m_begun.notify_all();
  for (std::thread& helper : m_helpers) helper.join();
}

void SharedWork::run(int pieces, const Work& work) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_work = &work;
  m_next = 0;
  m_pieces = pieces;
  m_begun.notify_all();
  take_pieces(0, &lock);
  m_done.wait(lock, [this] { return m_running == 0; });
}

void SharedWork::help(int thread) {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_begun.wait(lock, [this] { return m_over || m_next < m_pieces; });
    if (m_over) return;
    take_pieces(thread, &lock);
    if (m_running == 0) m_done.notify_one();
  }
}

void SharedWork::take_pieces(int thread, std::unique_lock<std::mutex>* lock) {
  while (m_next < m_pieces) {
    const int piece = m_next++;
    ++m_running;
    lock->unlock();
    (*m_work)(piece, thread);
    lock->lock();
    --m_running;
  }
}

#include "common/forked.h"

#include <pthread.h>

#include <atomic>

namespace {

std::atomic<unsigned> g_generation{0};

const bool g_watched = [] {
  return pthread_atfork(nullptr, nullptr, [] { g_generation.fetch_add(1, std::memory_order_relaxed); }) == 0;
}();

}  // namespace

unsigned fork_generation() {
  static_cast<void>(g_watched);
  return g_generation.load(std::memory_order_relaxed);
}

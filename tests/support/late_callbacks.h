#pragma once

#include <atomic>

namespace meru_test {

/// Counts the callbacks that come after the stop has returned. Outlives every session of a test.
struct LateCallbacks {
  std::atomic<bool> stopped{false};
  std::atomic<int> late{0};
  std::atomic<int> in_time{0};

  static void callback(int, const char*, void* user) {
    auto* self = static_cast<LateCallbacks*>(user);
    ++(self->stopped ? self->late : self->in_time);
  }
};

}  // namespace meru_test

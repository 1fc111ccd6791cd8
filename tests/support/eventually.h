#pragma once

#include <chrono>
#include <thread>

namespace meru_test {

/// Asks until the condition holds. For what the library offers no notice of.
/// @return false when it still does not hold at the deadline
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace meru_test

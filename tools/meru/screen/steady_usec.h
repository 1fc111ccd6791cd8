#pragma once

#include <chrono>
#include <cstdint>

namespace meru_tool {

/// Now on the steady clock (CLOCK_MONOTONIC), in microseconds.
inline int64_t steady_usec() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace meru_tool

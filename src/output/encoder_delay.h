#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

namespace MR {

/// How much video an encoder holds at the moment: written by the pushing thread, read by the writing threads.
class EncoderDelay {
 public:
  void pushed(int64_t pts_usec) {
    if (m_first_pushed == kNone) m_first_pushed = pts_usec;
    m_pushed = pts_usec;
  }
  void returned(int64_t dts_usec) { m_returned = dts_usec; }

  /// @return microseconds from the last packet to the last frame; -1 when no packet has been returned yet
  int64_t held_usec() const {
    const int64_t returned = m_returned;
    return returned == kNone ? -1 : m_pushed - returned;
  }
  /// @return microseconds pushed so far
  int64_t pushed_usec() const { return m_pushed - m_first_pushed; }

 private:
  static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();
  std::atomic<int64_t> m_first_pushed{kNone};
  std::atomic<int64_t> m_pushed{kNone};
  std::atomic<int64_t> m_returned{kNone};
};

}  // namespace MR

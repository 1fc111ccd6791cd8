#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace meru_bench {

/// How long something took, each time.
class Durations {
 public:
  using Duration = std::chrono::steady_clock::duration;

  void add(Duration duration) { m_durations.push_back(duration); }
  size_t count() const { return m_durations.size(); }
  /// @param share  0 the shortest, 0.5 the median, 1 the longest
  /// @return milliseconds that no more than this share of them stays below; 0 when there are none
  double quantile_ms(double share) const;

 private:
  std::vector<Duration> m_durations;
};

}  // namespace meru_bench

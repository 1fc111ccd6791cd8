#include "durations.h"

#include <algorithm>
#include <cmath>

namespace meru_bench {

double Durations::quantile_ms(double share) const {
  if (m_durations.empty()) return 0;
  std::vector<Duration> sorted = m_durations;
  std::sort(sorted.begin(), sorted.end());
  const double rank = std::ceil(share * static_cast<double>(sorted.size()));
  const auto index = std::min(sorted.size() - 1, static_cast<size_t>(std::max(rank - 1, 0.0)));
  return std::chrono::duration<double, std::milli>(sorted[index]).count();
}

}  // namespace meru_bench

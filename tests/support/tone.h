#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace meru_test {

/// What part of a sound's energy is a tone of this frequency: 1 for that tone alone, 0 for silence.
inline double tone_share(const std::vector<int16_t>& samples, int rate, double hz) {
  std::complex<double> sum;
  double energy = 0;
  for (size_t n = 0; n < samples.size(); ++n) {
    const double sample = samples[n];
    sum += sample * std::polar(1.0, -2 * M_PI * hz * static_cast<double>(n) / rate);
    energy += sample * sample;
  }
  return energy > 0 ? 2 * std::norm(sum) / (energy * static_cast<double>(samples.size())) : 0;
}

inline int loudest(const std::vector<int16_t>& samples) {
  int most = 0;
  for (const int16_t sample : samples) most = std::max(most, std::abs(static_cast<int>(sample)));
  return most;
}

/// Where clicks begin: loud samples with a quarter of a second without any before them.
inline std::vector<int64_t> click_starts(const std::vector<int16_t>& samples, int rate) {
  constexpr int kLoud = 5000;
  std::vector<int64_t> starts;
  int64_t last_loud = -rate;
  for (int64_t n = 0; n < static_cast<int64_t>(samples.size()); ++n) {
    if (std::abs(static_cast<int>(samples[static_cast<size_t>(n)])) < kLoud) continue;
    if (n - last_loud > rate / 4) starts.push_back(n);
    last_loud = n;
  }
  return starts;
}

}  // namespace meru_test

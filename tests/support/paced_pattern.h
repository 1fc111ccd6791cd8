#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/pattern.h"
#include "support/probe.h"

namespace meru_test {

/// The numbers of the moving pattern in a movie, each with its time in the movie.
class PacedPattern {
 public:
  PacedPattern(const std::string& movie, int width, int height) : m_numbers(Pattern::numbers_in(movie, width, height)) {
    for (const ProbedPacket& packet : probe_packets(movie, "v:0")) m_times.push_back(packet.pts);
    std::sort(m_times.begin(), m_times.end());
    EXPECT_EQ(m_numbers.size(), m_times.size());
  }

  const std::vector<int>& numbers() const { return m_numbers; }

  /// The longest time from one picture to the next.
  double longest_gap() const {
    double longest = 0;
    for (size_t i = 1; i < m_times.size(); ++i) longest = std::max(longest, m_times[i] - m_times[i - 1]);
    return longest;
  }

  /// Expects each picture at the time of its number. The client may be held up and a number stand for too long, so a
  /// part of the pictures may show an old one; a number that is not due yet no picture shows.
  /// @param seconds  how far off they may be
  /// @param most     the part that must not show an old one
  void expect_in_step(double seconds, double most) const {
    ASSERT_EQ(m_numbers.size(), m_times.size());
    ASSERT_GT(m_numbers.size(), 10U);
    std::vector<double> behind;  // how long after the client's beginning the movie begins, by each picture
    for (size_t i = 0; i < m_numbers.size(); ++i) {
      EXPECT_GE(m_numbers[i], 0) << "picture " << i;
      behind.push_back(m_times[i] - m_numbers[i] / static_cast<double>(Pattern::kPerSecond));
    }
    std::vector<double> sorted = behind;
    std::sort(sorted.begin(), sorted.end());
    const double usual = sorted[sorted.size() / 2];
    EXPECT_GE(sorted.front(), usual - seconds) << "a number is shown before its time";
    const auto in_step = std::count_if(behind.begin(), behind.end(), [&](double b) { return b <= usual + seconds; });
    EXPECT_GE(static_cast<double>(in_step), most * static_cast<double>(behind.size()));
  }

 private:
  std::vector<int> m_numbers;
  std::vector<double> m_times;
};

}  // namespace meru_test

#pragma once

#include <array>
#include <cstddef>

/// A fixed text buffer that records are collected in. It always holds a terminated string and never allocates.
class LineCache {
 public:
  /// Appends the value in decimal, nothing when it is 0, and then the separator. What does not fit is left out.
  void write_int(int value, char sep) { write_int64(value, sep); }
  void write_int64(long long value, char sep);

  size_t size() const { return m_size; }
  const char* data() const { return m_text.data(); }
  void reset();

 private:
  static constexpr size_t kCapacity = 1024;

  std::array<char, kCapacity> m_text{};
  size_t m_size = 0;
};

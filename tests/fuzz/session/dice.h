#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace session_fuzz {

/// The random choices of one thread. What a round does follows from its seed, as far as the threads leave it so.
class Dice {
 public:
  explicit Dice(uint64_t seed) : m_random(seed) {}

  /// From 0 to `count` - 1.
  int below(int count) { return static_cast<int>(m_random() % static_cast<uint64_t>(count)); }
  int between(int low, int high) { return low + below(high - low + 1); }
  bool one_in(int count) { return below(count) == 0; }
  template <class T, size_t N>
  T of(const T (&values)[N]) {
    return values[static_cast<size_t>(below(static_cast<int>(N)))];
  }
  template <class T>
  const T& of(const std::vector<T>& values) {
    return values[static_cast<size_t>(below(static_cast<int>(values.size())))];
  }
  /// For a thread of its own.
  Dice branch() { return Dice(m_random()); }
  uint64_t seed() { return m_random(); }

 private:
  std::mt19937_64 m_random;
};

/// Which call of the library a thread is in, for the report of a hang.
class CallSite {
 public:
  explicit CallSite(const char* call);
  ~CallSite();
  CallSite(const CallSite&) = delete;
  CallSite& operator=(const CallSite&) = delete;
  static void print_all();

 private:
  std::atomic<const char*>* m_slot;
};

/// Ends the program with the seed of the round.
[[noreturn]] void violated(const char* what);
inline void require(bool holds, const char* what) {
  if (!holds) violated(what);
}

}  // namespace session_fuzz

/// Calls an exported function: CALL(MERU_stop, &session).
#define CALL(function, ...)                         \
  ([&] {                                            \
    const ::session_fuzz::CallSite site(#function); \
    return function(__VA_ARGS__);                   \
  }())

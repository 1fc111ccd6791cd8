#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <thread>

#include "support/eventually.h"

namespace meru_test {

inline long entries_of(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

/// What a process leaks when something is left behind.
struct ProcessCounts {
  long threads;
  long descriptors;

  static ProcessCounts now() {
    // The thread sanitizer starts one of its own with the first thread, whoever makes that.
    static const bool has_had_a_thread = (std::thread([] {}).join(), true);
    static_cast<void>(has_had_a_thread);
    return {entries_of("/proc/self/task"), entries_of("/proc/self/fd")};
  }
  bool operator==(const ProcessCounts& other) const {
    return threads == other.threads && descriptors == other.descriptors;
  }
};

inline void PrintTo(const ProcessCounts& counts, std::ostream* out) {
  *out << counts.threads << " threads and " << counts.descriptors << " descriptors";
}

/// Whatever a test has left behind is gone again in the end.
inline void expect_nothing_left_since(const ProcessCounts& before) {
  EXPECT_TRUE(eventually([&] { return ProcessCounts::now() == before; }))
      << testing::PrintToString(ProcessCounts::now()) << ", before " << testing::PrintToString(before);
}

/// How long this thread has been kept waiting for a processor so far, in microseconds; 0 where the system does not say.
inline long long waited_for_processor_usec() {
  std::ifstream in("/proc/thread-self/schedstat");
  long long ran = 0;
  long long waited = 0;
  in >> ran >> waited;
  return in ? waited / 1000 : 0;
}

}  // namespace meru_test

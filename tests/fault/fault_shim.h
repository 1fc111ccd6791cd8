#pragma once

#include <atomic>

namespace meru_test {

/// What can be made to fail.
enum class Fault {
  kOpen,    ///< a file of the folder is opened
  kRead,    ///< a file of the folder is read, by our code or by FFmpeg for it
  kWrite,   ///< a file of the folder is written
  kSeek,    ///< a place in a file of the folder is gone to
  kThread,  ///< our code makes a thread
  kMemory,  ///< our code asks for memory: C++'s, C's, or that of an object of FFmpeg's
};

/// What came of it; in memory that the parent process sees.
struct FaultReport {
  static constexpr int kMostFrames = 24;

  std::atomic<long> calls{0};         ///< calls of the kind
  char failed[64] = {};               ///< the function that was made to fail, empty when there was none
  void* callers[kMostFrames] = {};    ///< from where; null behind the last
  unsigned long library_address = 0;  ///< where the library was loaded...
  unsigned long library_end = 0;      ///< ... up to
};

/// From now on the `at`-th call of the kind fails, and no other. The folder and the report must stay.
void begin_faults(Fault kind, long at, const char* folder, FaultReport* report);
/// Lets everything through again.
void end_faults();

}  // namespace meru_test

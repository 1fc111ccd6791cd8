#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace meru_bench {

/// The receiver of an output that is written to a named pipe: it takes what comes, except while it is told to stall.
/// Then the pipe fills up, and the thread that writes the output waits in the system.
class StallingReader {
 public:
  /// Makes the pipe and begins to read. Throws std::runtime_error when that fails.
  explicit StallingReader(std::string path);
  /// Reads to the end, so the writer must have closed the pipe, or never have opened it.
  ~StallingReader();
  StallingReader(const StallingReader&) = delete;
  StallingReader& operator=(const StallingReader&) = delete;

  void stall(bool stalled);
  /// The bytes read so far.
  int64_t bytes() const { return m_bytes; }

 private:
  void run();

  const std::string m_path;
  int m_keeper = -1;  // lets the reader's end be opened, whether or not there is a writer
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stalled = false;  // guarded by m_mutex
  std::atomic<int64_t> m_bytes{0};
  int m_pipe = -1;
  std::thread m_thread;
};

}  // namespace meru_bench

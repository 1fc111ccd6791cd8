#pragma once

#include <sys/resource.h>

#include <csignal>

namespace meru_test {

/// Limits the size of every file that this process writes; a write beyond it fails like one on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    m_handler = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_before);
    const rlimit limited{bytes, m_before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &m_before);
    signal(SIGXFSZ, m_handler);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit m_before{};
  sighandler_t m_handler;
};

}  // namespace meru_test

#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace meru_test {

/// Holds a file the way a recorder does, until it is destroyed.
class HeldFile {
 public:
  HeldFile(const std::string& path, int flags, bool locked) : m_fd(open(path.c_str(), flags | O_CLOEXEC)) {
    if (m_fd < 0 || (locked && flock(m_fd, LOCK_EX | LOCK_NB) != 0)) throw std::runtime_error("not held: " + path);
  }
  ~HeldFile() { close(m_fd); }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

 private:
  int m_fd;
};

}  // namespace meru_test

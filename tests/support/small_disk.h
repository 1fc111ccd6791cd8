#pragma once

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/temp_dir.h"

namespace meru_test {

/// A disk of a few megabytes, in memory.
class SmallDisk {
 public:
  explicit SmallDisk(int megabytes)
      : m_mounted(
            mount("tmpfs", m_dir.path().c_str(), "tmpfs", 0, ("size=" + std::to_string(megabytes) + "m").c_str()) == 0),
        m_error(errno) {}
  ~SmallDisk() {
    if (m_mounted) umount(m_dir.path().c_str());
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool mounted() const { return m_mounted; }
  std::string why_not() const { return std::strerror(m_error); }
  std::string file(const std::string& name) const { return m_dir.file(name); }

 private:
  TempDir m_dir;
  bool m_mounted;
  int m_error;
};

}  // namespace meru_test

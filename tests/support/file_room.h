#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace meru_test {

inline struct stat status_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}
/// The bytes of a file, and those that it takes on the disk.
inline int64_t size_of(const std::string& path) { return status_of(path).st_size; }
inline int64_t room_of(const std::string& path) { return int64_t{status_of(path).st_blocks} * 512; }

/// Whether a file system can set room aside for a file. @param path  a file to try it with
inline bool sets_room_aside(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const bool can = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, 4096) == 0;
  close(fd);
  return can;
}

}  // namespace meru_test

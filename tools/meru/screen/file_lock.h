#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <utility>

#include "byte_source.h"

namespace meru_tool {

/// Says that a file of a recording is in use, by who records it or by who repairs from it. The system ends it with the
/// process, however that ends, so an index that nobody holds was left behind.
class FileLock {
 public:
  /// Whether a path may be a link to the file.
  enum class Links { kFollow, kRefuse };

  /// For a recording that is about to begin: holds the file, which is made, empty, when it is not there. To be kept
  /// until the file is complete, or has been removed. Throws a Failure when it cannot be made, is no regular file, or
  /// when somebody else holds it or has it open for writing. Where the file system knows no locks, nothing is held.
  /// @param what  the file as messages call it: "the index a"
  static FileLock to_record(const std::string& what, const std::string& path, Links links);
  /// For a repair. @return nothing when a recording or another repair holds the index or writes into it, or when it has
  ///         gone. Throws a Failure when that cannot be told.
  static std::optional<FileLock> to_repair(const std::string& path);

  /// What the file is now; all zero when that cannot be told.
  struct stat state() const;
  /// Whether there was no such file before.
  bool made() const { return m_made; }
  /// Removes the file, unless another one has its name by now.
  void remove() const;

 private:
  FileLock(std::string path, Fd fd, bool made) : m_path(std::move(path)), m_fd(std::move(fd)), m_made(made) {}

  std::string m_path;
  Fd m_fd;
  bool m_made;
};

/// Whether a process of this machine has the file open for writing. A file of another user, or on a file system that
/// cannot tell, counts as not written.
bool is_being_written(const std::string& path);

}  // namespace meru_tool

#pragma once

#include <optional>
#include <string>
#include <utility>

#include "byte_source.h"

namespace meru_tool {

/// Says that a side index is in use, by who records it or by who repairs from it. The system ends it with the process,
/// however that ends, so an index that nobody holds was left behind.
class IndexLock {
 public:
  /// For a recording that is about to begin: holds the index, which is made, empty, when it is not there. To be kept
  /// until the index has been removed. Throws a Failure when it cannot be made or somebody else holds it. Where the
  /// file system knows no locks, nothing is held.
  static IndexLock to_record(const std::string& path);
  /// For a repair. @return nothing when a recording or another repair holds the index or writes into it, or when it has
  ///         gone
  static std::optional<IndexLock> to_repair(const std::string& path);

 private:
  explicit IndexLock(Fd fd) : m_fd(std::move(fd)) {}

  Fd m_fd;
};

/// Whether a process of this machine has the file open for writing. A file of another user, or on a file system that
/// cannot tell, counts as not written.
bool is_being_written(const std::string& path);

}  // namespace meru_tool

#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "screen/file_lock.h"

namespace meru_tool {

/// Keeps a recording from replacing a movie that is needed: one that somebody writes, or that was cut short and can
/// still be repaired. What is no regular file needs no guard.
class MovieGuard {
 public:
  explicit MovieGuard(std::string movie);
  /// Removes the file when it was made here and nothing was written.
  ~MovieGuard();
  MovieGuard(MovieGuard&& other) noexcept;
  MovieGuard(const MovieGuard&) = delete;
  MovieGuard& operator=(const MovieGuard&) = delete;
  MovieGuard& operator=(MovieGuard&&) = delete;

  /// Throws a Failure when somebody writes the movie, or an index beside it says that it is needed.
  void check() const;
  /// The recording begins: as check(), and when the movie lacks its table. Makes the movie, empty, when it is not
  /// there.
  void hold();
  /// Nothing was recorded: what the recording has made or overwritten is removed.
  void discard() const;

 private:
  void check_index() const;
  void check_whole() const;

  std::string m_movie;
  std::optional<FileLock> m_lock;
  struct stat m_before {};  // of the movie that there was
};

/// Throws a Failure when the path leads to what is no index that a recording may begin: anything but a regular file of
/// the user's own without content.
void check_free_index(const std::string& path);

/// Whether what was written of such a file plays by itself.
bool plays_when_cut(const std::string& movie);

}  // namespace meru_tool

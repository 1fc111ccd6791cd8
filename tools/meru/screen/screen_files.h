#pragma once

#include <optional>
#include <string>
#include <vector>

#include "screen/file_lock.h"
#include "screen/movie_guard.h"
#include "screen/screen_options.h"

namespace meru_tool {

/// The files that a recording of the screen writes: its movies, and the side index. That one lies beside the movie for
/// as long as the movie is not complete: what is found there later was left behind by a crash.
class ScreenFiles {
 public:
  /// Says where the index is to be, empty for nowhere.
  static std::string index_for(const ScreenOptions& options);

  /// Repairs what crashes have left in the movie's folder. Throws a Failure when the recording would replace what is
  /// still needed.
  explicit ScreenFiles(const ScreenOptions& options);
  /// Removes the index: the movie is complete, or nothing was recorded.
  ~ScreenFiles();
  ScreenFiles(const ScreenFiles&) = delete;
  ScreenFiles& operator=(const ScreenFiles&) = delete;

  /// The recording begins. Throws a Failure when one of the files is somebody else's, or needed. Only now is that
  /// certain: another recording may have begun, or crashed, since this object was made.
  void hold();
  /// The movie did not become complete, and needs its index.
  void keep_index() { m_index_kept = true; }
  /// Nothing was recorded: the movies are removed.
  void discard_movies() const;

 private:
  void hold_index();

  std::vector<MovieGuard> m_movies;
  std::string m_index;
  std::optional<FileLock> m_index_lock;
  bool m_index_kept = false;
};

}  // namespace meru_tool

#pragma once

#include <optional>
#include <string>

#include "screen/index_lock.h"
#include "screen/screen_options.h"

namespace meru_tool {

/// The side index of a recording of the screen. It lies beside the movie for as long as that is not complete: what is
/// found there later was left behind by a crash.
class ScreenIndex {
 public:
  /// Says where it is to be, empty for nowhere.
  static std::string path_for(const ScreenOptions& options);

  /// Repairs what crashes have left in the movie's folder. Throws a Failure when the movie is one that was cut short
  /// and could not be repaired, because the recording would replace it.
  ScreenIndex(const std::string& movie, std::string path);

  /// The movie is complete.
  void remove() const;

 private:
  std::string m_path;
  std::optional<IndexLock> m_lock;
};

}  // namespace meru_tool

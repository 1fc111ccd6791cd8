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
  /// Removes the index: the movie is complete, or nothing was recorded.
  ~ScreenIndex();
  ScreenIndex(const ScreenIndex&) = delete;
  ScreenIndex& operator=(const ScreenIndex&) = delete;

  /// The recording begins. Throws a Failure when another one has the index.
  void hold();
  /// The movie did not become complete, and needs its index.
  void leave() { m_left = true; }

 private:
  std::string m_path;
  std::optional<IndexLock> m_lock;
  bool m_left = false;
};

}  // namespace meru_tool

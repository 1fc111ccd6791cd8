#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "repair_run.h"

namespace meru_tool {

/// How the name of an index goes on behind that of its movie: "movie.mp4.meru-index" belongs to "movie.mp4".
constexpr char kIndexSuffix[] = ".meru-index";

/// The movie of an index of such a name, so that nothing takes its beginning for a protocol; empty for another name.
std::string movie_of_index(const std::string& index);
/// The last repaired movie beside one whose index has served; empty when there is none.
std::string repaired_movie_of(const std::string& movie);

/// How the user is told of what was found and done.
struct RecoverTalk {
  std::function<void(const std::string&)> say;
  std::function<void(const std::string&)> complain;  ///< of what could not be repaired
  RepairShow show;
  bool tell_of_used = true;  ///< whether an index that is in use is worth a line
};

struct RecoverResult {
  int found = 0;                 ///< indexes, those in use among them
  int exit_code = EXIT_SUCCESS;  ///< 1 when a movie could not be repaired, 130 when the user stopped it
};

/// Finds the indexes in the folder, not in those below, and repairs the movie of each that nobody holds into a new file
/// beside it: "movie.repaired.mp4", or "movie.repaired-2.mp4" when that name is taken. The movie stays as it is. When
/// the new one plays, or the movie does as it is, the index is renamed, "movie.mp4.meru-index.done", so that it is not
/// found again. Throws a Failure when the folder cannot be read.
RecoverResult recover_folder(const std::string& folder, const RecoverTalk& talk);

/// The same for a recording that is about to begin, all of it told on standard error. Never throws for a movie that
/// cannot be repaired: it is told in one line. Throws a Failure when the user stops it. The library's log is nobody's
/// afterwards, so this comes before the recording's own Diagnostics.
/// @param folder  empty for the one the process works in
void recover_left_behind(const std::string& folder);

}  // namespace meru_tool

#pragma once

#include <cstdlib>
#include <string>

namespace meru_tool {

/// What is repaired and into what, as the user says it.
struct RepairFiles {
  std::string broken, index, output;
};

/// How a repair has ended.
struct RepairResult {
  int exit_code = EXIT_SUCCESS;  ///< 0 only when a playable movie came out, 130 when it was stopped
  std::string failure;           ///< why there is no movie, or not the whole one; empty when there is
  int code = 0;                  ///< the library's
  std::string text;              ///< the library's, empty when there is none
  bool stopped = false;
  double progress = 0;  ///< 0 to 1
  long long packets = 0, bytes = 0;
  double duration = 0;  ///< in seconds
  int ignored_lines = 0, damaged_lines = 0;

  /// What was repaired, in a few words: "repaired 3.960 s  296 packets  1.1 MiB".
  std::string summary() const;
  /// What the movie lacks, empty when that is nothing.
  std::string left_out() const;
};

/// How a repair shows itself while it runs.
struct RepairShow {
  bool progress = true;
  bool verbose = false;  ///< whether the library's log goes on to standard error, not its failures alone
};

/// A path as the library takes it: without the name of the protocol of files, and not beginning with what it drops.
std::string plain_path(const std::string& typed);

/// Refuses a path that the library would not read as it is. Throws a UsageError.
void check_readable_name(const std::string& path);

/// Repairs until it is done, or until a signal stops it, and looks whether the new movie plays. Of a repair that
/// restored no packet it leaves no file.
RepairResult run_repair(const RepairFiles& files, const RepairShow& show);

}  // namespace meru_tool

#pragma once

#include <string>
#include <vector>

#include "byte_source.h"

namespace meru_tool {

/// Takes in what the library and the encoders print on standard output and standard error, and finds the reason of a
/// failure in it: some failures of the library are told nowhere else.
class Diagnostics {
 public:
  /// Points both descriptors to the end of `log`, or to a file without a name when `log` is empty and `verbose` is not
  /// set. Throws a Failure when the log cannot be written.
  Diagnostics(const std::string& log, bool verbose);

  /// The last failure that was printed, empty when there is none.
  std::string last_failure() const;
  /// Whether the start was given up without a word to the callback.
  bool start_given_up() const;
  /// Whether the side index could not be opened or attached.
  bool index_failed() const;
  /// The failures of further outputs, which the library reports to nobody.
  std::vector<std::string> further_output_failures() const;

 private:
  std::vector<std::string> lines() const;

  Fd m_file;
  off_t m_begin = 0;  // where this run's part of the log begins
};

}  // namespace meru_tool

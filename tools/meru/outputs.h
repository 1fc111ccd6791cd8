#pragma once

#include <string>
#include <vector>

#include "diagnostics.h"

namespace meru_tool {

/// The outputs of a session, and what has become of each. From any thread.
class Outputs {
 public:
  /// @param main  the movie  @param further  the others, in the order of the record
  Outputs(const std::string& main, const std::vector<std::string>& further, const Diagnostics* diagnostics);

  bool any_live() const;
  /// How many seconds the opening may take. The library gives each read `timeout_sec`, and a further live output as a
  /// whole at least ten seconds.
  int longest_opening_sec(int timeout_sec) const;
  /// The state of each: "movie.mp4 recording, rtmp://host/app/*** failed (Connection refused)". Empty when the movie is
  /// a file and the only output: then there is nothing to tell.
  std::string states() const;
  size_t count() const { return m_urls.size(); }
  /// One of them, as it is shown: its address without secrets, "recording", "opening", "live", "connecting" or
  /// "failed", and why it failed.
  struct Shown {
    std::string name, state, failure;
  };
  Shown shown_output(size_t number) const;
  /// One text for each further output that has failed.
  std::vector<std::string> further_failures() const;

 private:
  std::vector<std::string> m_urls;
  const Diagnostics* m_diagnostics;
};

}  // namespace meru_tool

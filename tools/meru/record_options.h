#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "movie_options.h"

namespace meru_tool {

/// The options of `meru record` as they were typed.
struct RecordOptions : MovieOptions {
  bool test = false;
  std::string video_raw, y4m, audio_raw;  // a path, "-" for standard input, empty for none
  bool no_video = false, no_audio = false;
  std::string size, pix_fmt;
  bool realtime = false;

  bool wants_video() const { return !no_video && (test || !video_raw.empty() || !y4m.empty()); }
  bool wants_audio() const { return !no_audio && (test || !audio_raw.empty()); }
  bool test_video() const { return wants_video() && video_raw.empty() && y4m.empty(); }
  bool test_audio() const { return wants_audio() && audio_raw.empty(); }
};

/// Adds the subcommand `record` to the command.
CLI::App* add_record_command(CLI::App* app, RecordOptions* options);

/// Refuses what cannot work together, before anything is opened. Throws a UsageError.
void check_options(const CLI::App& cmd, const RecordOptions& options);

}  // namespace meru_tool

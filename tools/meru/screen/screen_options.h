#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "movie_options.h"
#include "screen/region.h"

namespace meru_tool {

/// The options of `meru screen` as they were typed.
struct ScreenOptions : MovieOptions {
  std::string display, region;
  std::string audio = "default";
  bool no_index = false, no_pointer = false, json = false;

  /// The region that was typed, empty for the whole screen. Throws a UsageError when it is none.
  Region wished_region() const;
};

/// Adds the subcommand `screen` to the command.
CLI::App* add_screen_command(CLI::App* app, ScreenOptions* options);

/// Refuses what cannot work together, before anything is opened. Throws a UsageError, or a Failure when an output
/// cannot be written.
void check_screen_options(const CLI::App& cmd, const ScreenOptions& options);

}  // namespace meru_tool

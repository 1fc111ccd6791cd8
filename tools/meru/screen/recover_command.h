#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace meru_tool {

/// The options of `meru recover` as they were typed.
struct RecoverOptions {
  std::string folder;
  std::string log;
  bool verbose = false;
};

/// Adds the subcommand `recover` to the command.
CLI::App* add_recover_command(CLI::App* app, RecoverOptions* options);

/// Repairs what was left behind in a folder and tells of it. Throws a Failure when the folder cannot be read.
/// @return the exit status: 0 when all was repaired or nothing was found, 1 when a movie could not be repaired, 130
/// when
///         it was stopped
int recover(const RecoverOptions& options);

}  // namespace meru_tool

#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "repair_run.h"

namespace meru_tool {

/// The options of `meru repair` as they were typed.
struct RepairOptions {
  RepairFiles files;
  bool json = false, force = false;
  std::string log;
  bool verbose = false;
};

/// Adds the subcommand `repair` to the command.
CLI::App* add_repair_command(CLI::App* app, RepairOptions* options);

/// Repairs and tells how it went. Throws a UsageError or a Failure when it cannot begin.
/// @return the exit status: 0 only when a playable movie came out, 130 when it was stopped
int repair(const RepairOptions& options);

}  // namespace meru_tool

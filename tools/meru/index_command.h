#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace meru_tool {

/// The options of `meru index` as they were typed.
struct IndexOptions {
  std::string file;
  bool json = false;
};

/// Adds the subcommand `index` to the command.
CLI::App* add_index_command(CLI::App* app, IndexOptions* options);

/// Prints what a side index says. Throws a Failure when the file is none.
int show_index(const IndexOptions& options);

}  // namespace meru_tool

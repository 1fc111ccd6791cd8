#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace meru_tool {

/// The options of `meru remux` as they were typed.
struct RemuxOptions {
  std::string movie, video, audio;  // paths, empty for none
  bool no_video = false, no_audio = false;
  std::string output, index, metadata;
  std::vector<std::string> also;
  double fps = 0;  // 0: what the stream says
  bool realtime = false;
  int progress_ms = 0;  // 0: the usual
  std::string log;
  bool verbose = false;
};

/// Adds the subcommand `remux` to the command.
CLI::App* add_remux_command(CLI::App* app, RemuxOptions* options);

/// Remuxes to the end. Throws a UsageError or a Failure when the movie could not be completed.
/// @return the exit status: 0 only when every output was completed
int remux(const RemuxOptions& options);

}  // namespace meru_tool

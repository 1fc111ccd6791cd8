#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace meru_tool {

/// The options of every recording as they were typed: what the movie is made of, where it goes, and for how long.
struct MovieOptions {
  int fps = 30, rate = 48000, channels = 2;
  std::string sample_fmt = "s16";

  std::string output, index, metadata;
  std::vector<std::string> also;
  int timeout_sec = 10;

  std::string preset = "veryfast", profile = "none", tune = "none", rate_control;
  int v_bitrate = 0, a_bitrate = 128, crf = 0, qp = 0, gop = 0;
  std::string out_size, color_space = "none", color_range;
  bool hardware = false;

  double seconds = 0;   // 0: until the sources end, or the user ends it
  int progress_ms = 0;  // 0: the usual
  std::string log;
  bool verbose = false;

  /// Rate_Control of the record: as it was said, or as the other options want it.
  int rate_control_mode() const;
};

void add_output_options(CLI::App* cmd, MovieOptions* options);
void add_encoder_options(CLI::App* cmd, MovieOptions* options);
void add_running_options(CLI::App* cmd, MovieOptions* options);

/// Refuses what cannot work together. Throws a UsageError, or a Failure when an output cannot be written.
/// @param sources  the files that are read
void check_movie_options(const CLI::App& cmd, const MovieOptions& options, const std::vector<std::string>& sources);

}  // namespace meru_tool

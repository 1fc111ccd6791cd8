#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "meru/movie_info.h"

namespace meru_tool {

struct Size {
  int width = 0, height = 0;
  bool given() const { return width > 0; }
};

/// Reads "1280x720". Throws a UsageError that names the option.
Size parse_size(const std::string& option, const std::string& text);

/// The options of `meru record` as they were typed.
struct RecordOptions {
  bool test = false;
  std::string video_raw, y4m, audio_raw;  // a path, "-" for standard input, empty for none
  bool no_video = false, no_audio = false;
  std::string size, pix_fmt, sample_fmt = "s16";
  int fps = 30, rate = 48000, channels = 2;

  std::string output, index, metadata;
  std::vector<std::string> also;
  int timeout_sec = 10;

  std::string preset = "veryfast", profile = "none", tune = "none", rate_control;
  int v_bitrate = 0, a_bitrate = 128, crf = 0, qp = 0, gop = 0;
  std::string out_size, color_space = "none", color_range;
  bool hardware = false;

  double seconds = 0;  // 0: to the end of the sources
  bool realtime = false;
  int progress_ms = 0;  // 0: the usual
  std::string log;
  bool verbose = false;

  bool wants_video() const { return !no_video && (test || !video_raw.empty() || !y4m.empty()); }
  bool wants_audio() const { return !no_audio && (test || !audio_raw.empty()); }
  bool test_video() const { return wants_video() && video_raw.empty() && y4m.empty(); }
  bool test_audio() const { return wants_audio() && audio_raw.empty(); }
};

/// Adds the subcommand `record` to the command.
CLI::App* add_record_command(CLI::App* app, RecordOptions* options);

/// Refuses what cannot work together, before anything is opened. Throws a UsageError.
void check_options(const CLI::App& cmd, const RecordOptions& options);

/// What the video source says of its images.
struct VideoShape {
  Size size;
  int pix_fmt = 28;
  int fps_num = 30, fps_den = 1;
  int color_range = 0;
  /// The record's frame rate: the nearest whole one at which no image falls on the time of the one before.
  int whole_fps() const;
};

/// The record of the recording. Its `other_urls` point into `options`.
MovieInfo make_movie_info(const RecordOptions& options, const VideoShape& shape);

}  // namespace meru_tool

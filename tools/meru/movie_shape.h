#pragma once

#include <string>

#include "meru/movie_info.h"
#include "movie_options.h"

namespace meru_tool {

struct Size {
  int width = 0, height = 0;
  bool given() const { return width > 0; }
};

/// Reads "1280x720". Throws a UsageError that names the option.
Size parse_size(const std::string& option, const std::string& text);

/// What the video source says of its images.
struct VideoShape {
  Size size;
  int pix_fmt = 28;
  int fps_num = 30, fps_den = 1;
  int color_range = 0;
  /// The record's frame rate: the nearest whole one at which no image falls on the time of the one before.
  int whole_fps() const;
};

/// Which tracks the movie has.
struct Tracks {
  bool video = true, sound = true;
};

/// The record of the recording. Its `other_urls` point into `options`.
MovieInfo make_movie_info(const MovieOptions& options, const VideoShape& shape, Tracks tracks);

}  // namespace meru_tool

#include "movie_shape.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "failure.h"
#include "formats.h"
#include "limit.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

constexpr int kMaxSide = 16384;
constexpr double kFpsTolerance = 1e-3;

}  // namespace

Size parse_size(const std::string& option, const std::string& text) {
  Size size;
  int end = 0;
  const int fields = std::sscanf(text.c_str(), "%5dx%5d%n", &size.width, &size.height, &end);
  if (fields != 2 || static_cast<size_t>(end) != text.size()) {
    throw UsageError(option + ": '" + text + "' is not a size like 1280x720");
  }
  for (const int side : {size.width, size.height}) {
    Limit{option.c_str(), static_cast<double>(side), 2, kMaxSide}.check();
  }
  return size;
}

int VideoShape::whole_fps() const {
  const double rate = static_cast<double>(fps_num) / fps_den;
  return std::max(1, static_cast<int>(std::ceil(rate - kFpsTolerance * std::max(1.0, rate))));
}

MovieInfo make_movie_info(const MovieOptions& o, const VideoShape& shape, Tracks tracks) {
  MovieInfo info;
  std::memset(&info, 0, sizeof(info));
  put(info.url, "-o", o.output);
  put(info.snapshot_path, "--index", o.index);
  put(info.metadata, "--metadata", o.metadata);
  for (size_t i = 0; i < o.also.size(); ++i) info.other_urls[i] = o.also[i].c_str();

  info.no_audio = !tracks.sound;
  info.a_bitrate = o.a_bitrate;
  info.sample_rate_src = info.sample_rate_dst = o.rate;
  info.channels = o.channels;
  info.sample_fmt = sample_format("--sample-fmt", o.sample_fmt).value;

  info.no_video = !tracks.video;
  info.rate_control = o.rate_control_mode();
  info.v_bitrate = o.v_bitrate;
  const Size out = o.out_size.empty() ? shape.size : parse_size("--out-size", o.out_size);
  if (!info.no_video && (out.width % 2 != 0 || out.height % 2 != 0)) {
    throw UsageError("images of odd width or height need an even --out-size");
  }
  info.width = out.width;
  info.height = out.height;
  info.width_src = shape.size.width;
  info.height_src = shape.size.height;
  info.fps = shape.whole_fps();
  info.gop_size = o.gop > 0 ? o.gop : 2 * info.fps;
  info.pix_fmt_src = shape.pix_fmt;
  const ColorSpace& colors = color_space("--color-space", o.color_space);
  info.colorspace = colors.colorspace;
  info.color_primaries = colors.primaries;
  info.color_trc = colors.trc;
  info.color_range = o.color_range.empty() ? shape.color_range : value_of(kColorRanges, "--color-range", o.color_range);
  info.preset = value_of(kPresets, "--preset", o.preset);
  info.profile = value_of(kProfiles, "--profile", o.profile);
  info.tune = value_of(kTunes, "--tune", o.tune);
  info.use_hardware = o.hardware;
  info.crf = o.crf;
  info.qp = o.qp;
  info.timeout_sec = o.timeout_sec;
  return info;
}

}  // namespace meru_tool

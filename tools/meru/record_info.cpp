#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "failure.h"
#include "formats.h"
#include "output_paths.h"
#include "record_options.h"

namespace meru_tool {

namespace {

constexpr int kMaxSide = 16384;
constexpr int kMaxFps = 1000;
constexpr double kFpsTolerance = 1e-3;

struct Limit {
  const char* option;
  double value, low, high;
};

void check_limit(const Limit& limit) {
  if (limit.value >= limit.low && limit.value <= limit.high) return;
  char text[160];
  std::snprintf(text, sizeof(text), "%s: %g is not between %g and %g", limit.option, limit.value, limit.low,
                limit.high);
  throw UsageError(text);
}

void check_sources(const RecordOptions& o) {
  if (!o.video_raw.empty() && !o.y4m.empty()) throw UsageError("--video-raw and --y4m are both given: one is enough");
  if (!o.test && o.video_raw.empty() && o.y4m.empty() && o.audio_raw.empty()) {
    throw UsageError("no source is given: --test, --video-raw, --y4m or --audio-raw");
  }
  if (!o.wants_video() && !o.wants_audio()) throw UsageError("nothing is left to record");
  const bool video_stdin = o.wants_video() && (o.video_raw == "-" || o.y4m == "-");
  if (video_stdin && o.wants_audio() && o.audio_raw == "-") {
    throw UsageError("--audio-raw: standard input is already the source of the images");
  }
  if (!o.video_raw.empty() && o.wants_video() && o.size.empty()) {
    throw UsageError("--video-raw needs the size of its images: --size WxH");
  }
  // The test picture is drawn in a format that suits the encoder, the test tone as 16-bit stereo.
  if (!o.pix_fmt.empty()) pixel_format("--pix-fmt", o.pix_fmt);
  sample_format("--sample-fmt", o.sample_fmt);
  if (o.test_audio() && (o.channels != 2 || o.sample_fmt != "s16")) {
    throw UsageError("--test: the test tone is stereo s16; --channels and --sample-fmt are for --audio-raw");
  }
}

void check_numbers(const RecordOptions& o) {
  const Limit limits[] = {
      {"--fps", static_cast<double>(o.fps), 1, kMaxFps},
      {"--rate", static_cast<double>(o.rate), 8000, 192000},
      {"--channels", static_cast<double>(o.channels), 1, 8},
      {"--timeout", static_cast<double>(o.timeout_sec), 0, 2000},
      {"--v-bitrate", static_cast<double>(o.v_bitrate), 0, 1000000},
      {"--a-bitrate", static_cast<double>(o.a_bitrate), 8, 1024},
  };
  for (const Limit& limit : limits) check_limit(limit);
}

/// Options whose absence is said by 0, so that a typed 0 has to be told from it.
void check_given(const CLI::App& cmd, const RecordOptions& o) {
  const Limit limits[] = {
      {"--crf", static_cast<double>(o.crf), 1, 51},
      {"--qp", static_cast<double>(o.qp), 1, 51},
      {"--gop", static_cast<double>(o.gop), 1, 100000},
      {"--seconds", o.seconds, 0.001, 1e7},
  };
  for (const Limit& limit : limits) {
    if (cmd.count(limit.option) > 0) check_limit(limit);
  }
}

int rate_control(const RecordOptions& o) {
  if (!o.rate_control.empty()) return value_of(kRateControls, "--rate-control", o.rate_control);
  if (o.crf > 0) return RATE_CONTROL_CBR;
  return o.qp > 0 ? RATE_CONTROL_CQP : RATE_CONTROL_ABR;
}

void check_encoders(const RecordOptions& o) {
  value_of(kPresets, "--preset", o.preset);
  value_of(kProfiles, "--profile", o.profile);
  value_of(kTunes, "--tune", o.tune);
  color_space("--color-space", o.color_space);
  if (!o.color_range.empty()) value_of(kColorRanges, "--color-range", o.color_range);
  const int mode = rate_control(o);
  if (o.crf > 0 && mode != RATE_CONTROL_CBR) throw UsageError("--crf works with --rate-control cbr only");
  if (o.qp > 0 && mode != RATE_CONTROL_CQP) throw UsageError("--qp works with --rate-control cqp only");
  if (mode == RATE_CONTROL_CQP && o.qp == 0) throw UsageError("--rate-control cqp needs --qp");
  if (mode == RATE_CONTROL_VBR && o.v_bitrate == 0) throw UsageError("--rate-control vbr needs --v-bitrate");
  if (mode == RATE_CONTROL_CBR && o.v_bitrate == 0 && o.crf == 0) {
    throw UsageError("--rate-control cbr needs --v-bitrate or --crf");
  }
  if (!o.out_size.empty()) {
    const Size out = parse_size("--out-size", o.out_size);
    if (out.width % 2 != 0 || out.height % 2 != 0) {
      throw UsageError("--out-size: width and height must be even, not " + o.out_size);
    }
  }
}

void check_outputs(const RecordOptions& o) {
  if (o.also.size() > 4) throw UsageError("--also: at most four further outputs");
  MovieInfo fits;
  put(fits.url, "-o", o.output);
  put(fits.snapshot_path, "--index", o.index);
  put(fits.metadata, "--metadata", o.metadata);
  if (o.output.empty()) throw UsageError("-o: the name is empty");
  check_output_files(o.output, o.index, o.also, {o.video_raw, o.y4m, o.audio_raw});
}

}  // namespace

Size parse_size(const std::string& option, const std::string& text) {
  Size size;
  int end = 0;
  const int fields = std::sscanf(text.c_str(), "%5dx%5d%n", &size.width, &size.height, &end);
  if (fields != 2 || static_cast<size_t>(end) != text.size()) {
    throw UsageError(option + ": '" + text + "' is not a size like 1280x720");
  }
  check_limit({option.c_str(), static_cast<double>(std::min(size.width, size.height)), 2, kMaxSide});
  check_limit({option.c_str(), static_cast<double>(std::max(size.width, size.height)), 2, kMaxSide});
  return size;
}

void check_options(const CLI::App& cmd, const RecordOptions& options) {
  check_sources(options);
  check_numbers(options);
  check_given(cmd, options);
  check_encoders(options);
  check_outputs(options);
}

int VideoShape::whole_fps() const {
  const double rate = static_cast<double>(fps_num) / fps_den;
  return std::max(1, static_cast<int>(std::ceil(rate - kFpsTolerance * std::max(1.0, rate))));
}

MovieInfo make_movie_info(const RecordOptions& o, const VideoShape& shape) {
  MovieInfo info;
  std::memset(&info, 0, sizeof(info));
  put(info.url, "-o", o.output);
  put(info.snapshot_path, "--index", o.index);
  put(info.metadata, "--metadata", o.metadata);
  for (size_t i = 0; i < o.also.size(); ++i) info.other_urls[i] = o.also[i].c_str();

  info.no_audio = !o.wants_audio();
  info.a_bitrate = o.a_bitrate;
  info.sample_rate_src = info.sample_rate_dst = o.rate;
  info.channels = o.channels;
  info.sample_fmt = sample_format("--sample-fmt", o.sample_fmt).value;

  info.no_video = !o.wants_video();
  info.rate_control = rate_control(o);
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

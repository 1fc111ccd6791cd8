#include "movie_options.h"

#include "failure.h"
#include "formats.h"
#include "limit.h"
#include "meru/movie_info.h"
#include "movie_shape.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

constexpr int kMaxFps = 1000;

void check_numbers(const MovieOptions& o) {
  const Limit limits[] = {
      {"--fps", static_cast<double>(o.fps), 1, kMaxFps},
      {"--rate", static_cast<double>(o.rate), 8000, 192000},
      {"--channels", static_cast<double>(o.channels), 1, 8},
      {"--timeout", static_cast<double>(o.timeout_sec), 0, 2000},
      {"--v-bitrate", static_cast<double>(o.v_bitrate), 0, 1000000},
      {"--a-bitrate", static_cast<double>(o.a_bitrate), 8, 1024},
  };
  for (const Limit& limit : limits) limit.check();
}

/// Options whose absence is said by 0, so that a typed 0 has to be told from it.
void check_given(const CLI::App& cmd, const MovieOptions& o) {
  const Limit limits[] = {
      {"--crf", static_cast<double>(o.crf), 1, 51},
      {"--qp", static_cast<double>(o.qp), 1, 51},
      {"--gop", static_cast<double>(o.gop), 1, 100000},
      {"--seconds", o.seconds, 0.001, 1e7},
  };
  for (const Limit& limit : limits) {
    if (cmd.count(limit.option) > 0) limit.check();
  }
}

void check_encoders(const MovieOptions& o) {
  value_of(kPresets, "--preset", o.preset);
  value_of(kProfiles, "--profile", o.profile);
  value_of(kTunes, "--tune", o.tune);
  color_space("--color-space", o.color_space);
  if (!o.color_range.empty()) value_of(kColorRanges, "--color-range", o.color_range);
  const int mode = o.rate_control_mode();
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

void check_outputs(const MovieOptions& o, const std::vector<std::string>& sources) {
  if (o.also.size() > 4) throw UsageError("--also: at most four further outputs");
  MovieInfo fits;
  put(fits.url, "-o", o.output);
  put(fits.snapshot_path, "--index", o.index);
  put(fits.metadata, "--metadata", o.metadata);
  if (o.output.empty()) throw UsageError("-o: the name is empty");
  check_output_files(o.output, o.index, o.also, sources);
}

}  // namespace

int MovieOptions::rate_control_mode() const {
  if (!rate_control.empty()) return value_of(kRateControls, "--rate-control", rate_control);
  if (crf > 0) return RATE_CONTROL_CBR;
  return qp > 0 ? RATE_CONTROL_CQP : RATE_CONTROL_ABR;
}

void add_output_options(CLI::App* cmd, MovieOptions* o) {
  const char* group = "Outputs";
  cmd->add_option("-o,--output", o->output,
                  "The movie: a file (replaced; its extension says the container), rtmp:// or rtsp://")
      ->type_name("OUT")
      ->required()
      ->group(group);
  cmd->add_option("--index", o->index, "Side index, from which a movie that was cut short can be repaired")
      ->type_name("FILE")
      ->group(group);
  cmd->add_option("--also", o->also, "Further output of the same recording; up to four times")
      ->type_name("URL")
      ->expected(1)
      ->take_all()
      ->group(group);
  cmd->add_option("--metadata", o->metadata, "Tags of the movie: \"title:...;comment:...\"")
      ->type_name("TEXT")
      ->group(group);
  cmd->add_option("--timeout", o->timeout_sec, "Network outputs: seconds to wait for the server, 0 for ever")
      ->type_name("SEC")
      ->capture_default_str()
      ->group(group);
}

void add_encoder_options(CLI::App* cmd, MovieOptions* o) {
  const char* group = "Encoders";
  cmd->add_option("--preset", o->preset, "Speed: " + names_of(kPresets))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--profile", o->profile, "H.264 profile: " + names_of(kProfiles))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--tune", o->tune, "Tuning: " + names_of(kTunes))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--rate-control", o->rate_control,
                  names_of(kRateControls) + "; abr when not given, cbr with --crf, cqp with --qp")
      ->type_name("NAME")
      ->group(group);
  cmd->add_option("--v-bitrate", o->v_bitrate, "Video kbit/s; 0 leaves the choice to the encoder (constant quality)")
      ->type_name("KBIT")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--a-bitrate", o->a_bitrate, "Audio kbit/s")->type_name("KBIT")->capture_default_str()->group(group);
  cmd->add_option("--crf", o->crf, "Constant quality, 1 (best) to 51, with --rate-control cbr")
      ->type_name("N")
      ->group(group);
  cmd->add_option("--qp", o->qp, "Constant quantizer, 1 (best) to 51, with --rate-control cqp")
      ->type_name("N")
      ->group(group);
  cmd->add_option("--gop", o->gop, "Images from one key frame to the next (two seconds)")->type_name("N")->group(group);
  cmd->add_option("--out-size", o->out_size, "Size of the movie, when not that of the source")
      ->type_name("WxH")
      ->group(group);
  cmd->add_option("--color-space", o->color_space, "Colours of the movie: " + color_space_names())
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--color-range", o->color_range, names_of(kColorRanges) + "; none when the source does not say")
      ->type_name("NAME")
      ->group(group);
  cmd->add_flag("--hardware", o->hardware, "Use a hardware encoder when one is usable")->group(group);
}

void add_running_options(CLI::App* cmd, MovieOptions* o) {
  const char* group = "Running";
  cmd->add_option("--seconds", o->seconds, "Stop by itself after this much recorded time")
      ->type_name("SEC")
      ->group(group);
  cmd->add_option("--progress", o->progress_ms, "Milliseconds from one line of progress to the next (1000)")
      ->type_name("MS")
      ->check(CLI::Range(1, 3600000).description(""))
      ->group(group);
  cmd->add_option("--log", o->log, "Append the diagnostics of the library and of the encoders to this file")
      ->type_name("FILE")
      ->group(group);
  cmd->add_flag("--verbose", o->verbose, "Show the diagnostics, or write more of them to the log")->group(group);
}

void check_movie_options(const CLI::App& cmd, const MovieOptions& options, const std::vector<std::string>& sources) {
  check_numbers(options);
  check_given(cmd, options);
  check_encoders(options);
  check_outputs(options, sources);
}

}  // namespace meru_tool

#include "remux_command.h"

#include <cstdlib>

#include "console.h"
#include "control.h"
#include "diagnostics.h"
#include "failure.h"
#include "output_paths.h"
#include "outputs.h"
#include "remuxer.h"

namespace meru_tool {

namespace {

constexpr char kDescription[] =
    "Copies H.264 and AAC into a movie or a live stream without encoding them again, from elementary streams or from "
    "a\n"
    "movie, B-frames included. Ctrl-C ends early and completes what was read until then.";

void check(const RemuxOptions& o) {
  const bool elementary = !o.video.empty() || !o.audio.empty();
  if (o.movie.empty() && !elementary) throw UsageError("nothing to remux: give MOVIE, --video or --audio");
  if (!o.movie.empty() && elementary) throw UsageError("MOVIE and --video or --audio exclude each other");
  if (elementary && (o.no_video || o.no_audio)) throw UsageError("--no-video and --no-audio are for a MOVIE");
  if (o.also.size() > 4) throw UsageError("--also may be given up to four times");
  check_output_files(o.output, o.index, o.also, {o.movie, o.video, o.audio});
}

}  // namespace

CLI::App* add_remux_command(CLI::App* app, RemuxOptions* o) {
  CLI::App* cmd = app->add_subcommand("remux", kDescription);
  cmd->add_option("movie", o->movie, "A movie with H.264, AAC or both")->type_name("MOVIE");
  cmd->add_option("--video", o->video, "H.264 with start codes")->type_name("FILE");
  cmd->add_option("--audio", o->audio, "AAC in ADTS")->type_name("FILE");
  cmd->add_option("--fps", o->fps, "Images per second of --video; what the stream says when not given, else 25")
      ->type_name("N")
      ->check(CLI::Range(0.1, 1000.0).description(""));
  cmd->add_flag("--no-video", o->no_video, "Leave the movie's pictures out");
  cmd->add_flag("--no-audio", o->no_audio, "Leave the movie's sound out");
  cmd->add_option("-o,--output", o->output,
                  "The movie: a file (replaced; its extension says the container), rtmp:// or rtsp://")
      ->type_name("OUT")
      ->required();
  cmd->add_option("--index", o->index, "Side index, from which a movie that was cut short can be repaired")
      ->type_name("FILE");
  cmd->add_option("--also", o->also, "Further output of the same packets; up to four times")
      ->type_name("URL")
      ->expected(1)
      ->take_all();
  cmd->add_option("--metadata", o->metadata, "Tags of the movie: \"title:...;comment:...\"")->type_name("TEXT");
  cmd->add_flag("--realtime", o->realtime, "Push at the pace of the clock, as a live source does");
  cmd->add_option("--progress", o->progress_ms, "Milliseconds from one line of progress to the next (1000)")
      ->type_name("MS")
      ->check(CLI::Range(1, 3600000).description(""));
  cmd->add_option("--log", o->log, "Append the diagnostics of the library to this file")->type_name("FILE");
  cmd->add_flag("--verbose", o->verbose, "Show the diagnostics, or write more of them to the log");
  return cmd;
}

int remux(const RemuxOptions& options) {
  check(options);
  const Diagnostics diagnostics(options.log, options.verbose);
  const Outputs outputs(options.output, options.also, &diagnostics);
  {
    Remuxer remuxer(options, &outputs);
    const Control control(
        false, [] {}, [&] { remuxer.stop(); });
    remuxer.run();
  }
  const std::vector<std::string> failures = outputs.further_failures();
  for (const std::string& failure : failures) Console::instance().error(failure);
  if (!options.index.empty() && diagnostics.index_failed()) {
    Console::instance().error("the index " + options.index + " was not written");
    return EXIT_FAILURE;
  }
  return failures.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace meru_tool

#include "screen/screen_options.h"

#include <cstdio>

#include "failure.h"
#include "movie_shape.h"

namespace meru_tool {

namespace {

const char* const kDescription =
    "Records an X11 screen and the sound of a PulseAudio or PipeWire server.\n"
    "p or SIGUSR1 pauses and resumes. q, Ctrl-C or SIGTERM ends the recording and completes the movie; another one, a\n"
    "second later, ends at once. The exit status is 0 when the recording ended as it was asked to and every output "
    "was\n"
    "completed, 2 for a mistake in the command line, else 1.";

void add_screen(CLI::App* cmd, ScreenOptions* o) {
  const char* group = "Screen and sound";
  cmd->add_option("--display", o->display, "The display, such as :0; that of the environment when not given")
      ->type_name("DISPLAY")
      ->group(group);
  cmd->add_option("--region", o->region, "The part of the screen to record; all of it when not given")
      ->type_name("WxH+X+Y")
      ->group(group);
  cmd->add_option("--fps", o->fps, "Images per second")->type_name("N")->capture_default_str()->group(group);
  cmd->add_flag("--no-pointer", o->no_pointer, "Leave the pointer out of the images")->group(group);
  cmd->add_option("--audio", o->audio,
                  "What to listen to: the server's default source, a source or a sink by its name, or none")
      ->type_name("default|NAME|none")
      ->capture_default_str()
      ->group(group);
}

}  // namespace

CLI::App* add_screen_command(CLI::App* app, ScreenOptions* options) {
  CLI::App* cmd = app->add_subcommand("screen", kDescription);
  add_screen(cmd, options);
  add_output_options(cmd, options);
  cmd->add_flag("--no-index", options->no_index,
                "Keep no side index; else an MP4 or MOV file has one beside it until it is complete, OUT.meru-index")
      ->group("Outputs");
  add_encoder_options(cmd, options);
  add_running_options(cmd, options);
  cmd->add_flag("--json", options->json, "Print what happens as JSON, one event a line")->group("Running");
  return cmd;
}

Region ScreenOptions::wished_region() const {
  if (region.empty()) return {};
  Region wished;
  int end = 0;
  const size_t plus = region.find('+');
  const std::string place = plus == std::string::npos ? "" : region.substr(plus);
  const bool digits = place.find_first_not_of("+0123456789") == std::string::npos;
  const int fields = std::sscanf(place.c_str(), "+%5d+%5d%n", &wished.x, &wished.y, &end);
  if (!digits || fields != 2 || static_cast<size_t>(end) != place.size()) {
    throw UsageError("--region: '" + region + "' is not a region like 640x480+100+50");
  }
  const Size size = parse_size("--region", region.substr(0, plus));
  wished.width = size.width;
  wished.height = size.height;
  return wished;
}

void check_screen_options(const CLI::App& cmd, const ScreenOptions& options) {
  static_cast<void>(options.wished_region());
  if (options.audio.empty()) throw UsageError("--audio: the name is empty");
  if (options.no_index && cmd.count("--index") > 0) throw UsageError("--index and --no-index exclude each other");
  check_movie_options(cmd, options, {});
}

}  // namespace meru_tool

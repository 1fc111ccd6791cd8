#include "screen/recover_command.h"

#include <unistd.h>

#include "console.h"
#include "diagnostics.h"
#include "screen/left_behind.h"

namespace meru_tool {

namespace {

constexpr char kDescription[] =
    "Finds the side indexes that a crash left behind in a folder, MOVIE.meru-index, and repairs each movie into a new "
    "file beside it. Recordings that are still running are left alone; no movie is changed.";

}  // namespace

CLI::App* add_recover_command(CLI::App* app, RecoverOptions* options) {
  CLI::App* cmd = app->add_subcommand("recover", kDescription);
  cmd->add_option("folder", options->folder, "Where to look; folders below it are left out")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--log", options->log, "Append the diagnostics of the library to this file")->type_name("FILE");
  cmd->add_flag("--verbose", options->verbose, "Show the diagnostics, or write more of them to the log");
  return cmd;
}

int recover(const RecoverOptions& options) {
  Console& console = Console::instance();
  const Diagnostics diagnostics(options.log, options.verbose);
  // The library prints its progress on standard output, where the result belongs alone.
  if (options.verbose && options.log.empty()) dup2(STDERR_FILENO, STDOUT_FILENO);
  const RecoverTalk talk{[&](const std::string& text) { console.line(text); },
                         [&](const std::string& text) { console.error(text); },
                         {true, options.verbose},
                         true};
  const RecoverResult result = recover_folder(options.folder, talk);
  if (result.found == 0) console.line("nothing was left behind in " + options.folder);
  return result.exit_code;
}

}  // namespace meru_tool

#include "screen/screen_command.h"

#include <unistd.h>

#include <cstdlib>

#include "console.h"
#include "control.h"
#include "diagnostics.h"
#include "exit_notice.h"
#include "failure.h"
#include "output_paths.h"
#include "screen/screen_events.h"
#include "screen/screen_files.h"
#include "screen/screen_recorder.h"

namespace meru_tool {

namespace {

void run(ScreenRecorder* recorder, ScreenFiles* files) {
  files->hold();
  try {
    recorder->run();
  } catch (...) {
    // From an index of nothing nothing can be repaired, and a movie of nothing does not play: they would only stand in
    // the way of the next recording.
    if (recorder->frames() > 0) {
      files->keep_index();
    } else {
      files->discard_movies();
    }
    throw;
  }
}

/// @return what went wrong although the movie is complete
std::vector<std::string> record_with(const ScreenOptions& options, const ScreenEvents& events) {
  ScreenFiles files(options);
  static auto* const diagnostics = new Diagnostics(options.log, options.verbose);  // for the ExitNotice
  // What is shown of the library's own prints must not come between the events.
  if (options.json && options.verbose && options.log.empty()) dup2(STDERR_FILENO, STDOUT_FILENO);
  ScreenRecorder recorder(&options, diagnostics, &events);
  {
    const Control control(
        true, [&] { recorder.toggle_pause(); }, [&] { recorder.stop(); });
    const ExitNotice notice(diagnostics);
    run(&recorder, &files);
  }
  return recorder.shortcomings();
}

}  // namespace

int record_screen(const CLI::App& cmd, ScreenOptions options) {
  if (is_file(options.output)) options.output = file_path(options.output);
  for (std::string& url : options.also) {
    if (is_file(url)) url = file_path(url);
  }
  options.index = ScreenFiles::index_for(options);
  check_screen_options(cmd, options);
  if (options.json) Console::instance().keep_for_data();
  const ScreenEvents events(options.json);
  try {
    const std::vector<std::string> shortcomings = record_with(options, events);
    for (const std::string& text : shortcomings) Console::instance().error(text);
    return shortcomings.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& e) {
    events.tell("failed", 0, {{"reason", e.what()}}, "");
    throw;
  }
}

}  // namespace meru_tool

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <utility>

#include "console.h"
#include "control.h"
#include "diagnostics.h"
#include "exit_notice.h"
#include "failure.h"
#include "index_command.h"
#include "meru/export.h"
#include "record_options.h"
#include "recorder.h"
#include "remux_command.h"
#include "repair_command.h"
#include "screen/recover_command.h"
#include "screen/screen_command.h"

namespace {

using namespace meru_tool;

constexpr int kUsageStatus = 2;

/// A closed standard descriptor would be given to the next file that is opened, and prints would go into it.
void fill_standard_descriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) return;
  }
}

/// A source that is cut while one of its images is mapped: nothing can be read in its place.
void on_cut_source(int) {
  static const char text[] = "meru: a source file was cut while it was read; the movie is not complete\n";
  const ssize_t ignored = write(Console::instance().error_descriptor(), text, sizeof(text) - 1);
  static_cast<void>(ignored);
  restore_terminal();
  _exit(EXIT_FAILURE);
}

int record(const CLI::App& cmd, const RecordOptions& options) {
  check_options(cmd, options);
  static auto* const diagnostics = new Diagnostics(options.log, options.verbose);  // for the ExitNotice
  std::vector<std::string> shortcomings;
  {
    Recorder recorder(options, diagnostics);
    const bool keys = options.video_raw != "-" && options.y4m != "-" && options.audio_raw != "-";
    const Control control(
        keys, [&] { recorder.toggle_pause(); }, [&] { recorder.stop(); });
    std::signal(SIGBUS, &on_cut_source);
    const ExitNotice notice(diagnostics);
    recorder.run();
    shortcomings = recorder.shortcomings();
  }
  for (const std::string& text : shortcomings) Console::instance().error(text);
  return shortcomings.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int run(int argc, char** argv) {
  CLI::App app("Records movies and live streams with MeruLib, and repairs movies that were cut short.", "meru");
  app.set_version_flag("--version", "meru " MERU_VERSION_STRING);
  app.require_subcommand(1);
  RecordOptions options;
  RemuxOptions remux_options;
  RepairOptions repair_options;
  RecoverOptions recover_options;
  IndexOptions index_options;
  ScreenOptions screen_options;
  const CLI::App* screen_command = add_screen_command(&app, &screen_options);
  const CLI::App* record_command = add_record_command(&app, &options);
  const CLI::App* remux_command = add_remux_command(&app, &remux_options);
  const CLI::App* repair_command = add_repair_command(&app, &repair_options);
  const CLI::App* recover_command = add_recover_command(&app, &recover_options);
  const CLI::App* index_command = add_index_command(&app, &index_options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    throw UsageError(std::string(e.what()) + " (see --help)");
  }
  if (screen_command->parsed()) return record_screen(*screen_command, std::move(screen_options));
  if (remux_command->parsed()) return remux(remux_options);
  if (repair_command->parsed()) return repair(repair_options);
  if (recover_command->parsed()) return recover(recover_options);
  if (index_command->parsed()) return show_index(index_options);
  return record(*record_command, options);
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  Console& console = Console::instance();
  std::atexit(&ExitNotice::at_exit);
  try {
    return run(argc, argv);
  } catch (const UsageError& e) {
    console.error(e.what());
    return kUsageStatus;
  } catch (const std::exception& e) {
    console.error(e.what());
    return EXIT_FAILURE;
  }
}

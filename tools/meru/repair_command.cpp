#include "repair_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "byte_source.h"
#include "console.h"
#include "control.h"
#include "diagnostics.h"
#include "failure.h"
#include "meru/repair.h"
#include "output_paths.h"
#include "playable.h"
#include "repair_log.h"

namespace meru_tool {

namespace {

constexpr char kDescription[] =
    "Rebuilds a movie that was cut short from the side index that was recorded beside it. The broken movie and the "
    "index are only read.";
constexpr int kStoppedStatus = 130;
constexpr double kMiB = 1024.0 * 1024.0;

/// A path as the library takes it: without the name of the protocol of files, and not beginning with what it drops.
std::string plain_path(const std::string& typed) {
  constexpr char kProtocol[] = "file:";
  std::string path = typed.rfind(kProtocol, 0) == 0 ? typed.substr(sizeof(kProtocol) - 1) : typed;
  if (path.empty() || path.find("://") != std::string::npos) return path;
  return std::filesystem::absolute(path).string();
}

/// The library drops these from the ends of the paths that it reads.
void check_ends(const std::string& path) {
  if (!path.empty() && path.find_last_of("\" \t\b\n\r") == path.size() - 1) {
    throw UsageError("'" + path + "': a name that ends with a blank or a quote cannot be read, rename it");
  }
}

void check(const RepairOptions& options) {
  const std::string output = plain_path(options.output);
  for (const std::string& source : {options.broken, options.index}) {
    check_ends(source);
    if (same_file(output, plain_path(source))) {
      throw UsageError(options.output + " is what is to be repaired: give the new movie another name");
    }
  }
  if (is_network(output)) return;
  std::error_code error;
  if (!options.force && std::filesystem::exists(output, error)) {
    throw UsageError(options.output + " exists already: give another name, or --force to replace it");
  }
  check_writable("the new movie", output);
}

/// Why a file cannot be read.
std::string unreadable(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return error_text(EISDIR);
  if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) return "it is no file";
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return fd.get() < 0 ? error_text(errno) : "it is not usable";
}

/// One repair and its end.
class RepairRun {
 public:
  explicit RepairRun(const RepairOptions& options) : m_options(options) {}

  void run() {
    const Control control(
        false, [] {}, [this] { stop(); });
    void* handle = MERU_StartRepair_Async(plain_path(m_options.broken).c_str(), plain_path(m_options.index).c_str(),
                                          plain_path(m_options.output).c_str(), &RepairRun::on_report, this);
    while (MERU_Repair_IsRunning(handle)) {
      if (!wait()) break;
      show();
    }
    m_stopped = stop_asked() && MERU_Repair_IsRunning(handle);
    MERU_StopRepair(&handle);
  }

  int code() const { return m_code; }
  double progress() const { return m_progress; }
  const std::string& text() const { return m_text; }
  bool stopped() const { return m_stopped; }

 private:
  static void on_report(double progress, int code, const char* msg, void* user) {
    auto* self = static_cast<RepairRun*>(user);
    self->m_progress = progress;
    if (code >= 0) return;
    self->m_code = code;
    self->m_text = msg;
  }

  void stop() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop_asked = true;
    m_asked.notify_all();
  }

  bool stop_asked() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stop_asked;
  }

  /// Waits a moment. @return false when the repair is to be stopped
  bool wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_asked.wait_for(lock, std::chrono::milliseconds(50), [this] { return m_stop_asked; });
  }

  void show() {
    if (m_options.json) return;
    const auto now = std::chrono::steady_clock::now();
    const bool terminal = Console::instance().is_terminal();
    if (now - m_shown < std::chrono::milliseconds(terminal ? 100 : 1000)) return;
    m_shown = now;
    const int percent = static_cast<int>(m_progress * 100);
    char figure[16];
    std::snprintf(figure, sizeof(figure), "%3d %%", percent);
    if (!terminal) {
      Console::instance().line(figure);
      return;
    }
    constexpr int kBar = 40;
    std::string bar(static_cast<size_t>(percent * kBar / 100), '#');
    bar.resize(kBar, '.');
    Console::instance().status("[" + bar + "] " + figure);
  }

  const RepairOptions& m_options;
  std::atomic<double> m_progress{0};
  int m_code = 0;      // the repair's thread, read when it has ended
  std::string m_text;  // the same
  std::chrono::steady_clock::time_point m_shown = std::chrono::steady_clock::now();
  std::mutex m_mutex;
  std::condition_variable m_asked;
  bool m_stop_asked = false;  // guarded by m_mutex
  bool m_stopped = false;
};

/// Why an index cannot be used.
std::string unusable(const std::string& index, const std::string& library_text) {
  if (library_text.rfind("未找到有效的音视频流", 0) == 0) return "it describes no stream";
  if (library_text.rfind("未找到extradata", 0) == 0)
    return "its video parameters have no sequence and picture parameter set";
  return unreadable(index);
}

/// How a repair has ended.
struct Result {
  int exit_code = EXIT_SUCCESS;
  std::string failure;  ///< why there is no movie, or not the whole one; empty when there is
};

Result judge(const RepairRun& run, const RepairLog& log, const RepairOptions& options) {
  if (run.code() == MERU_REPAIR_NO_MOVIE) {
    return {EXIT_FAILURE, "cannot open the movie " + options.broken + ": " + unreadable(options.broken)};
  }
  if (run.code() == MERU_REPAIR_NO_INDEX) {
    return {EXIT_FAILURE, "cannot use the index " + options.index + ": " + unusable(options.index, log.last_failure())};
  }
  if (run.code() < 0) return {EXIT_FAILURE, "cannot make " + options.output + ": " + run.text()};
  const int stopped = run.stopped() ? kStoppedStatus : EXIT_FAILURE;
  if (log.packets() == 0) return {stopped, "no packet could be restored: there is no movie"};
  if (run.stopped()) return {stopped, "stopped: " + options.output + " holds what was restored until then"};
  const std::string reason = is_network(options.output) ? "" : why_not_playable(plain_path(options.output));
  if (!reason.empty()) return {EXIT_FAILURE, options.output + " cannot be played: " + reason};
  return {};
}

void print_json(const RepairRun& run, const RepairLog& log, const RepairOptions& options, const Result& result) {
  const bool made = run.code() >= 0;
  const nlohmann::ordered_json json = {{"output", options.output},
                                       {"exit_code", result.exit_code},
                                       {"code", run.code()},
                                       {"message", run.text()},
                                       {"stopped", run.stopped()},
                                       {"progress", run.progress()},
                                       {"packets", made ? log.packets() : 0},
                                       {"bytes_read", log.bytes()},
                                       {"duration", made ? log.duration() : 0},
                                       {"ignored_lines", log.ignored_lines()},
                                       {"damaged_lines", log.damaged_lines()}};
  // A path need not be UTF-8.
  Console::instance().line(json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

void print_result(const RepairLog& log, const RepairOptions& options) {
  char text[160];
  std::snprintf(text, sizeof(text), "repaired %.3f s  %lld packets  %.1f MiB  ", log.duration(), log.packets(),
                static_cast<double>(log.bytes()) / kMiB);
  Console::instance().line(text + options.output);
  if (log.ignored_lines() + log.damaged_lines() == 0) return;
  std::snprintf(text, sizeof(text), "left out: %d lines of the index behind the end of the movie, damage in %d lines",
                log.ignored_lines(), log.damaged_lines());
  Console::instance().line(text);
}

}  // namespace

CLI::App* add_repair_command(CLI::App* app, RepairOptions* options) {
  CLI::App* cmd = app->add_subcommand("repair", kDescription);
  cmd->add_option("broken", options->broken, "The movie that was cut short")->required()->type_name("BROKEN");
  cmd->add_option("index", options->index, "Its side index")->required()->type_name("INDEX");
  cmd->add_option("output", options->output, "The movie to make; its extension chooses the container")
      ->required()
      ->type_name("OUT");
  cmd->add_flag("--json", options->json, "Print the result as JSON, and no progress");
  cmd->add_flag("--force", options->force, "Replace OUT when it exists");
  cmd->add_option("--log", options->log, "Append the diagnostics of the library to this file")->type_name("FILE");
  cmd->add_flag("--verbose", options->verbose, "Show the diagnostics, or write more of them to the log");
  return cmd;
}

int repair(const RepairOptions& options) {
  check(options);
  const Diagnostics diagnostics(options.log, options.verbose);
  // The library prints its progress on standard output, where the result belongs alone.
  if (options.verbose && options.log.empty()) dup2(STDERR_FILENO, STDOUT_FILENO);
  RepairLog log(options.verbose);
  RepairRun run(options);
  run.run();
  const Result result = judge(run, log, options);
  if (options.json) {
    print_json(run, log, options, result);
  } else if (result.exit_code == EXIT_SUCCESS) {
    print_result(log, options);
  }
  if (!result.failure.empty()) Console::instance().error(result.failure);
  // A file that nothing can play would only stand in the way of the next try.
  if (run.code() >= 0 && log.packets() == 0 && !is_network(options.output)) unlink(plain_path(options.output).c_str());
  return result.exit_code;
}

}  // namespace meru_tool

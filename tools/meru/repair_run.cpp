#include "repair_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "byte_source.h"
#include "console.h"
#include "control.h"
#include "failure.h"
#include "meru/repair.h"
#include "output_paths.h"
#include "playable.h"
#include "repair_log.h"

namespace meru_tool {

namespace {

constexpr int kStoppedStatus = 130;
constexpr double kMiB = 1024.0 * 1024.0;
// Nothing tells of the end of a repair, and a gigabyte takes less than half a second.
constexpr std::chrono::milliseconds kLookInterval{5};

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
  RepairRun(const RepairFiles& files, bool shown) : m_files(files), m_shown_at_all(shown) {}

  void run() {
    const Control control(
        false, [] {}, [this] { stop(); });
    void* handle = MERU_StartRepair_Async(plain_path(m_files.broken).c_str(), plain_path(m_files.index).c_str(),
                                          plain_path(m_files.output).c_str(), &RepairRun::on_report, this);
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
    return !m_asked.wait_for(lock, kLookInterval, [this] { return m_stop_asked; });
  }

  void show() {
    if (!m_shown_at_all) return;
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

  const RepairFiles& m_files;
  const bool m_shown_at_all;
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

/// Why a repair has not brought what it should; empty when it has.
std::string failure_of(const RepairRun& run, const RepairLog& log, const RepairFiles& files) {
  if (run.code() == MERU_REPAIR_NO_MOVIE) {
    return "cannot open the movie " + files.broken + ": " + unreadable(files.broken);
  }
  if (run.code() == MERU_REPAIR_NO_INDEX) {
    return "cannot use the index " + files.index + ": " + unusable(files.index, log.last_failure());
  }
  if (run.code() < 0) return "cannot make " + files.output + ": " + run.text();
  if (log.packets() == 0) return "no packet could be restored: there is no movie";
  if (run.stopped()) return "stopped: " + files.output + " holds what was restored until then";
  const std::string reason = is_network(files.output) ? "" : why_not_playable(plain_path(files.output));
  return reason.empty() ? "" : files.output + " cannot be played: " + reason;
}

RepairResult result_of(const RepairRun& run, const RepairLog& log, const RepairFiles& files) {
  RepairResult result;
  result.failure = failure_of(run, log, files);
  result.code = run.code();
  result.text = run.text();
  result.stopped = run.stopped();
  result.progress = run.progress();
  result.bytes = log.bytes();
  result.ignored_lines = log.ignored_lines();
  result.damaged_lines = log.damaged_lines();
  const bool made = run.code() >= 0;
  if (made) {
    result.packets = log.packets();
    result.duration = log.duration();
  }
  if (!result.failure.empty()) result.exit_code = made && run.stopped() ? kStoppedStatus : EXIT_FAILURE;
  return result;
}

}  // namespace

std::string plain_path(const std::string& typed) {
  std::string path = without_protocol(typed);
  if (path.empty() || path.find("://") != std::string::npos) return path;
  return std::filesystem::absolute(path).string();
}

/// The library drops these from the ends of the paths that it reads.
void check_readable_name(const std::string& path) {
  if (!path.empty() && path.find_last_of("\" \t\b\n\r") == path.size() - 1) {
    throw UsageError("'" + path + "': a name that ends with a blank or a quote cannot be read, rename it");
  }
}

std::string RepairResult::summary() const {
  char words[160];
  std::snprintf(words, sizeof(words), "repaired %.3f s  %lld packets  %.1f MiB", duration, packets,
                static_cast<double>(bytes) / kMiB);
  return words;
}

std::string RepairResult::left_out() const {
  if (ignored_lines + damaged_lines == 0) return {};
  char words[160];
  std::snprintf(words, sizeof(words), "left out: %d lines of the index behind the end of the movie, damage in %d lines",
                ignored_lines, damaged_lines);
  return words;
}

RepairResult run_repair(const RepairFiles& files, const RepairShow& show) {
  RepairLog log(show.verbose);
  RepairRun run(files, show.progress);
  run.run();
  RepairResult result = result_of(run, log, files);
  // A file that nothing can play would only stand in the way of the next try.
  if (run.code() >= 0 && log.packets() == 0 && !is_network(files.output)) unlink(plain_path(files.output).c_str());
  return result;
}

}  // namespace meru_tool

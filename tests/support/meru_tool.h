#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/eventually.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace meru_test {

inline std::string file_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// What one run of the command left behind.
struct ToolRun {
  int status = -1;
  std::string out, err;
};

/// A folder with sources in it, and the command run inside it.
class ToolFolder {
 public:
  std::string file(const std::string& name) const { return m_dir.file(name); }

  /// Runs `meru ARGUMENTS` in the folder; `before` is shell text in front of it, such as "cat images |".
  ToolRun run(const std::string& arguments, const std::string& before = "") const {
    const CommandResult result = run_command("cd " + quoted(m_dir.path()) + " && " + before + " " MERU_TOOL " " +
                                             arguments + " >out.txt 2>err.txt");
    return {result.status, file_text(file("out.txt")), file_text(file("err.txt"))};
  }
  ToolRun record(const std::string& arguments, const std::string& before = "") const {
    return run("record " + arguments, before);
  }
  /// Lets ffmpeg make a source.
  void make(const std::string& arguments) const {
    const CommandResult result =
        run_command("cd " + quoted(m_dir.path()) + " && ffmpeg -nostdin -v error -y " + arguments);
    if (result.status != 0) throw std::runtime_error("ffmpeg: " + result.output);
  }
  std::string path() const { return m_dir.path(); }

 private:
  TempDir m_dir;
};

/// `meru record ...`, or another subcommand, in the background, in a folder, without a shell in between that would take
/// its signals.
class ToolProcess {
 public:
  /// @param terminal  a terminal for standard input and output; -1: none, and the outputs go to out.txt and err.txt
  ToolProcess(const ToolFolder& folder, const std::string& arguments, int terminal = -1,
              const std::string& subcommand = "record")
      : m_folder(folder) {
    const std::string command =
        "cd " + quoted(folder.path()) + " && exec " MERU_TOOL " " + subcommand + " " + arguments;
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid > 0) return;
    const int in = terminal >= 0 ? terminal : open("/dev/null", O_RDONLY);
    const int out = terminal >= 0 ? terminal : open(folder.file("out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const int err = open(folder.file("err.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    // The terminal's own, so that Ctrl-C typed into it becomes a signal.
    if (terminal >= 0 && (setsid() < 0 || ioctl(STDIN_FILENO, TIOCSCTTY, 0) != 0)) _exit(126);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  ~ToolProcess() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  void send(int signal_number) const { kill(m_pid, signal_number); }
  std::string out() const { return file_text(m_folder.file("out.txt")); }
  std::string err() const { return file_text(m_folder.file("err.txt")); }
  /// Waits for text on standard output.
  bool says(const std::string& text) const {
    return eventually([&] { return out().find(text) != std::string::npos; });
  }
  /// How far the last plain progress line says that the work is, in seconds; -1 before the first line.
  double told_seconds() const {
    double told = -1;
    std::istringstream lines(out());
    for (std::string line; std::getline(lines, line);) {
      int hours = 0, minutes = 0;
      double seconds = 0;
      if (std::sscanf(line.c_str(), "%d:%d:%lf  ", &hours, &minutes, &seconds) != 3) continue;
      told = hours * 3600 + minutes * 60 + seconds;
    }
    return told;
  }
  /// Waits until the command is as far.
  bool reaches(double seconds) const {
    return eventually([&] { return told_seconds() >= seconds; });
  }
  /// Waits until the command has its own handler for a signal. The shell that starts it may have one, too.
  bool catches(int signal_number) const {
    return eventually([&] {
      if (file_text("/proc/" + std::to_string(m_pid) + "/comm") != "meru\n") return false;
      const std::string status = file_text("/proc/" + std::to_string(m_pid) + "/status");
      const size_t at = status.find("SigCgt:\t");
      if (at == std::string::npos) return false;
      return (std::strtoull(status.c_str() + at + 8, nullptr, 16) >> (signal_number - 1) & 1) != 0;
    });
  }
  pid_t pid() const { return m_pid; }
  bool is_running() {
    if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_pid = 0;
    return m_pid > 0;
  }
  /// The exit status, 128 + signal when it was killed; -1 when it goes on beyond the deadline.
  int wait(std::chrono::seconds deadline = std::chrono::seconds(20)) {
    if (!eventually([&] { return !is_running(); }, deadline)) return -1;
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
  }

 private:
  const ToolFolder& m_folder;
  pid_t m_pid = -1;
  int m_status = 0;
};

/// How many lines a text has; each must end in a line feed.
inline long line_count(const std::string& text) {
  if (!text.empty() && text.back() != '\n') return -1;
  return std::count(text.begin(), text.end(), '\n');
}

}  // namespace meru_test

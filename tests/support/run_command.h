#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace meru_test {

struct CommandResult {
  int status = -1;     ///< exit status, 128 + signal for a killed process
  std::string output;  ///< standard output and standard error, interleaved
};

/// Runs a shell command to its end.
inline CommandResult run_command(const std::string& command) {
  FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  CommandResult result;
  std::array<char, 4096> buffer{};
  for (size_t n = 0; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) result.output.append(buffer.data(), n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

inline std::string quoted(const std::string& path) { return "'" + path + "'"; }

}  // namespace meru_test

#include "diagnostics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "failure.h"
#include "meru/log.h"

namespace meru_tool {

namespace {

constexpr size_t kMostBytes = 1 << 18;
constexpr int kFailures = 2;
constexpr int kLifecycle = 4;
constexpr int kPrefixSize = 128;

int open_nameless() {
  std::error_code error;
  std::string pattern = (std::filesystem::temp_directory_path(error) / "meru-XXXXXX").string();
  const int fd = mkstemp(pattern.data());
  if (fd < 0) return open("/dev/null", O_RDWR | O_CLOEXEC);
  unlink(pattern.c_str());
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  fcntl(fd, F_SETFL, O_APPEND);
  return fd;
}

int open_log(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) throw Failure("cannot write the log " + path + ": " + error_text(errno));
  return fd;
}

bool contains(const std::string& line, const char* text) { return line.find(text) != std::string::npos; }

/// A line of the library's log without prefix and quotes; any other line as it is.
std::string message_of(const std::string& line) {
  const size_t begin = line.find(": \"");
  const size_t end = line.rfind('"');
  if (!contains(line, "[bg] ") || begin == std::string::npos || end < begin + 3) return line;
  return line.substr(begin + 3, end - begin - 3);
}

/// The words of an encoder or a muxer behind its "[name @ address] ", empty for any other line.
std::string component_words(const std::string& line) {
  const size_t at = line.find(" @ 0x");
  const size_t end = line.find("] ");
  if (line.empty() || line[0] != '[' || at == std::string::npos || end == std::string::npos) return {};
  const std::string words = line.substr(end + 2);
  const std::string inner = component_words(words);
  return inner.empty() ? line.substr(1, at - 1) + ": " + words : inner;
}

bool tells_failure(const std::string& message) {
  // These repeat what the callback is told.
  if (contains(message, "### statu cb") || contains(message, "---- catch error ---")) return false;
  if (contains(message, "further output ")) return false;  // the recording goes on without it
  for (const char* text : {"Could not ", "Error ", "failed"}) {
    if (contains(message, text)) return true;
  }
  return false;
}

}  // namespace

Diagnostics::Diagnostics(const std::string& log, bool verbose) {
  if (!log.empty()) {
    m_file = Fd(open_log(log));
  } else if (!verbose) {
    m_file = Fd(open_nameless());
  }
  listen(verbose ? kLifecycle : kFailures);
  if (m_file.get() < 0) return;
  struct stat st {};
  if (fstat(m_file.get(), &st) == 0) m_begin = st.st_size;
  dup2(m_file.get(), STDOUT_FILENO);
  dup2(m_file.get(), STDERR_FILENO);
}

/// The lines of this run, the last ones when there are very many.
std::vector<std::string> Diagnostics::lines() const {
  struct stat st {};
  if (m_file.get() < 0 || fstat(m_file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
  const off_t begin = std::max(m_begin, st.st_size - static_cast<off_t>(kMostBytes));
  std::string text(static_cast<size_t>(std::max<off_t>(st.st_size - begin, 0)), '\0');
  const ssize_t n = pread(m_file.get(), text.data(), text.size(), begin);
  text.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::string Diagnostics::last_failure() const {
  std::string of_main_output = output(0).failure;
  if (!of_main_output.empty()) return of_main_output;
  const std::vector<std::string> all = lines();
  for (size_t i = all.size(); i-- > 0;) {
    std::string message = message_of(all[i]);
    if (!tells_failure(message) || !component_words(message).empty()) continue;
    // "Generic error in an external library" says little; what the component printed before says what it was.
    const std::string words = i > 0 ? component_words(all[i - 1]) : "";
    if (!words.empty() && !contains(words, ": using ")) message.append(" (").append(words).append(")");
    return message;
  }
  return {};
}

bool Diagnostics::start_given_up() const {
  const std::vector<std::string> all = lines();
  return std::any_of(all.begin(), all.end(),
                     [](const std::string& line) { return contains(line, "---- catch error --- : Unknow"); });
}

bool Diagnostics::index_failed() const {
  const std::vector<std::string> all = lines();
  return std::any_of(all.begin(), all.end(), [](const std::string& line) {
    return contains(line, "启动快照失败") || contains(line, "启动快照 (failed)");
  });
}

Diagnostics::OutputState Diagnostics::output(int number) const {
  const std::lock_guard<std::mutex> lock(m_heard->mutex);
  const auto at = m_heard->outputs.find(number);
  return at != m_heard->outputs.end() ? at->second : OutputState();
}

/// The library tells the fate of each output in its log alone: "further output 1 (address) failed: reason".
void Diagnostics::Heard::note(const std::string& message) {
  // Never destroyed: a start that was given up may still have something to say while the process ends.
  static const auto& pattern =
      *new std::regex(R"re("(?:main output|further output (\d+)) \(.*\) (?:is open|failed: (.*))"\s*)re");
  std::smatch match;
  if (!std::regex_match(message, match, pattern)) return;
  const std::lock_guard<std::mutex> lock(mutex);
  OutputState& state = outputs[match[1].matched ? std::stoi(match[1]) : 0];
  state.open = !match[2].matched;
  if (match[2].matched && state.failure.empty()) state.failure = match[2];
}

/// Listens to the log, and writes it where it would have gone.
void Diagnostics::listen(int level) {
  MERU_Log_Level(level);
  nuv::Logger* logger = nuv::Logger::instance();
  logger->m_callback = [logger, level, heard = m_heard](const char* tag, int line_level, const char* file, int line,
                                                        const char* message) {
    if (line_level > std::max(level, kLifecycle)) return;
    heard->note(message);
    if (line_level > level) return;
    char prefix[kPrefixSize];
    logger->make_prefix(prefix, sizeof(prefix), tag, static_cast<nuv::NuvLogLevel>(line_level), file, line);
    std::fputs((std::string(prefix) + message).c_str(), stderr);
    std::fflush(stderr);
  };
}

}  // namespace meru_tool

#include "console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace meru_tool {

namespace {

void write_all(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      pollfd full{fd, POLLOUT, 0};
      poll(&full, 1, -1);
    } else if (errno != EINTR) {
      return;  // nobody reads it any more; the recording goes on
    }
  }
}

/// A copy of a standard descriptor, or of /dev/null when it is closed.
int copy_of(int fd) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  return copy >= 0 ? copy : open("/dev/null", O_WRONLY | O_CLOEXEC);
}

/// The beginning of a text that fits into one line of a terminal; a longer one could not be written over.
std::string cut_to_width(const std::string& text, int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return text;
  size_t end = 0;
  int columns = 0;
  while (end < text.size() && columns < size.ws_col - 1) {
    do ++end;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U);  // one character of UTF-8
    ++columns;
  }
  return text.substr(0, end);
}

}  // namespace

Console& Console::instance() {
  // Never destroyed: the last words may be spoken while the process exits.
  static Console& console = *new Console;
  return console;
}

Console::Console()
    : m_out(copy_of(STDOUT_FILENO)), m_err(copy_of(STDERR_FILENO)), m_lines(m_out), m_terminal(isatty(m_out) == 1) {}

void Console::keep_for_data() {
  m_lines = m_err;
  m_terminal = false;
}

void Console::data(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  write_all(m_out, text + "\n");
}

void Console::clear_status() {
  if (m_status_shown) write_all(m_out, "\r\033[K");
  m_status_shown = false;
}

void Console::status(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  write_all(m_out, "\r" + cut_to_width(text, m_out) + "\033[K");
  m_status_shown = true;
}

void Console::line(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  clear_status();
  write_all(m_lines, text + "\n");
}

void Console::error(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  clear_status();
  std::string one_line = "meru: " + text;
  std::replace_if(
      one_line.begin(), one_line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  write_all(m_err, one_line + "\n");
}

}  // namespace meru_tool

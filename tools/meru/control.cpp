#include "control.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "console.h"
#include "failure.h"

namespace meru_tool {

namespace {

constexpr char kQuit = 0;
constexpr std::chrono::seconds kOneRequest{1};

// A signal handler may do little more than write into a pipe; a thread does the rest.
int g_pipe[2] = {-1, -1};
std::atomic<bool> g_raw_mode{false};
termios g_found_mode;  // written before g_raw_mode is set

void on_signal(int number) {
  const int error = errno;
  const char event = static_cast<char>(number);
  const ssize_t ignored = write(g_pipe[1], &event, 1);
  static_cast<void>(ignored);
  errno = error;
}

/// Changing the mode of a terminal from the background would stop the process.
bool in_foreground() { return tcgetpgrp(STDIN_FILENO) == getpgrp(); }

void set_key_mode() {
  if (!in_foreground()) return;
  termios mode;
  if (tcgetattr(STDIN_FILENO, &mode) != 0) return;
  if (!g_raw_mode) g_found_mode = mode;
  mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  g_raw_mode = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
}

void install(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

bool is_ignored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void restore_terminal() {
  if (g_raw_mode.exchange(false) && in_foreground()) tcsetattr(STDIN_FILENO, TCSANOW, &g_found_mode);
}

Control::Control(bool keys, std::function<void()> on_pause, std::function<void()> on_stop)
    : m_on_pause(std::move(on_pause)), m_on_stop(std::move(on_stop)), m_keys(keys && isatty(STDIN_FILENO) == 1) {
  if (pipe(g_pipe) != 0) throw Failure("cannot make a pipe: " + error_text(errno));
  for (const int fd : g_pipe) fcntl(fd, F_SETFD, FD_CLOEXEC);
  // A reader that is gone and a full disk are told by the failing write instead.
  install(SIGPIPE, SIG_IGN);
  install(SIGXFSZ, SIG_IGN);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) install(number, &on_signal);
  if (!is_ignored(SIGHUP)) install(SIGHUP, &on_signal);
  if (m_keys) {
    // After a stop from the keyboard the shell has set its own mode.
    install(SIGCONT, &on_signal);
    set_key_mode();
  }
  m_thread = std::thread(&Control::listen, this);
}

Control::~Control() {
  // From here on a signal ends the process as usual: there is nothing left to complete.
  for (const int number : {SIGINT, SIGTERM, SIGUSR1, SIGCONT}) install(number, SIG_DFL);
  if (!is_ignored(SIGHUP)) install(SIGHUP, SIG_DFL);
  while (write(g_pipe[1], &kQuit, 1) < 0 && errno == EINTR) {
  }
  m_thread.join();
  restore_terminal();
  for (int& fd : g_pipe) close(std::exchange(fd, -1));
}

void Control::handle(char event) {
  switch (event) {
    case SIGUSR1:
      m_on_pause();
      break;
    case SIGCONT:
      set_key_mode();
      break;
    default:
      handle_stop();
  }
}

/// One request often comes as several signals, to the process and to its group, and counts once.
void Control::handle_stop() {
  const auto now = std::chrono::steady_clock::now();
  if (m_first_stop == std::chrono::steady_clock::time_point()) {
    m_first_stop = now;
    m_on_stop();
  } else if (now - m_first_stop >= kOneRequest) {
    restore_terminal();
    Console::instance().error("ended at once: the movie is not complete");
    _exit(EXIT_FAILURE);
  }
}

void Control::listen() {
  for (;;) {
    pollfd fds[2] = {{g_pipe[0], POLLIN, 0}, {m_keys && in_foreground() ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    char event = kQuit;
    if (fds[0].revents != 0 && read(g_pipe[0], &event, 1) == 1) {
      if (event == kQuit) return;
      handle(event);
    }
    if (fds[1].revents != 0) {
      const ssize_t n = read(STDIN_FILENO, &event, 1);
      if (n == 1 && event == 'p') m_on_pause();
      if (n == 1 && event == 'q') handle_stop();
      if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) m_keys = false;
    }
  }
}

}  // namespace meru_tool

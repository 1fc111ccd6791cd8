#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace meru_tool {

/// Listens to the signals and, on a terminal, to the keys: Ctrl-C, `q`, SIGTERM and SIGHUP stop, `p` and SIGUSR1 pause.
/// A second stop, a second or more after the first, ends the process at once. One at a time.
class Control {
 public:
  /// @param keys  whether standard input is free to be listened to
  /// The functions are called on a thread of their own and must return soon.
  Control(bool keys, std::function<void()> on_pause, std::function<void()> on_stop);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

 private:
  void listen();
  void handle(char event);
  void handle_stop();

  std::function<void()> m_on_pause, m_on_stop;
  bool m_keys;
  std::chrono::steady_clock::time_point m_first_stop{};
  std::thread m_thread;
};

/// Gives the terminal back the mode in which it was found. Safe at any time.
void restore_terminal();

}  // namespace meru_tool

#pragma once

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "support/eventually.h"

namespace meru_test {

/// A terminal of which the test holds the other end.
class Terminal {
 public:
  Terminal() {
    if (openpty(&m_master, &m_end, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("no terminal");
    fcntl(m_master, F_SETFL, O_NONBLOCK);
  }
  ~Terminal() {
    close(m_master);
    close(m_end);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// The end for a program.
  int end() const { return m_end; }
  termios mode() const {
    termios mode{};
    if (tcgetattr(m_end, &mode) != 0) throw std::runtime_error("no mode");
    return mode;
  }
  /// Reads what the program shows until the text is there.
  bool shows(const std::string& text) {
    return eventually([&] {
      char buffer[4096];
      for (ssize_t n = 0; (n = read(m_master, buffer, sizeof(buffer))) > 0;)
        m_shown.append(buffer, static_cast<size_t>(n));
      return m_shown.find(text) != std::string::npos;
    });
  }
  const std::string& shown() const { return m_shown; }
  void forget_shown() { m_shown.clear(); }
  void press(char key) const {
    if (write(m_master, &key, 1) != 1) throw std::runtime_error("the key is lost");
  }

 private:
  int m_master = -1, m_end = -1;
  std::string m_shown;
};

}  // namespace meru_test

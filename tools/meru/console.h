#pragma once

#include <mutex>
#include <string>

namespace meru_tool {

/// What the user sees: progress and results on standard output, failures on standard error, each in one line; and data
/// for another program. It keeps copies of both descriptors, since the library and the encoders print on the original
/// ones.
class Console {
 public:
  static Console& instance();

  /// Whether standard output is a terminal, where a line can be written over.
  bool is_terminal() const { return m_terminal; }
  /// Shows a line that the next one replaces. Terminals only.
  void status(const std::string& text);
  void line(const std::string& text);
  /// From now on standard output is for data alone, and lines go to standard error.
  void keep_for_data();
  /// A line on standard output, whatever else is kept from there.
  void data(const std::string& text);
  /// "meru: ..." on standard error.
  void error(const std::string& text);
  int error_descriptor() const { return m_err; }

 private:
  Console();
  void clear_status();

  int m_out, m_err;
  int m_lines;  // where lines go: one of the two
  bool m_terminal;
  std::mutex m_mutex;
  bool m_status_shown = false;  // guarded by m_mutex
};

}  // namespace meru_tool

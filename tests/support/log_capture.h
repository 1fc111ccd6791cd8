#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "meru/log.h"

namespace meru_test {

/// Collects every message of the library's log, whatever its level, as long as it lives.
class LogCapture {
 public:
  struct Line {
    int level;
    std::string text;  ///< with the quotes and the line feed
  };

  LogCapture() {
    nuv::Logger::instance()->m_callback = [this](const char*, int level, const char*, int, const char* msg) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.push_back({level, msg});
    };
  }
  ~LogCapture() { nuv::Logger::instance()->m_callback = nullptr; }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }
  /// How often exactly this message (given without the quotes) was logged at this level.
  long count(int level, const std::string& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::count_if(m_lines.begin(), m_lines.end(),
                         [&](const Line& l) { return l.level == level && l.text == "\"" + message + "\"\n"; });
  }

 private:
  std::mutex m_mutex;
  std::vector<Line> m_lines;  // guarded by m_mutex
};

}  // namespace meru_test

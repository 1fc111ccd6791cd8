#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

namespace meru_test {

/// Collects the text of FFmpeg's own log, whatever its level, as long as it lives. One at a time.
class AvLogCapture {
 public:
  AvLogCapture() {
    text().clear();
    av_log_set_callback(&collect);
  }
  ~AvLogCapture() { av_log_set_callback(&av_log_default_callback); }
  AvLogCapture(const AvLogCapture&) = delete;
  AvLogCapture& operator=(const AvLogCapture&) = delete;

  bool has(const std::string& part) const {
    const std::lock_guard<std::mutex> lock(mutex());
    return text().find(part) != std::string::npos;
  }

 private:
  static void collect(void* /*context*/, int /*level*/, const char* fmt, va_list ap) {
    char line[1024];
    vsnprintf(line, sizeof(line), fmt, ap);
    const std::lock_guard<std::mutex> lock(mutex());
    text() += line;
  }
  static std::string& text() {
    static std::string collected;
    return collected;
  }
  static std::mutex& mutex() {
    static std::mutex guard;
    return guard;
  }
};

}  // namespace meru_test

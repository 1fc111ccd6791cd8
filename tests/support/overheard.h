#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace meru_test {

/// Keeps what FFmpeg itself says off standard error, and collects what a host would see of it. One at a time.
class FfmpegLog {
 public:
  FfmpegLog() {
    text().clear();
    set_callback(&collect);
  }
  ~FfmpegLog() { set_callback(reinterpret_cast<Callback>(symbol("av_log_default_callback"))); }
  FfmpegLog(const FfmpegLog&) = delete;
  FfmpegLog& operator=(const FfmpegLog&) = delete;

  std::string said() const {
    const std::lock_guard<std::mutex> lock(mutex());
    return text();
  }

 private:
  using Callback = void (*)(void*, int, const char*, va_list);

  /// The tests see the library alone; its FFmpeg is in the process with it.
  static void* symbol(const char* name) {
    void* found = dlsym(RTLD_DEFAULT, name);
    if (found == nullptr) throw std::runtime_error(std::string("no ") + name);
    return found;
  }
  static void set_callback(Callback callback) {
    reinterpret_cast<void (*)(Callback)>(symbol("av_log_set_callback"))(callback);
  }
  static void collect(void* /*context*/, int level, const char* fmt, va_list ap) {
    constexpr int kInfo = 32;  // the level that FFmpeg prints up to
    if (level > kInfo) return;
    char line[2048];
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

/// What the library says as long as it lives: its log, and what it prints to standard error.
class Overheard {
 public:
  Overheard() { testing::internal::CaptureStderr(); }
  ~Overheard() { printed(); }
  Overheard(const Overheard&) = delete;
  Overheard& operator=(const Overheard&) = delete;

  LogCapture& log() { return m_log; }
  /// What FFmpeg has said.
  std::string ffmpeg() const { return m_ffmpeg.said(); }
  /// What our own code has printed to standard error. Nothing is captured from then on.
  const std::string& printed() {
    if (m_capturing) m_printed = testing::internal::GetCapturedStderr();
    m_capturing = false;
    return m_printed;
  }

  /// Why an output failed, once for each line at level 2 that says so.
  /// @param number  its place among the further outputs, from 1; 0 for the main output
  std::vector<std::string> failures(int number, const std::string& address) {
    const std::string place = number > 0 ? "further output " + std::to_string(number) : "main output";
    const std::string begin = "\"" + place + " (" + address + ") failed: ";
    std::vector<std::string> texts;
    for (const LogCapture::Line& line : m_log.lines()) {
      if (line.level != 2 || line.text.rfind(begin, 0) != 0) continue;
      texts.push_back(line.text.substr(begin.size(), line.text.rfind('"') - begin.size()));
    }
    return texts;
  }
  /// How many lines tell of a failed output, whichever it is.
  long failure_lines() {
    const auto lines = m_log.lines();
    return std::count_if(lines.begin(), lines.end(), [](const LogCapture::Line& line) {
      return line.text.find("output ") != std::string::npos && line.text.find(") failed: ") != std::string::npos;
    });
  }

  /// The secret is neither in the log nor on standard error.
  void expect_no(const std::string& secret) {
    for (const LogCapture::Line& line : m_log.lines())
      EXPECT_EQ(line.text.find(secret), std::string::npos) << line.text;
    EXPECT_EQ(printed().find(secret), std::string::npos) << printed();
  }

 private:
  FfmpegLog m_ffmpeg;
  LogCapture m_log;
  std::string m_printed;
  bool m_capturing = true;
};

/// An address as a log may show it: without its key when it is one of RTMP.
inline std::string public_address(const std::string& url) {
  return url.rfind("rtmp://", 0) == 0 ? url.substr(0, url.rfind('/') + 1) + "***" : url;
}

}  // namespace meru_test

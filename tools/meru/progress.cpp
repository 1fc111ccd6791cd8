#include "progress.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <utility>

#include "console.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string time_text(double recorded) {
  const auto whole = static_cast<long long>(recorded);
  char text[48];
  std::snprintf(text, sizeof(text), "%02lld:%02lld:%06.3f", whole / 3600, whole / 60 % 60,
                recorded - static_cast<double>(whole - whole % 60));
  return text;
}

}  // namespace

std::string shown(const std::string& output) {
  constexpr auto kFlags = std::regex::ECMAScript | std::regex::icase;
  static const std::regex password(R"(^(\w+://[^/:@]*:)[^/]*@)", kFlags);
  static const std::regex key(R"(^(rtmp\w*://[^/? ]+/(?:[^? ]*/)?)[^/? ]+/*(?:[? ].*)?$)", kFlags);
  return std::regex_replace(std::regex_replace(output, password, "$1***@"), key, "$1***");
}

Progress::Progress(std::string output, std::string shown, std::chrono::milliseconds interval)
    : m_output(std::move(output)), m_shown_name(std::move(shown)), m_interval(interval) {}

std::chrono::milliseconds Progress::interval() const {
  if (m_interval.count() > 0) return m_interval;
  return std::chrono::milliseconds(Console::instance().is_terminal() ? 250 : 1000);
}

/// What has reached the file; a live output has none.
std::string Progress::size_text() const {
  struct stat st {};
  if (is_network(m_output) || stat(m_output.c_str(), &st) != 0) return {};
  char text[48];
  std::snprintf(text, sizeof(text), "  %.1f MiB", static_cast<double>(st.st_size) / kMiB);
  return text;
}

std::string Progress::text(const Figures& figures, bool has_video, double images_per_second) const {
  std::string line = time_text(figures.seconds);
  if (has_video) {
    char rate[32];
    std::snprintf(rate, sizeof(rate), "  %.1f fps", images_per_second);
    line += "  " + std::to_string(figures.images) + " frames";
    if (figures.dropped >= 0) line += "  " + std::to_string(figures.dropped) + " dropped";
    line += rate;
  }
  return line + size_text();
}

void Progress::show(const Figures& figures, bool has_video) {
  const auto now = Clock::now();
  const double elapsed = seconds(now - m_shown);
  if (elapsed < std::min(0.1, seconds(interval()) / 2)) return;
  const double rate = static_cast<double>(figures.images - m_shown_images) / elapsed;
  m_shown = now;
  m_shown_images = figures.images;
  const std::string line = text(figures, has_video, rate) + (figures.outputs.empty() ? "" : "  " + figures.outputs);
  if (Console::instance().is_terminal()) {
    Console::instance().status((figures.paused ? "paused  " : "") + line);
  } else if (!figures.paused) {
    Console::instance().line(line);
  }
}

void Progress::finish(const char* done, Figures figures, bool has_video) {
  figures.seconds = figures.longest;
  const double elapsed = seconds(Clock::now() - m_begin);
  const double rate = elapsed > 0 ? static_cast<double>(figures.images) / elapsed : 0;
  Console::instance().line(done + (" " + text(figures, has_video, rate)) + "  " + m_shown_name);
}

}  // namespace meru_tool

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace meru_tool {

/// How far the work is.
struct Figures {
  double seconds = 0;  ///< how far every track has got
  double longest = 0;  ///< how far one of them has got
  int64_t images = 0;
  int64_t dropped = -1;  ///< images that should be in the movie and are not, -1 when none is ever missed
  bool paused = false;
  std::string outputs;  ///< the state of each output, empty when there is nothing to tell
};

/// An address as messages show it, without secrets: the last part of an RTMP address, a key, and a password.
std::string shown(const std::string& output);

/// Tells how far the recording is: a line that is written over on a terminal, else a plain line every second.
class Progress {
 public:
  /// @param shown     the output as it is told to the user
  /// @param interval  from one line to the next; 0 for the usual, a second, or less on a terminal
  Progress(std::string output, std::string shown, std::chrono::milliseconds interval);

  /// How long to wait from one look to the next.
  std::chrono::milliseconds interval() const;
  void show(const Figures& figures, bool has_video);
  /// The last line, when the movie is complete. @param done  what was done: "recorded"
  void finish(const char* done, Figures figures, bool has_video);

 private:
  std::string text(const Figures& figures, bool has_video, double images_per_second) const;
  std::string size_text() const;

  using Clock = std::chrono::steady_clock;
  std::string m_output, m_shown_name;
  std::chrono::milliseconds m_interval;
  Clock::time_point m_begin = Clock::now();
  Clock::time_point m_shown = m_begin;
  int64_t m_shown_images = 0;
};

}  // namespace meru_tool

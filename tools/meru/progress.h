#pragma once

#include <chrono>
#include <string>

#include "recorder.h"

namespace meru_tool {

/// Tells how far the recording is: a line that is written over on a terminal, else a plain line every second.
class Progress {
 public:
  /// @param shown  the output as it is told to the user
  Progress(std::string output, std::string shown);

  /// How long to wait from one look to the next.
  std::chrono::milliseconds interval() const;
  void show(const Recorder& recorder);
  /// The last line, when the movie is complete.
  void finish(const Recorder& recorder);

 private:
  std::string text(const Recorder::Figures& figures, bool has_video, double images_per_second) const;
  std::string size_text() const;

  using Clock = std::chrono::steady_clock;
  std::string m_output, m_shown_name;
  Clock::time_point m_begin = Clock::now();
  Clock::time_point m_shown = m_begin;
  int64_t m_shown_images = 0;
};

}  // namespace meru_tool

#pragma once

#include <algorithm>
#include <cstdint>

namespace meru_tool {

/// The times at which images are due: the places of the movie's frame rate, counted from 0, without the pauses. Times
/// are microseconds on the library's clock.
class CaptureGrid {
 public:
  CaptureGrid(int fps, int64_t begin_usec) : m_fps(fps), m_begin(begin_usec) {}

  /// When an image was taken that was asked for and given at these times. The display copies it at some moment between
  /// them; one that lets wait for long copies it once it goes on, which is at the end.
  static int64_t taken(int fps, int64_t asked, int64_t given) {
    return given - std::min(given - asked, kUsecPerSec / fps) / 2;
  }

  int64_t due(int64_t place) const { return m_begin + place * kUsecPerSec / m_fps; }
  /// The place that an image of this moment gets in the movie.
  int64_t nearest(int64_t usec) const { return ((usec - m_begin) * m_fps + kUsecPerSec / 2) / kUsecPerSec; }
  /// The next place to be filled behind `last`: those that it is too late for are left out.
  int64_t next(int64_t last, int64_t now) const { return std::max(last + 1, nearest(now)); }
  /// Moves all that is to come by the length of a pause.
  void leave_out(int64_t usec) { m_begin += usec; }

 private:
  static constexpr int64_t kUsecPerSec = 1000000;

  int m_fps;
  int64_t m_begin;
};

}  // namespace meru_tool

#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

/// Turns the host's time stamps into stream time: from 0 at the first frame ever pushed, without the paused intervals.
/// All times are microseconds on the library clock. Safe from several threads.
class RecordingClock {
 public:
  /// The first stamp ever given fixes time 0.
  void note_first(int64_t pts_usec);
  int64_t start_pts() const { return m_start_pts; }
  /// Stamps of some seventy thousand years and more, before or after, come out as about that.
  int64_t stream_time(int64_t pts_usec) const {
    return bounded(bounded(pts_usec) - bounded(m_start_pts) - m_pause_total);
  }

  bool is_paused() const { return m_pause_time >= 1; }
  /// Opens a pause at `now`; an open one begins anew at `now`.
  void pause(int64_t now);
  /// Closes the pause; of several threads one does. @return whether one was open
  bool resume(int64_t now);

 private:
  // So far away that no clock gets there, and near enough that the difference of two such times fits.
  static constexpr int64_t kFar = int64_t{1} << 61;
  static int64_t bounded(int64_t usec) { return std::clamp(usec, -kFar, kFar); }

  std::mutex m_mutex;
  std::atomic<int64_t> m_start_pts{-1};
  std::atomic<int64_t> m_pause_time{0};   // written under m_mutex: start of the open pause, 0 when there is none
  std::atomic<int64_t> m_pause_total{0};  // written under m_mutex: sum of the closed pauses
};

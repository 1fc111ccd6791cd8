#include "capture/recording_clock.h"

#include "common/printf_i64.h"

void RecordingClock::note_first(int64_t pts_usec) {
  int64_t unset = m_start_pts;
  while (unset < 0 && !m_start_pts.compare_exchange_weak(unset, pts_usec)) {
  }
}

void RecordingClock::pause(int64_t now) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_pause_time = now;
}

bool RecordingClock::resume(int64_t now) {
  int64_t pause_time = 0, drift = 0;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    pause_time = m_pause_time;
    if (pause_time < 1) return false;
    // Another thread may have opened the pause after this one read the time.
    drift = std::max<int64_t>(now - pause_time, 0);
    m_pause_total += drift;
    m_pause_time = 0;
  }
  nuv::print_stderr("*** pause_time=%I64d,  resume_time=%I64d,  drift=%I64d\n", static_cast<long long>(pause_time),
                    static_cast<long long>(now), static_cast<long long>(drift));
  return true;
}

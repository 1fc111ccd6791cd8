#include "capture/recording_clock.h"

#include "common/printf_i64.h"

void RecordingClock::note_first(int64_t pts_usec) {
  int64_t unset = m_start_pts;
  while (unset < 0 && !m_start_pts.compare_exchange_weak(unset, pts_usec)) {
  }
}

bool RecordingClock::resume(int64_t now) {
  const int64_t pause_time = m_pause_time;
  if (pause_time < 1) return false;
  const int64_t drift = now - pause_time;
  nuv::print_stderr("*** pause_time=%I64d,  resume_time=%I64d,  drift=%I64d\n", static_cast<long long>(pause_time),
                    static_cast<long long>(now), static_cast<long long>(drift));
  m_pause_total += drift;
  m_pause_time = 0;
  return true;
}

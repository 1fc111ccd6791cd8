#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>

namespace MR {

/// How much of one stream an encoder holds at the moment: written by the pushing thread, read by the writing threads.
class StreamDelay {
 public:
  /// @param end_usec  up to where the stream may have been pushed when the frame goes into the encoder
  void pushed(int64_t pts_usec, int64_t end_usec) {
    if (m_first_pushed == kNone) m_first_pushed = pts_usec;
    m_pushed = end_usec;
  }
  void returned(int64_t dts_usec) { m_returned = dts_usec; }

  /// @param from_start  whether everything counts as held as long as no packet has been returned; else nothing does
  int64_t held_usec(bool from_start) const {
    const int64_t pushed = m_pushed;
    const int64_t returned = m_returned;
    if (pushed == kNone || (returned == kNone && !from_start)) return 0;
    return std::max<int64_t>(pushed - (returned == kNone ? m_first_pushed.load() : returned), 0);
  }

 private:
  static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();
  std::atomic<int64_t> m_first_pushed{kNone};
  std::atomic<int64_t> m_pushed{kNone};
  std::atomic<int64_t> m_returned{kNone};
};

/// The same of a recording.
struct EncoderDelay {
  StreamDelay video, audio;
  int64_t held_usec(bool from_start) const {
    return std::max(video.held_usec(from_start), audio.held_usec(from_start));
  }
};

}  // namespace MR

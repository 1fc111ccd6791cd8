#pragma once

#include <cstdint>

namespace meru_tool {

/// Says when each piece of sound was taken. A server tells it now and then, each time with another small error, while
/// the samples themselves follow each other evenly. So the time goes on by the count of samples, and follows what is
/// measured slowly: that is how a device whose clock is a little fast or slow stays in time.
class SoundStamps {
 public:
  explicit SoundStamps(int sample_rate);

  /// @param usec  when the next sample was, or will be, taken. The first time counts as it is; a later one bends the
  ///              time by half a percent at most, unless several in a row are far off: then sound is missing, and the
  ///              time jumps
  void measure(int64_t usec);
  /// Whether there is a time at all.
  bool known() const { return m_known; }
  /// @param samples  how many the piece holds, of each channel
  /// @return when its first one was taken
  int64_t next(int64_t samples);
  /// What was measured before counts no more: the device has changed, or has rested.
  void restart();

 private:
  double m_usec_per_sample;
  bool m_known = false;
  double m_next = 0;  // when the next sample is taken
  double m_owed = 0;  // what the time is to be bent by
  int m_astray = 0;   // how many measured times in a row were far off
};

}  // namespace meru_tool

#include "screen/sound_stamps.h"

#include <algorithm>
#include <cmath>

namespace meru_tool {

namespace {

/// How far what is measured may be off without being another time altogether: more than the error of a busy machine,
/// and less than what is seen as sound beside the picture.
constexpr double kFarUsec = 40'000;
/// How often in a row. A thread that got no processor measures wrong once.
constexpr int kAstray = 3;
/// What part of an error one measurement makes good, and by how much the time is bent for it: ten times what any sound
/// card is off, and not to be heard.
constexpr double kGain = 0.25;
constexpr double kMostBend = 0.005;

}  // namespace

SoundStamps::SoundStamps(int sample_rate) : m_usec_per_sample(1e6 / sample_rate) {}

void SoundStamps::restart() { m_known = false; }

void SoundStamps::measure(int64_t usec) {
  const double error = static_cast<double>(usec) - m_next;
  const bool far = std::abs(error) > kFarUsec;
  m_astray = far ? m_astray + 1 : 0;
  if (!m_known || m_astray >= kAstray) {
    m_known = true;
    m_next = static_cast<double>(usec);
    m_owed = 0;
    m_astray = 0;
  } else if (!far) {
    m_owed = error * kGain;
  }
}

int64_t SoundStamps::next(int64_t samples) {
  const double stamp = m_next;
  const double length = static_cast<double>(samples) * m_usec_per_sample;
  const double bend = std::clamp(m_owed, -length * kMostBend, length * kMostBend);
  m_owed -= bend;
  m_next += length + bend;
  return std::llround(stamp);
}

}  // namespace meru_tool

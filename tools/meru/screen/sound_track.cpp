#include "screen/sound_track.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

#include "meru/recording.h"
#include "screen/steady_usec.h"

namespace meru_tool {

namespace {

constexpr int64_t kSampleBytes = 2;
constexpr std::chrono::milliseconds kSilencePiece{50};
constexpr std::chrono::milliseconds kLastSound{300};
// A device's clock is a little off. Up to here a sample more or less now and then, which nobody hears, makes up for it;
// beyond, sound is missing.
constexpr int64_t kSmallUsec = 5000;
constexpr int64_t kHoleUsec = 40000;
constexpr int64_t kBetweenBends = 15000;
// A server that hangs, or a device that rests, gives nothing, and its outputs must not wait for it. The sink of a
// machine that has played nothing yet takes its time.
constexpr int64_t kMissingUsec = 2000000;
constexpr int64_t kFirstUsec = 5000000;
constexpr size_t kKeptSeconds = 2;
constexpr size_t kMostSeconds = 10;

}  // namespace

SoundTrack::SoundTrack(const SoundFormat& format, Ways ways)
    : m_format(format), m_frame_bytes(static_cast<size_t>(format.channels * kSampleBytes)), m_ways(std::move(ways)) {}

SoundTrack::~SoundTrack() {
  if (m_thread.joinable()) finish(0);
}

void SoundTrack::add(const uint8_t* pcm, size_t bytes, int64_t taken_usec) noexcept {
  // The two clocks run apart by a little, so the way from one to the other is looked at each time.
  const int64_t now = steady_usec();
  const int64_t taken = taken_usec + MERU_current_sys_usec() - now;
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_given = now;
  m_given_any = true;
  if (m_paused || m_ended) return;
  try {
    m_pieces.push_back({{pcm, pcm + bytes - bytes % m_frame_bytes}, taken});
  } catch (const std::bad_alloc&) {
    return;  // the caller is a library of C, which no exception may pass
  }
  m_bytes += m_pieces.back().pcm.size();
  forget_old();
  m_changed.notify_all();
}

/// What waits is bounded: before the movie begins, and when an output holds the thread back. With m_mutex locked.
void SoundTrack::forget_old() {
  const size_t second = m_frame_bytes * static_cast<size_t>(m_format.sample_rate);
  const size_t most = second * (m_thread.joinable() ? kMostSeconds : kKeptSeconds);
  while (m_bytes > most) {
    m_bytes -= m_pieces.front().pcm.size();
    m_pieces.pop_front();
  }
}

void SoundTrack::lose() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_lost = true;
  m_changed.notify_all();
}

void SoundTrack::begin(int64_t usec) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_from = m_reached = m_anchor = m_last_stamp = usec;
  m_given = steady_usec();
  m_thread = std::thread(&SoundTrack::run, this);
}

void SoundTrack::pause() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_paused = true;
  m_pieces.clear();
  m_bytes = 0;
}

void SoundTrack::resume(int64_t now, int64_t length) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_paused = false;
  m_from = now;
  m_pauses += length;
}

void SoundTrack::finish(int64_t end) {
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_until = end;
    // What was taken until the end is still on its way. Samples and microseconds do not meet exactly.
    m_changed.wait_for(lock, kLastSound, [&] { return m_lost || m_paused || m_reached >= end - kSmallUsec; });
    m_ended = true;
    m_changed.notify_all();
  }
  if (m_thread.joinable()) m_thread.join();
}

void SoundTrack::run() {
  try {
    push_all();
  } catch (const std::exception& e) {
    m_ways.on_failure(e.what());
  }
}

void SoundTrack::push_all() {
  Piece piece;
  for (;;) {
    const Next next = wait(&piece);
    tell_missing(next);
    if (next == Next::kPiece) {
      push(&piece);
    } else if (next != Next::kNothing) {
      push_silence(piece.taken - end());
      m_behind_silence = true;
    }
    if (next == Next::kEnd) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reached = end();
    m_changed.notify_all();
  }
}

/// @param piece  receives the next one, or in `taken` the time up to which there is to be silence
SoundTrack::Next SoundTrack::wait(Piece* piece) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, kSilencePiece, [this] { return !m_pieces.empty() || m_ended; });
  if (m_pauses > 0) begin_anew();
  if (!m_pieces.empty()) {
    *piece = std::move(m_pieces.front());
    m_pieces.pop_front();
    m_bytes -= piece->pcm.size();
    cut_front(piece, m_from);
    cut_back(piece);
    return piece->pcm.empty() ? Next::kNothing : Next::kPiece;
  }
  piece->taken = m_paused ? end() : std::min<int64_t>(m_until, MERU_current_sys_usec());
  if (m_ended) return Next::kEnd;
  if (m_lost) return Next::kSilence;
  return source_is_silent() ? Next::kMissing : Next::kNothing;
}

/// With m_mutex locked.
bool SoundTrack::source_is_silent() const {
  return !m_paused && steady_usec() - m_given >= (m_given_any ? kMissingUsec : kFirstUsec);
}

void SoundTrack::tell_missing(Next next) {
  const bool missing = next == Next::kMissing;
  if (missing == m_missing || (!missing && next != Next::kPiece)) return;
  m_missing = missing;
  m_ways.on_missing(missing);
}

/// Behind a pause. With m_mutex locked.
void SoundTrack::begin_anew() {
  m_last_stamp += std::exchange(m_pauses, 0);
  m_anchor = m_from;
  m_samples = 0;
  m_library_aligns = true;
}

void SoundTrack::cut_front(Piece* piece, int64_t until) const {
  const int64_t early = std::clamp<int64_t>(samples_of(until - piece->taken), 0, count(*piece));
  piece->pcm.erase(piece->pcm.begin(), piece->pcm.begin() + early * static_cast<int64_t>(m_frame_bytes));
  piece->taken += usec_of(early);
}

void SoundTrack::cut_back(Piece* piece) const {
  if (m_until == INT64_MAX) return;
  const int64_t wanted = std::clamp<int64_t>(samples_of(m_until - piece->taken), 0, count(*piece));
  piece->pcm.resize(static_cast<size_t>(wanted) * m_frame_bytes);
}

/// Brings the run of samples to the time at which this piece was taken.
void SoundTrack::follow_clock(Piece* piece) {
  // The library brings the first sound behind a pause to exactly its stamp.
  if (std::exchange(m_library_aligns, false)) m_anchor = piece->taken;
  const int64_t late = piece->taken - end();
  // There is nothing yet that a jump would tear.
  const bool begins = m_samples == 0 || m_behind_silence;
  if (late > kHoleUsec || (late > 0 && begins)) {
    push_silence(late);
  } else if (late < -kHoleUsec || (late < 0 && begins)) {
    cut_front(piece, end());
  } else if (std::abs(late) > kSmallUsec) {
    bend(piece, late);
  }
}

/// Makes the run of samples longer or shorter by one. A server that is in a hurry gives pieces of a few samples.
void SoundTrack::bend(Piece* piece, int64_t late) {
  if (m_since_bend < samples_of(kBetweenBends)) return;
  m_since_bend = 0;
  if (late > 0) {
    const std::vector<uint8_t> last(piece->pcm.end() - static_cast<ptrdiff_t>(m_frame_bytes), piece->pcm.end());
    piece->pcm.insert(piece->pcm.end(), last.begin(), last.end());
  } else {
    piece->pcm.resize(piece->pcm.size() - m_frame_bytes);
  }
}

void SoundTrack::push(Piece* piece) {
  follow_clock(piece);
  if (piece->pcm.empty()) return;
  m_behind_silence = false;
  m_since_bend += count(*piece);
  m_last_stamp = end();
  m_samples += count(*piece);
  m_ways.push(piece->pcm.data(), piece->pcm.size(), m_last_stamp);
}

/// The library fills the time since its last stamp.
void SoundTrack::push_silence(int64_t usec) {
  if (samples_of(usec) <= 0) return;
  m_last_stamp += usec;
  m_samples += samples_of(usec);
  m_ways.push(nullptr, 0, m_last_stamp);
}

}  // namespace meru_tool

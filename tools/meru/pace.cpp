#include "pace.h"

#include <algorithm>

namespace meru_tool {

namespace {

// The muxer holds back what one track is ahead of the other, so that the packets lie interleaved in the movie.
constexpr int64_t kMostAhead = 1000000;

}  // namespace

void Pace::add(Track track, bool endless) { m_tracks[track] = {true, endless, false}; }

void Pace::begin() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_begin = std::chrono::steady_clock::now();
}

void Pace::forgive_lateness() {
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard<std::mutex> lock(m_mutex);
  auto begin = m_begin;
  for (const State& state : m_tracks) {
    if (state.present && !state.done) begin = std::max(begin, now - std::chrono::microseconds(state.time));
  }
  m_begin = begin;
  m_changed.notify_all();
}

/// A source without an end ends with the other track.
bool Pace::is_over(const State& mine, const State& other, int64_t stamp) const {
  return m_stopped || (mine.endless && other.present && !other.endless && other.done && stamp >= other.time);
}

/// @param awaited  how far the other track has to be
bool Pace::may_push(const State& mine, const State& other, int64_t awaited) const {
  return !m_held && (m_realtime || other.done || other.time >= awaited || other.time == mine.stuck);
}

bool Pace::wait_turn(Track track, int64_t stamp) {
  State& mine = m_tracks[track];
  const State& other = m_tracks[1 - track];
  std::unique_lock<std::mutex> lock(m_mutex);
  reach(track, stamp);
  const auto over = [&] { return is_over(mine, other, stamp); };
  const auto due = [&] { return m_begin + std::chrono::microseconds(stamp); };
  while (m_realtime && !over() && std::chrono::steady_clock::now() < due()) m_changed.wait_until(lock, due());
  const int64_t ahead = mine.endless && !other.endless ? 0 : kMostAhead;
  if (!over() && !may_push(mine, other, stamp - ahead)) {
    // The other comes up by half of it: the two would change places at each piece otherwise.
    const int64_t awaited = mine.awaited = stamp - ahead / 2;
    int64_t seen = other.time;
    while (!m_changed.wait_for(lock, m_patience, [&] { return over() || may_push(mine, other, awaited); })) {
      if (other.pushing && other.time == seen) mine.stuck = seen;
      seen = other.time;
    }
  }
  mine.pushing = !over();
  return mine.pushing;
}

void Pace::advance(Track track, int64_t time) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_tracks[track].pushing = false;
  reach(track, time);
}

/// With m_mutex locked.
void Pace::reach(Track track, int64_t time) {
  State& mine = m_tracks[track];
  mine.time = std::max(mine.time, time);
  State& other = m_tracks[1 - track];
  if (mine.time < other.awaited) return;
  other.awaited = INT64_MAX;  // told once
  m_changed.notify_all();
}

void Pace::finish(Track track) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_tracks[track].done = true;
  m_changed.notify_all();
}

void Pace::hold(bool held) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_held = held;
  m_changed.notify_all();
}

void Pace::stop() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_stopped = true;
  m_changed.notify_all();
}

bool Pace::stopped() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_stopped;
}

bool Pace::wait_all(std::chrono::milliseconds deadline) {
  const auto all_done = [this] { return m_tracks[0].done && m_tracks[1].done; };
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, deadline, [&] { return m_woken || all_done(); });
  m_woken = false;
  return all_done();
}

void Pace::wake() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_woken = true;
  m_changed.notify_all();
}

}  // namespace meru_tool

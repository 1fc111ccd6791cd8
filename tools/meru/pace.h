#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace meru_tool {

/// Decides when a track may push its next piece: in step with the other track, at the pace of the clock when the
/// sources are live, and not while the work is held. Shared by the pushing threads.
class Pace {
 public:
  enum Track { kVideo, kAudio };

  explicit Pace(bool realtime) : m_realtime(realtime) {}

  /// Announces a track, before the threads run.
  void add(Track track, bool endless);
  /// Time 0 of the live sources is now.
  void begin();

  /// Waits until the piece at `stamp` microseconds is to be pushed. @return false when nothing more is to be pushed
  bool wait_turn(Track track, int64_t stamp);
  /// The track has been pushed up to `time`.
  void advance(Track track, int64_t time);
  void finish(Track track);

  void hold(bool held);
  /// Moves the time 0 of the live sources so far that they are not late any more. What is late would otherwise be made
  /// up for in a pause, where pushing costs nothing, and be missing from the movie beyond the pause.
  void forgive_lateness();
  void stop();
  bool stopped() const;
  /// Waits until every track has finished, `wake()` or a deadline. @return whether all have finished
  bool wait_all(std::chrono::milliseconds deadline);
  void wake();

 private:
  struct State {
    bool present = false, endless = false, done = true;
    int64_t time = 0;  // microseconds pushed
  };

  bool may_push(const State& mine, const State& other, int64_t stamp) const;
  bool is_over(const State& mine, const State& other, int64_t stamp) const;

  const bool m_realtime;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::array<State, 2> m_tracks;                  // guarded by m_mutex
  bool m_held = false, m_stopped = false;         // guarded by m_mutex
  bool m_woken = false;                           // guarded by m_mutex
  std::chrono::steady_clock::time_point m_begin;  // guarded by m_mutex: time 0
};

}  // namespace meru_tool

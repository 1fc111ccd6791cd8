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

  /// @param patience  how long a track that is ahead waits while the other one is being pushed: what it is pushed into
  ///                  may wait for the track that is ahead
  explicit Pace(bool realtime, std::chrono::milliseconds patience = kForEver)
      : m_realtime(realtime), m_patience(patience) {}

  /// Announces a track, before the threads run.
  void add(Track track, bool endless);
  /// Time 0 of the live sources is now.
  void begin();

  /// Waits until the piece at `stamp` microseconds is to be pushed, before which none follows. @return false when
  /// nothing more is to be pushed
  bool wait_turn(Track track, int64_t stamp);
  /// The push is over: the track has been pushed up to `time`.
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
  static constexpr std::chrono::hours kForEver{24 * 365};

  struct State {
    bool present = false, endless = false, done = true;
    bool pushing = false;
    int64_t time = 0;             // microseconds before which nothing more comes
    int64_t awaited = INT64_MAX;  // the other track's time for which this one waits
    int64_t stuck = INT64_MIN;    // the other track's time at which it was waited for in vain
  };

  void reach(Track track, int64_t time);
  bool may_push(const State& mine, const State& other, int64_t awaited) const;
  bool is_over(const State& mine, const State& other, int64_t stamp) const;

  const bool m_realtime;
  const std::chrono::milliseconds m_patience;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::array<State, 2> m_tracks;                  // guarded by m_mutex
  bool m_held = false, m_stopped = false;         // guarded by m_mutex
  bool m_woken = false;                           // guarded by m_mutex
  std::chrono::steady_clock::time_point m_begin;  // guarded by m_mutex: time 0
};

}  // namespace meru_tool

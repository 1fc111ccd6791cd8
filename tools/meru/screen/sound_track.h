#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "screen/sound_source.h"

namespace meru_tool {

/// The movie's sound: what a source gives, brought to the time at which it was taken, and silence where it gives
/// nothing. Pushed by a thread of its own. Times are microseconds on the library's clock.
class SoundTrack {
 public:
  /// What is called on the track's thread.
  struct Ways {
    /// Takes sound whose first sample belongs to that time; or with null silence, as much as has passed since the time
    /// of the call before. Throws to end the track.
    std::function<void(uint8_t* pcm, size_t bytes, int64_t usec)> push;
    /// Told what was thrown.
    std::function<void(const std::string& reason)> on_failure;
    /// True when the source has given nothing for some seconds, so that silence follows, and false when it gives
    /// something again.
    std::function<void(bool missing)> on_missing;
  };
  SoundTrack(const SoundFormat& format, Ways ways);
  ~SoundTrack();
  SoundTrack(const SoundTrack&) = delete;
  SoundTrack& operator=(const SoundTrack&) = delete;

  /// From the source's thread. Without memory for it the piece is left out. @param taken_usec  on the steady clock
  void add(const uint8_t* pcm, size_t bytes, int64_t taken_usec) noexcept;
  /// Nothing more will be added: silence follows. From any thread.
  void lose();

  /// Time 0 of the movie, whose first image has been pushed.
  void begin(int64_t usec);
  void pause();
  /// @param now  when the session was resumed  @param length  of the pause
  void resume(int64_t now, int64_t length);
  /// Brings the sound to this end, and ends.
  void finish(int64_t end);

 private:
  struct Piece {
    std::vector<uint8_t> pcm;
    int64_t taken = 0;
  };
  enum class Next { kPiece, kSilence, kMissing, kNothing, kEnd };

  void run();
  Next wait(Piece* piece);
  bool source_is_silent() const;
  void tell_missing(Next next);
  void begin_anew();
  void forget_old();
  void push_all();
  void push(Piece* piece);
  void push_silence(int64_t usec);
  void cut_front(Piece* piece, int64_t until) const;
  void cut_back(Piece* piece) const;
  void follow_clock(Piece* piece);
  void bend(Piece* piece, int64_t late);
  int64_t samples_of(int64_t usec) const { return usec * m_format.sample_rate / 1000000; }
  int64_t usec_of(int64_t samples) const { return samples * 1000000 / m_format.sample_rate; }
  int64_t count(const Piece& piece) const { return static_cast<int64_t>(piece.pcm.size() / m_frame_bytes); }
  int64_t end() const { return m_anchor + usec_of(m_samples); }

  const SoundFormat m_format;
  const size_t m_frame_bytes;
  const Ways m_ways;
  std::thread m_thread;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Piece> m_pieces;                              // guarded by m_mutex
  size_t m_bytes = 0;                                      // guarded by m_mutex: in the pieces
  bool m_lost = false, m_paused = false, m_ended = false;  // guarded by m_mutex
  int64_t m_given = 0;                                     // guarded by m_mutex: when, on the steady clock
  bool m_given_any = false;                                // guarded by m_mutex
  int64_t m_from = 0;                                      // guarded by m_mutex: what was taken before is left out
  int64_t m_pauses = 0;                                    // guarded by m_mutex: not looked at yet by the thread
  int64_t m_until = INT64_MAX;                             // guarded by m_mutex: what was taken later is left out
  int64_t m_reached = 0;                                   // guarded by m_mutex: the end of what is pushed

  // The thread's own:
  int64_t m_anchor = 0;      // where the run of samples began
  int64_t m_samples = 0;     // of the run
  int64_t m_since_bend = 0;  // samples
  int64_t m_last_stamp = 0;  // of the last push, from which the library counts silence
  bool m_library_aligns = false;
  bool m_missing = false;         // as was told
  bool m_behind_silence = false;  // there was no sound before the next piece
};

}  // namespace meru_tool

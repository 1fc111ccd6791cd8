#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "meru/movie_info.h"

/// Carries status messages of a session to the host, from whatever thread they come, and makes sure that none arrives
/// once the session has been stopped.
class StatusRelay {
 public:
  using Note = std::function<void(int id, const char* text)>;

  /// @param cb    the host's, may be null
  /// @param note  what the session does with a message just before the host is called; may be empty
  StatusRelay(MovieStatusCallback cb, void* user, Note note = nullptr)
      : m_cb(cb), m_user(user), m_note(std::move(note)) {}

  /// Tells the session, then the host. Does nothing once muted.
  void report(int id, const char* text);

  /// No call begins from now on.
  void mute();
  /// Returns when no call is running on another thread.
  void wait_until_quiet();
  /// @return whether this thread is inside a call to the host
  bool inside_callback();

 private:
  /// A call to the host under way. On the stack of its thread, so that a report needs no memory.
  struct Call {
    std::thread::id thread = std::this_thread::get_id();
    Call* next = nullptr;
  };

  bool enter(Call* call);
  void leave(const Call* call);

  MovieStatusCallback m_cb;
  void* m_user;
  Note m_note;
  std::mutex m_mutex;
  std::condition_variable m_left;
  bool m_muted = false;      // guarded by m_mutex
  Call* m_inside = nullptr;  // guarded by m_mutex: the calls to the host that are running
};

#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "meru/movie_info.h"

class MovieCapture2;

/// Carries status messages of a session to the host, from whatever thread they come, and makes sure that none arrives
/// once the session has been stopped.
class StatusRelay {
 public:
  StatusRelay(MovieCapture2* session, MovieStatusCallback cb, void* user)
      : m_session(session), m_cb(cb), m_user(user) {}

  /// Notes a start (id 0) in the session and calls the host. Does nothing once muted.
  void report(int id, const char* text);

  /// No call begins from now on.
  void mute();
  /// Returns when no call is running on another thread.
  void wait_until_quiet();
  /// @return whether this thread is inside a call to the host
  bool inside_callback();

 private:
  bool enter();
  void leave();

  MovieCapture2* m_session;
  MovieStatusCallback m_cb;
  void* m_user;
  std::mutex m_mutex;
  std::condition_variable m_left;
  bool m_muted = false;                   // guarded by m_mutex
  std::vector<std::thread::id> m_inside;  // guarded by m_mutex: the threads that are calling the host
};

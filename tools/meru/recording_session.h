#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "diagnostics.h"
#include "meru/movie_info.h"
#include "movie_options.h"
#include "outputs.h"

namespace meru_tool {

/// A session of the library as the command runs one: started, watched for its failure, ended.
class RecordingSession {
 public:
  /// What the user of this class adds to it.
  struct Ways {
    /// The options that leave a track out, for the message about a container that cannot hold it; empty for none.
    const char* without_images = "";
    const char* without_sound = "";
    /// Called for every failure, on the thread that finds it. Must not wait.
    std::function<void()> on_failure;
    /// Shows the states of the outputs while a server is waited for. @param first  whether the wait has just begun
    std::function<void(const std::string& states, bool first)> on_waiting;
  };
  /// What is pointed to must outlive the session.
  RecordingSession(const MovieOptions* options, const Outputs* outputs, const Diagnostics* diagnostics, Ways ways);
  ~RecordingSession();
  RecordingSession(const RecordingSession&) = delete;
  RecordingSession& operator=(const RecordingSession&) = delete;

  /// Starts, and waits until the main output is open. Throws a Failure when it is not.
  void start(const MovieInfo& info);
  /// Ends the wait of start(). From any thread.
  void give_up_start();
  /// Completes the movie.
  void finish();

  void* handle() const { return m_session; }
  /// The movie's frame rate, 0 before the start. From any thread.
  int fps() const { return m_fps; }

  /// Whether the image that was pushed last stands in the movie: the library leaves out one whose time does not rise by
  /// a frame. To be asked after each image but the first, by the thread that pushes it.
  bool image_was_taken();
  /// The number of the last image's place on the grid of the frame rate, for the same thread.
  long long last_place() const { return m_last_place; }
  /// Pushes sound, or with null the silence since the last push, as the library does. Throws a Failure when it fails.
  void push_sound(uint8_t* pcm, size_t bytes, int64_t usec) const;
  /// Throws a Failure for a negative result of a push.
  void check_pushed(int result) const;

  /// Keeps the first one. From any thread.
  void note_failure(const std::string& text);
  /// Why the movie is not complete, empty while nothing is wrong.
  std::string failure() const;

 private:
  static void on_status(int code, const char* text, void* user);
  void note_status(int code, const std::string& text);
  void wait_for_server();
  bool started() const;
  void check_tracks(const MovieInfo& info);
  [[noreturn]] void fail_start();

  const MovieOptions* m_options;
  const Outputs* m_outputs;
  const Diagnostics* m_diagnostics;
  const Ways m_ways;
  void* m_session = nullptr;
  std::atomic<int> m_fps{0};
  long long m_last_place = 0;  // the video thread's
  mutable std::mutex m_mutex;
  std::condition_variable m_answered;
  bool m_started = false, m_given_up = false;  // guarded by m_mutex
  std::string m_failure;                       // guarded by m_mutex: the first one
};

}  // namespace meru_tool

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "diagnostics.h"
#include "media_source.h"
#include "outputs.h"
#include "pace.h"
#include "progress.h"

namespace meru_tool {

/// One recording of the command: a session of the library, fed from two threads.
class Recorder {
 public:
  Recorder(const RecordOptions& options, Diagnostics* diagnostics);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// Records to the end. Throws a Failure when the movie could not be completed.
  void run();

  /// Ends the recording soon. From any thread.
  void stop();
  /// Pauses or resumes soon. From any thread.
  void toggle_pause();

  /// What has gone into the movie so far.
  Figures figures() const;
  bool has_video() const { return m_video.source != nullptr; }

  /// What was wrong with the sources and the further outputs although the movie was completed. To be asked after run().
  std::vector<std::string> shortcomings() const;

 private:
  struct TrackState {
    std::unique_ptr<MediaSource> source;
    Pace::Track track = Pace::kVideo;
    int64_t pushed = 0;                // units, what a pause has dropped included
    std::atomic<int64_t> recorded{0};  // units
    int64_t wanted = -1;               // units, -1 for all
  };

  static void on_status(int code, const char* text, void* user);
  void note_status(int code, const std::string& text);
  void wait_for_first_pieces();
  void start_session();
  void wait_for_server();
  bool started() const;
  void check_session();
  [[noreturn]] void fail_start();
  void begin(TrackState* state);
  void push_all(TrackState* state);
  bool push_next(TrackState* state);
  bool was_taken(const TrackState& state);
  void change_pause();
  void note_failure(const std::string& text);
  std::string failure() const;
  void watch(Progress* progress);

  const RecordOptions& m_options;
  Diagnostics* m_diagnostics;
  Outputs m_outputs;
  TrackState m_video, m_audio;
  MovieInfo m_info;
  Pace m_pace;
  void* m_session = nullptr;
  int m_fps = 0;                       // the movie's frame rate
  long long m_last_index = 0;          // the video thread's: where the last image stands, in frames
  std::mutex m_push_mutex;             // a pause begins between two pushes, never in one: so every image is counted
  std::atomic<int> m_pauses_asked{0};  // changes not carried out yet
  std::atomic<bool> m_paused{false};
  mutable std::mutex m_mutex;
  std::condition_variable m_answered;
  bool m_started = false, m_stop_asked = false;  // guarded by m_mutex
  std::string m_failure;                         // guarded by m_mutex: the first one
};

}  // namespace meru_tool

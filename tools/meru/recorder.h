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
#include "recording_session.h"

namespace meru_tool {

/// One recording of the command: a session of the library, fed from two threads.
class Recorder {
 public:
  Recorder(const RecordOptions& options, Diagnostics* diagnostics);
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

  void wait_for_first_pieces();
  void begin(TrackState* state);
  void push_all(TrackState* state);
  bool push_next(TrackState* state);
  bool was_taken(const TrackState& state);
  void change_pause();
  void watch(Progress* progress);

  const RecordOptions& m_options;
  Outputs m_outputs;
  TrackState m_video, m_audio;
  MovieInfo m_info;
  Pace m_pace;
  RecordingSession m_session;
  std::mutex m_push_mutex;             // a pause begins between two pushes, never in one: so every image is counted
  std::atomic<int> m_pauses_asked{0};  // changes not carried out yet
  std::atomic<bool> m_paused{false};
};

}  // namespace meru_tool

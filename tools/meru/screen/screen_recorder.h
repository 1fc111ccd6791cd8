#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics.h"
#include "outputs.h"
#include "progress.h"
#include "recording_session.h"
#include "screen/capture_grid.h"
#include "screen/display_watch.h"
#include "screen/image_queue.h"
#include "screen/screen_events.h"
#include "screen/screen_options.h"
#include "screen/screen_source.h"
#include "screen/sound_track.h"

namespace meru_tool {

/// One recording of a screen: one thread captures by the clock, one pushes the images, one the sound.
class ScreenRecorder {
 public:
  /// Opens the screen and the sound. What is pointed to must outlive the recorder.
  ScreenRecorder(const ScreenOptions* options, const Diagnostics* diagnostics, const ScreenEvents* events);
  ~ScreenRecorder();
  ScreenRecorder(const ScreenRecorder&) = delete;
  ScreenRecorder& operator=(const ScreenRecorder&) = delete;

  /// Records to the end. Throws a Failure when the movie could not be completed.
  void run();
  /// Ends the recording soon. From any thread.
  void stop();
  /// Pauses or resumes soon. From any thread.
  void toggle_pause();

  /// How many images are in the movie. From any thread.
  int64_t frames() const { return m_frames; }
  /// What went wrong although the movie was completed. To be asked after run().
  std::vector<std::string> shortcomings() const;

 private:
  using Json = ScreenEvents::Json;
  using Clock = DisplayWatch::Clock;

  void open_sound_source();
  void lose_sound(const std::string& reason) noexcept;
  void tell_missing_sound(bool missing) const;
  bool stop_asked();
  void tell_start() const;
  void record(Progress* progress);
  void tell_end(Progress* progress);

  // The capturing thread:
  void capture_all();
  bool capture_next();
  bool wait_until_due();
  bool take(size_t place);
  void lose_display(const std::string& reason);
  void note_end();
  void rest();
  void note_screen();

  // The pushing thread:
  void push_all();
  void push(const TakenImage& image);

  void watch(Progress* progress);
  bool wait_for_end(Clock::time_point deadline);
  void look_at_display();
  Clock::time_point end_time();
  void tell_progress(Progress* progress);
  void tell_failed_outputs();
  Figures figures() const;
  double seconds() const;
  /// Places without an image, when there are so many frames.
  int64_t dropped(int64_t frames) const { return std::max<int64_t>(m_places - frames, 0); }
  Json outputs_json() const;

  const ScreenOptions* m_options;
  const ScreenEvents* m_events;
  Outputs m_outputs;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stop_asked = false, m_pause_wanted = false, m_done = false;  // guarded by m_mutex
  Clock::time_point m_end = Clock::time_point::max();                 // guarded by m_mutex: when it is to end
  std::atomic<int64_t> m_frames{0}, m_places{0};                      // in the movie, and how many there should be
  std::atomic<bool> m_paused{false};
  std::atomic<bool> m_abandoned{false};  // the display
  DisplayWatch m_display;

  RecordingSession m_session;  // behind what its thread calls back for
  std::unique_ptr<ScreenSource> m_screen;
  ImageQueue m_images;
  std::unique_ptr<SoundTrack> m_sound;          // null without sound
  std::unique_ptr<SoundSource> m_sound_source;  // behind the track, which it calls
  MovieInfo m_info{};
  int64_t m_wanted = INT64_MAX;     // places of the movie
  std::vector<bool> m_told_failed;  // outputs of which it was told

  // The capturing thread's:
  std::optional<CaptureGrid> m_grid;  // from the first image on
  int64_t m_last = -1;                // the last place that was filled or missed
  Region m_screen_size;
  std::string m_display_lost;  // why, empty while it is there
  bool m_reached_end = false;  // of what was wanted
};

}  // namespace meru_tool

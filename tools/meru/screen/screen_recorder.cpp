#include "screen/screen_recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <new>

#include "console.h"
#include "failure.h"
#include "meru/recording.h"
#include "movie_shape.h"

namespace meru_tool {

namespace {

// Half a second at 30 images a second is too much memory for a large screen; this is enough for an encoder's pauses.
constexpr size_t kPlaces = 8;
constexpr std::chrono::milliseconds kLookInterval{250};

DisplayWatch::Clock::time_point steady_time(int64_t library_usec) {
  return DisplayWatch::Clock::now() + std::chrono::microseconds(library_usec - MERU_current_sys_usec());
}

ScreenWish wish_of(const ScreenOptions& options) {
  ScreenWish wish;
  wish.display = options.display;
  wish.region = options.wished_region();
  wish.pointer = !options.no_pointer;
  wish.places = kPlaces;
  return wish;
}

}  // namespace

ScreenRecorder::ScreenRecorder(const ScreenOptions* options, const Diagnostics* diagnostics, const ScreenEvents* events)
    : m_options(options),
      m_events(events),
      m_outputs(options->output, options->also, diagnostics),
      m_session(options, &m_outputs, diagnostics,
                {"", "--audio none", [this] { stop(); },
                 [this](const std::string& states, bool) { m_events->tell("connecting", 0, outputs_json(), states); }}),
      m_screen(open_screen(wish_of(*options))),
      m_images(kPlaces),
      m_told_failed(m_outputs.count()),
      m_screen_size(m_screen->screen()) {
  VideoShape shape;
  shape.size = {m_screen->region().width, m_screen->region().height};
  shape.fps_num = options->fps;
  open_sound_source();
  m_info = make_movie_info(*options, shape, {true, m_sound != nullptr});
}

ScreenRecorder::~ScreenRecorder() = default;

/// Whoever names a source wants that one; without a name the movie just has the sound that there is.
void ScreenRecorder::open_sound_source() {
  if (m_options->audio == "none") return;
  const SoundFormat format{m_options->rate, m_options->channels};
  SoundTrack::Ways ways;
  ways.push = [this](uint8_t* pcm, size_t bytes, int64_t usec) { m_session.push_sound(pcm, bytes, usec); };
  ways.on_failure = [this](const std::string& reason) { m_session.note_failure(reason); };
  ways.on_missing = [this](bool missing) { tell_missing_sound(missing); };
  m_sound = std::make_unique<SoundTrack>(format, ways);
  SoundListener listener;
  listener.on_sound = [this](const uint8_t* pcm, size_t bytes, int64_t taken) { m_sound->add(pcm, bytes, taken); };
  listener.on_lost = [this](const std::string& reason) { lose_sound(reason); };
  try {
    m_sound_source = open_sound(m_options->audio, format, listener);
  } catch (const Failure& e) {
    if (m_options->audio != "default") throw;
    m_sound.reset();
    m_events->tell("no_sound", 0, {{"reason", e.what()}}, std::string("without sound: ") + e.what());
  }
}

/// Called back by a library of C, which no exception may pass.
void ScreenRecorder::lose_sound(const std::string& reason) noexcept {
  m_sound->lose();
  try {
    m_events->tell("sound_lost", seconds(), {{"reason", reason}}, "the sound is lost, silence follows: " + reason);
  } catch (const std::bad_alloc&) {
    return;  // without memory nothing can be told
  }
}

void ScreenRecorder::tell_missing_sound(bool missing) const {
  if (missing) {
    m_events->tell("sound_missing", seconds(), Json::object(), "no sound comes: silence until it does");
  } else {
    m_events->tell("sound_back", seconds(), Json::object(), "the sound is back");
  }
}

void ScreenRecorder::run() {
  m_session.start(m_info);
  if (m_options->seconds > 0) {
    m_wanted = std::max<int64_t>(1, std::llround(m_options->seconds * m_session.fps()));
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_options->seconds));
  }
  tell_start();
  Progress progress(m_options->output, shown(m_options->output), std::chrono::milliseconds(m_options->progress_ms));
  record(&progress);
  if (m_reached_end) m_places = m_wanted;
  if (m_sound != nullptr && m_frames > 0) m_sound->finish(m_grid->due(m_places));
  m_sound_source.reset();
  m_session.finish();
  tell_end(&progress);
}

/// From the beginning of the threads to their end, also when one cannot be had.
void ScreenRecorder::record(Progress* progress) {
  std::thread capture, push;
  try {
    capture = std::thread(&ScreenRecorder::capture_all, this);
    push = std::thread(&ScreenRecorder::push_all, this);
    watch(progress);
  } catch (const std::exception& e) {
    m_session.note_failure(e.what());
    // Nobody looks any more at what they wait for.
    m_images.close();
    m_screen->abandon();
  }
  for (std::thread* thread : {&capture, &push}) {
    if (thread->joinable()) thread->join();
  }
}

void ScreenRecorder::tell_start() const {
  const Region& region = m_screen->region();
  const bool sound = m_sound != nullptr;
  m_events->tell("started", 0,
                 {{"output", shown(m_options->output)},
                  {"index", m_options->index},
                  {"x", region.x},
                  {"y", region.y},
                  {"width", region.width},
                  {"height", region.height},
                  {"fps", m_session.fps()},
                  {"sound", sound}},
                 "recording " + region.text() + (sound ? " with sound" : "") + ": p pauses, q ends");
}

void ScreenRecorder::tell_end(Progress* progress) {
  tell_failed_outputs();
  const std::string failure = m_session.failure();
  if (!failure.empty()) throw Failure("the recording of " + shown(m_options->output) + " failed: " + failure);
  if (m_frames == 0) throw Failure(m_display_lost.empty() ? "nothing was recorded" : m_display_lost);
  m_events->tell("finished", seconds(), outputs_json(), "");
  if (!m_events->json()) progress->finish("recorded", figures(), true);
}

void ScreenRecorder::stop() {
  m_session.give_up_start();
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_stop_asked) m_end = Clock::now();
  m_stop_asked = true;
  m_changed.notify_all();
}

bool ScreenRecorder::stop_asked() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_stop_asked;
}

void ScreenRecorder::toggle_pause() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_pause_wanted = !m_pause_wanted;
  m_changed.notify_all();
}

void ScreenRecorder::capture_all() {
  try {
    while (wait_until_due() && capture_next()) {
    }
  } catch (const std::exception& e) {
    m_session.note_failure(e.what());
  }
  m_images.close();
}

/// Waits for the time of the next image, and through a pause. @return false when there will be no more
bool ScreenRecorder::wait_until_due() {
  for (;;) {
    const int64_t next = m_grid ? m_grid->next(m_last, MERU_current_sys_usec()) : 0;
    m_reached_end = next >= m_wanted;
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto disturbed = [this] { return m_stop_asked || (m_pause_wanted && m_grid); };
    if (m_grid) m_changed.wait_until(lock, steady_time(m_grid->due(std::min(next, m_wanted))), disturbed);
    if (m_stop_asked || m_reached_end) return false;
    if (!disturbed()) return true;
    lock.unlock();
    rest();
  }
}

bool ScreenRecorder::capture_next() {
  const std::optional<size_t> place = m_images.free_place();
  if (!place) {
    // Nothing can be captured: the outputs hold the pushing thread back.
    if (m_grid) m_last = m_grid->next(m_last, MERU_current_sys_usec());
    return true;
  }
  return take(*place);
}

bool ScreenRecorder::take(size_t place) {
  const int64_t asked = MERU_current_sys_usec();
  try {
    const DisplayWatch::Question open(&m_display, Clock::now());
    m_screen->take(place);
  } catch (const Failure& e) {
    if (!stop_asked()) lose_display(m_abandoned ? "the display does not answer" : e.what());
    return false;
  }
  const int64_t taken = CaptureGrid::taken(m_session.fps(), asked, MERU_current_sys_usec());
  note_screen();
  if (!m_grid) {
    m_grid.emplace(m_session.fps(), taken);
    note_end();
  }
  m_last = std::max(m_last + 1, m_grid->nearest(taken));
  if (m_last < m_wanted) {
    m_images.put({place, taken});
  } else {
    m_images.release(place);
  }
  return true;
}

void ScreenRecorder::lose_display(const std::string& reason) {
  m_display_lost = reason;
  m_events->tell("display_lost", seconds(), {{"reason", reason}}, "");
}

/// The time at which the last of the wanted places ends, which pauses put off.
void ScreenRecorder::note_end() {
  if (m_wanted == INT64_MAX) return;
  const Clock::time_point end = steady_time(m_grid->due(m_wanted));
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_stop_asked) m_end = end;
}

/// A pause, from its beginning to its end. Nothing is captured meanwhile.
void ScreenRecorder::rest() {
  m_images.wait_empty();
  if (m_sound != nullptr) m_sound->pause();
  const int64_t begin = MERU_current_sys_usec();
  if (!MERU_pause(m_session.handle())) throw Failure("the recording cannot be paused");
  m_paused = true;
  m_events->tell("paused", seconds(), Json::object(), Console::instance().is_terminal() ? "" : "paused");
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stop_asked || !m_pause_wanted; });
    if (m_stop_asked) return;
  }
  MERU_resume(m_session.handle());
  const int64_t now = MERU_current_sys_usec();
  m_grid->leave_out(now - begin);
  note_end();
  if (m_sound != nullptr) m_sound->resume(now, now - begin);
  m_paused = false;
  m_events->tell("resumed", seconds(), Json::object(), Console::instance().is_terminal() ? "" : "resumed");
}

void ScreenRecorder::note_screen() {
  const Region screen = m_screen->screen();
  if (screen == m_screen_size) return;
  m_screen_size = screen;
  const Region region = m_screen->region();
  const bool whole = region.within(screen) == region;
  m_events->tell("screen_changed", seconds(), {{"width", screen.width}, {"height", screen.height}, {"whole", whole}},
                 "the screen is " + screen.size_text() + " now; the movie keeps " + region.text() +
                     (whole ? "" : ", black beyond the screen"));
}

void ScreenRecorder::push_all() {
  try {
    while (const std::optional<TakenImage> image = m_images.next()) {
      push(*image);
      // A pause waits for this: what it tells counts the image.
      m_images.release(image->place);
    }
  } catch (const std::exception& e) {
    m_session.note_failure(e.what());
  }
  m_images.close();
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_done = true;
  m_changed.notify_all();
}

void ScreenRecorder::push(const TakenImage& image) {
  const int result = MERU_write_video_bgra(m_session.handle(), m_screen->image(image.place), m_screen->image_bytes(),
                                           image.taken_usec, m_screen->row_bytes());
  m_session.check_pushed(result);
  if (result == 0) return;
  const bool first = m_frames == 0;
  if (first || m_session.image_was_taken()) ++m_frames;
  m_places = std::max<int64_t>(m_places, m_session.last_place() + 1);
  if (first && m_sound != nullptr) m_sound->begin(image.taken_usec);
}

bool ScreenRecorder::wait_for_end(Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_until(lock, deadline, [this] { return m_done; });
}

void ScreenRecorder::watch(Progress* progress) {
  Clock::time_point tell_at = Clock::now() + progress->interval();
  // The user may want to hear of it once an hour; a display that hangs holds up the end, and shows by nothing but time.
  while (!wait_for_end(std::min(tell_at, Clock::now() + kLookInterval))) {
    tell_failed_outputs();
    look_at_display();
    if (Clock::now() < tell_at) continue;
    tell_at = Clock::now() + progress->interval();
    tell_progress(progress);
  }
}

void ScreenRecorder::look_at_display() {
  const Clock::time_point now = Clock::now();
  const DisplayWatch::Change change = m_display.look(now);
  if (change == DisplayWatch::Change::kHangs) {
    m_events->tell("display_hangs", seconds(), Json::object(), "the display does not answer");
  } else if (change == DisplayWatch::Change::kAnswers) {
    m_events->tell("display_answers", seconds(), Json::object(), "the display answers again");
  }
  if (!m_display.holds_up(end_time(), now)) return;
  m_abandoned = true;
  m_screen->abandon();
}

DisplayWatch::Clock::time_point ScreenRecorder::end_time() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_end;
}

void ScreenRecorder::tell_progress(Progress* progress) {
  if (!m_events->json()) {
    progress->show(figures(), true);
    return;
  }
  if (m_paused) return;
  m_events->tell("progress", seconds(), outputs_json(), "");
}

double ScreenRecorder::seconds() const {
  return m_session.fps() > 0 ? static_cast<double>(m_places) / m_session.fps() : 0;
}

Figures ScreenRecorder::figures() const {
  Figures figures;
  figures.seconds = figures.longest = seconds();
  figures.images = m_frames;
  figures.dropped = dropped(figures.images);
  figures.paused = m_paused;
  figures.outputs = m_outputs.states();
  return figures;
}

ScreenRecorder::Json ScreenRecorder::outputs_json() const {
  const int64_t frames = m_frames;
  Json json = {{"frames", frames}, {"dropped", dropped(frames)}};
  std::error_code error;
  const auto bytes = std::filesystem::file_size(m_options->output, error);
  if (!error) json["bytes"] = bytes;
  for (size_t i = 0; i < m_outputs.count(); ++i) {
    const Outputs::Shown output = m_outputs.shown_output(i);
    Json one = {{"name", output.name}, {"state", output.state}};
    if (!output.failure.empty()) one["reason"] = output.failure;
    json["outputs"].push_back(one);
  }
  return json;
}

void ScreenRecorder::tell_failed_outputs() {
  for (size_t i = 0; i < m_outputs.count(); ++i) {
    const Outputs::Shown output = m_outputs.shown_output(i);
    if (output.failure.empty() || m_told_failed[i]) continue;
    m_told_failed[i] = true;
    m_events->tell("output_failed", seconds(), {{"name", output.name}, {"reason", output.failure}},
                   i == 0 ? "" : output.name + " failed: " + output.failure);
  }
}

std::vector<std::string> ScreenRecorder::shortcomings() const {
  std::vector<std::string> texts = m_outputs.further_failures();
  if (!m_display_lost.empty()) texts.insert(texts.begin(), m_display_lost + ": the movie ends there");
  return texts;
}

}  // namespace meru_tool

#include "recorder.h"

#include <sys/stat.h>

#include <algorithm>
#include <limits>

#include "console.h"
#include "failure.h"
#include "meru/recording.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

void show_waiting(const std::string& states, bool first) {
  Console& console = Console::instance();
  if (console.is_terminal()) {
    console.status(states);
  } else if (!first) {
    console.line(states);
  }
}

}  // namespace

Recorder::Recorder(const RecordOptions& options, Diagnostics* diagnostics)
    : m_options(options),
      m_outputs(options.output, options.also, diagnostics),
      m_pace(options.realtime),
      m_session(&options, &m_outputs, diagnostics, {"--no-video", "--no-audio", [this] { stop(); }, &show_waiting}) {
  VideoShape shape;
  m_video.source = open_video(options, &shape);
  m_audio.source = open_audio(options);
  m_video.track = Pace::kVideo;
  m_audio.track = Pace::kAudio;
  m_info = make_movie_info(options, shape, {options.wants_video(), options.wants_audio()});
  for (TrackState* state : {&m_video, &m_audio}) {
    if (state->source == nullptr) continue;
    if (options.seconds > 0) state->wanted = state->source->units_in(options.seconds);
    m_pace.add(state->track, state->source->endless());
  }
}

void Recorder::run() {
  wait_for_first_pieces();
  m_session.start(m_info);
  {
    Progress progress(m_options.output, shown(m_options.output), std::chrono::milliseconds(m_options.progress_ms));
    for (TrackState* state : {&m_video, &m_audio}) begin(state);
    m_pace.begin();
    std::thread video(&Recorder::push_all, this, &m_video);
    std::thread audio(&Recorder::push_all, this, &m_audio);
    watch(&progress);
    video.join();
    audio.join();
    m_session.finish();
    const std::string failure = m_session.failure();
    if (!failure.empty()) throw Failure("the recording of " + shown(m_options.output) + " failed: " + failure);
    if (m_video.recorded == 0 && m_audio.recorded == 0) throw Failure("nothing was recorded");
    progress.finish("recorded", figures(), has_video());
  }
}

/// Pipes may take their time; nothing is created before there is something to record.
void Recorder::wait_for_first_pieces() {
  for (TrackState* state : {&m_video, &m_audio}) {
    if (state->source == nullptr || state->source->ready()) continue;
    if (m_pace.stopped()) throw Failure("stopped before anything was recorded");
    const std::string trouble = state->source->trouble();
    throw Failure(trouble.empty() ? "nothing to record: " + state->source->name() + " is empty" : trouble);
  }
}

void Recorder::begin(TrackState* state) {
  if (state->source == nullptr) return;
  state->pushed = state->source->prime(m_session.handle());
  state->recorded = state->pushed;
  m_pace.advance(state->track, state->source->time_of(state->pushed));
}

void Recorder::push_all(TrackState* state) {
  try {
    while (state->source != nullptr && push_next(state)) {
    }
  } catch (const std::exception& e) {
    m_session.note_failure(e.what());
  }
  m_pace.finish(state->track);
}

bool Recorder::was_taken(const TrackState& state) {
  return state.track != Pace::kVideo || state.recorded == 0 || m_session.image_was_taken();
}

bool Recorder::push_next(TrackState* state) {
  MediaSource& source = *state->source;
  const int64_t room = state->wanted < 0 ? INT64_MAX : state->wanted - state->recorded;
  if (room <= 0 || !m_pace.wait_turn(state->track, source.time_of(state->pushed)) || !source.next(room)) return false;
  int result = 0;
  {
    std::unique_lock<std::mutex> lock(m_push_mutex, std::defer_lock);
    if (state->track == Pace::kVideo || !has_video()) lock.lock();
    const bool dropped = MERU_is_paused(m_session.handle());
    result = source.push(m_session.handle());
    state->pushed += source.units();
    if (!dropped && was_taken(*state)) state->recorded += source.units();
  }
  m_session.check_pushed(result);
  m_pace.advance(state->track, source.time_of(state->pushed));
  return true;
}

void Recorder::stop() {
  m_session.give_up_start();
  m_pace.stop();
  for (TrackState* state : {&m_video, &m_audio}) {
    if (state->source != nullptr) state->source->stop();
  }
}

void Recorder::toggle_pause() {
  ++m_pauses_asked;
  m_pace.wake();
}

/// A live source goes on during a pause, and the library drops it and takes the time out. Without a clock there is
/// nothing to take out: the work just rests.
void Recorder::change_pause() {
  const bool pause = !m_paused;
  if (m_options.realtime) {
    const std::lock_guard<std::mutex> lock(m_push_mutex);
    if (pause) m_pace.forgive_lateness();
    if (!(pause ? MERU_pause(m_session.handle()) : MERU_resume(m_session.handle()))) return;
  } else {
    m_pace.hold(pause);
  }
  m_paused = pause;
  if (!Console::instance().is_terminal()) Console::instance().line(pause ? "paused" : "resumed");
}

void Recorder::watch(Progress* progress) {
  while (!m_pace.wait_all(progress->interval())) {
    for (; m_pauses_asked > 0; --m_pauses_asked) change_pause();
    progress->show(figures(), has_video());
  }
}

Figures Recorder::figures() const {
  Figures figures;
  figures.seconds = has_video() ? std::numeric_limits<double>::max() : 0;
  for (const TrackState* state : {&m_video, &m_audio}) {
    if (state->source == nullptr) continue;
    const double time = static_cast<double>(state->source->time_of(state->recorded)) / 1e6;
    figures.seconds = has_video() ? std::min(figures.seconds, time) : time;
    figures.longest = std::max(figures.longest, time);
  }
  figures.images = m_video.recorded;
  figures.paused = m_paused;
  figures.outputs = m_outputs.states();
  return figures;
}

std::vector<std::string> Recorder::shortcomings() const {
  std::vector<std::string> texts;
  for (const TrackState* state : {&m_video, &m_audio}) {
    if (state->source != nullptr && !state->source->trouble().empty()) texts.push_back(state->source->trouble());
  }
  for (const std::string& failure : m_outputs.further_failures()) texts.push_back(failure);
  struct stat st {};
  if (!m_options.index.empty() && (stat(m_options.index.c_str(), &st) != 0 || st.st_size == 0)) {
    texts.push_back("the index " + m_options.index + " was not written");
  }
  return texts;
}

}  // namespace meru_tool

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

constexpr long long kUsecPerSec = 1000000;
constexpr std::chrono::milliseconds kLookInterval{100};
constexpr std::chrono::seconds kTellInterval{1};

}  // namespace

Recorder::Recorder(const RecordOptions& options, Diagnostics* diagnostics)
    : m_options(options),
      m_diagnostics(diagnostics),
      m_outputs(options.output, options.also, diagnostics),
      m_pace(options.realtime) {
  VideoShape shape;
  m_video.source = open_video(options, &shape);
  m_audio.source = open_audio(options);
  m_video.track = Pace::kVideo;
  m_audio.track = Pace::kAudio;
  m_info = make_movie_info(options, shape);
  for (TrackState* state : {&m_video, &m_audio}) {
    if (state->source == nullptr) continue;
    if (options.seconds > 0) state->wanted = state->source->units_in(options.seconds);
    m_pace.add(state->track, state->source->endless());
  }
}

Recorder::~Recorder() { MERU_stop(&m_session); }

void Recorder::run() {
  wait_for_first_pieces();
  start_session();
  {
    Progress progress(m_options.output, shown(m_options.output), std::chrono::milliseconds(m_options.progress_ms));
    for (TrackState* state : {&m_video, &m_audio}) begin(state);
    m_pace.begin();
    std::thread video(&Recorder::push_all, this, &m_video);
    std::thread audio(&Recorder::push_all, this, &m_audio);
    watch(&progress);
    video.join();
    audio.join();
    MERU_stop(&m_session);
    if (!failure().empty()) throw Failure("the recording of " + shown(m_options.output) + " failed: " + failure());
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

void Recorder::on_status(int code, const char* text, void* user) {
  static_cast<Recorder*>(user)->note_status(code, text);
}

void Recorder::note_status(int code, const std::string& text) {
  if (code != MERU_STATUS_OK) note_failure(text);
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (code == MERU_STATUS_OK) m_started = true;
  m_answered.notify_all();
}

void Recorder::note_failure(const std::string& text) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_failure.empty()) m_failure = text;
  }
  stop();
}

std::string Recorder::failure() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_failure;
}

void Recorder::start_session() {
  const bool network = m_outputs.any_live();
  // Connecting takes its time and can be interrupted; a file is opened at once.
  m_session = MERU_start(m_info, &on_status, this, nullptr, network);
  if (m_session == nullptr) throw Failure("no memory for a session");
  if (network) wait_for_server();
  if (started()) check_session();
  MovieInfo effective;
  MERU_get_mInfo(m_session, &effective);
  m_fps = effective.fps;
  if (!started() || !failure().empty()) fail_start();
}

bool Recorder::started() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_started;
}

/// The library records on without what it could not set up; who asked for it should know at once.
void Recorder::check_session() {
  if (!m_options.index.empty() && m_diagnostics->index_failed()) {
    note_failure("the index " + m_options.index + " cannot be written");
  } else if (has_video() && MERU_video_dst_frame(m_session) == nullptr) {
    note_failure("this kind of file holds no images (--no-video records the sound alone)");
  } else if (m_audio.source != nullptr && MERU_audio_dst_frame(m_session) == nullptr) {
    note_failure("this kind of file holds no sound (--no-audio records the images alone)");
  }
}

void Recorder::wait_for_server() {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const auto deadline = begin + std::chrono::seconds(m_outputs.longest_opening_sec(m_options.timeout_sec));
  auto tell_at = begin + kTellInterval;
  if (Console::instance().is_terminal()) Console::instance().status(m_outputs.states());
  std::unique_lock<std::mutex> lock(m_mutex);
  // The library says nothing when an encoder refuses its settings, but for a line among its diagnostics.
  while (!m_started && m_failure.empty() && !m_stop_asked && !m_diagnostics->start_given_up()) {
    m_answered.wait_for(lock, kLookInterval);
    const auto now = Clock::now();
    if (!m_started && now >= tell_at) {
      Console::instance().is_terminal() ? Console::instance().status(m_outputs.states())
                                        : Console::instance().line(m_outputs.states());
      tell_at = now + kTellInterval;
    }
    if (m_options.timeout_sec == 0 || now < deadline) continue;
    m_failure = "no answer from the server within " + std::to_string(m_options.timeout_sec) + " s";
  }
}

void Recorder::fail_start() {
  std::string text = failure();
  bool begun = false, stopped = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    begun = m_started;
    stopped = m_stop_asked && text.empty();
  }
  const std::string reason = m_diagnostics->last_failure();
  MERU_stop(&m_session);
  if (stopped) throw Failure("stopped before the recording had begun");
  if (text.empty()) {
    text = reason.empty() ? "the encoder refused its settings" : reason;
  } else if (!begun && !reason.empty()) {
    text += ": " + reason;
  }
  throw Failure("cannot record " + shown(m_options.output) + ": " + text);
}

void Recorder::begin(TrackState* state) {
  if (state->source == nullptr) return;
  state->pushed = state->source->prime(m_session);
  state->recorded = state->pushed;
  m_pace.advance(state->track, state->source->time_of(state->pushed));
}

void Recorder::push_all(TrackState* state) {
  try {
    while (state->source != nullptr && push_next(state)) {
    }
  } catch (const std::exception& e) {
    note_failure(e.what());
  }
  m_pace.finish(state->track);
}

/// The library drops an image whose time does not rise by a frame, which happens where a pause was cut out.
bool Recorder::was_taken(const TrackState& state) {
  if (state.track != Pace::kVideo || state.recorded == 0) return true;
  const long long index = (MERU_movie_time(m_session) * m_fps + kUsecPerSec / 2) / kUsecPerSec;
  const bool rises = index > m_last_index;
  m_last_index = std::max(m_last_index, index);
  return rises;
}

bool Recorder::push_next(TrackState* state) {
  MediaSource& source = *state->source;
  const int64_t room = state->wanted < 0 ? INT64_MAX : state->wanted - state->recorded;
  if (room <= 0 || !m_pace.wait_turn(state->track, source.time_of(state->pushed)) || !source.next(room)) return false;
  int result = 0;
  {
    std::unique_lock<std::mutex> lock(m_push_mutex, std::defer_lock);
    if (state->track == Pace::kVideo || !has_video()) lock.lock();
    const bool dropped = MERU_is_paused(m_session);
    result = source.push(m_session);
    state->pushed += source.units();
    if (!dropped && was_taken(*state)) state->recorded += source.units();
  }
  if (result < 0) {
    const std::string reason = m_diagnostics->last_failure();
    throw Failure(reason.empty() ? (result == -2 ? "an encoder failed" : "the output takes nothing more") : reason);
  }
  m_pace.advance(state->track, source.time_of(state->pushed));
  return true;
}

void Recorder::stop() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop_asked = true;
    m_answered.notify_all();
  }
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
    if (!(pause ? MERU_pause(m_session) : MERU_resume(m_session))) return;
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

#include "recording_session.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "failure.h"
#include "meru/recording.h"
#include "progress.h"

namespace meru_tool {

namespace {

constexpr long long kUsecPerSec = 1000000;
constexpr std::chrono::milliseconds kLookInterval{100};
constexpr std::chrono::seconds kTellInterval{1};

std::string holds_no(const char* what, const char* option, const char* other) {
  const std::string text = std::string("this kind of file holds no ") + what;
  return *option == '\0' ? text : text + " (" + option + " records the " + other + " alone)";
}

}  // namespace

RecordingSession::RecordingSession(const MovieOptions* options, const Outputs* outputs, const Diagnostics* diagnostics,
                                   Ways ways)
    : m_options(options), m_outputs(outputs), m_diagnostics(diagnostics), m_ways(std::move(ways)) {}

RecordingSession::~RecordingSession() { MERU_stop(&m_session); }

void RecordingSession::finish() { MERU_stop(&m_session); }

void RecordingSession::on_status(int code, const char* text, void* user) {
  static_cast<RecordingSession*>(user)->note_status(code, text);
}

void RecordingSession::note_status(int code, const std::string& text) {
  if (code != MERU_STATUS_OK) note_failure(text);
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (code == MERU_STATUS_OK) m_started = true;
  m_answered.notify_all();
}

void RecordingSession::note_failure(const std::string& text) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_failure.empty()) m_failure = text;
  }
  m_ways.on_failure();
}

std::string RecordingSession::failure() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_failure;
}

void RecordingSession::give_up_start() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_given_up = true;
  m_answered.notify_all();
}

void RecordingSession::start(const MovieInfo& info) {
  const bool network = m_outputs->any_live();
  // Connecting takes its time and can be interrupted; a file is opened at once.
  m_session = MERU_start(info, &on_status, this, nullptr, network);
  if (m_session == nullptr) throw Failure("no memory for a session");
  if (network) wait_for_server();
  if (started()) check_tracks(info);
  MovieInfo effective;
  MERU_get_mInfo(m_session, &effective);
  m_fps = effective.fps;
  if (!started() || !failure().empty()) fail_start();
}

bool RecordingSession::started() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_started;
}

/// The library records on without what it could not set up; who asked for it should know at once.
void RecordingSession::check_tracks(const MovieInfo& info) {
  if (!m_options->index.empty() && m_diagnostics->index_failed()) {
    note_failure("the index " + m_options->index + " cannot be written");
  } else if (!info.no_video && MERU_video_dst_frame(m_session) == nullptr) {
    note_failure(holds_no("images", m_ways.without_images, "sound"));
  } else if (!info.no_audio && MERU_audio_dst_frame(m_session) == nullptr) {
    note_failure(holds_no("sound", m_ways.without_sound, "images"));
  }
}

void RecordingSession::wait_for_server() {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const auto deadline = begin + std::chrono::seconds(m_outputs->longest_opening_sec(m_options->timeout_sec));
  auto tell_at = begin + kTellInterval;
  m_ways.on_waiting(m_outputs->states(), true);
  std::unique_lock<std::mutex> lock(m_mutex);
  // The library says nothing when an encoder refuses its settings, but for a line among its diagnostics.
  while (!m_started && m_failure.empty() && !m_given_up && !m_diagnostics->start_given_up()) {
    m_answered.wait_for(lock, kLookInterval);
    const auto now = Clock::now();
    if (!m_started && now >= tell_at) {
      m_ways.on_waiting(m_outputs->states(), false);
      tell_at = now + kTellInterval;
    }
    if (m_options->timeout_sec == 0 || now < deadline) continue;
    m_failure = "no answer from the server within " + std::to_string(m_options->timeout_sec) + " s";
  }
}

void RecordingSession::fail_start() {
  std::string text = failure();
  bool begun = false, stopped = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    begun = m_started;
    stopped = m_given_up && text.empty();
  }
  const std::string reason = m_diagnostics->last_failure();
  MERU_stop(&m_session);
  if (stopped) throw Failure("stopped before the recording had begun");
  if (text.empty()) {
    text = reason.empty() ? "the encoder refused its settings" : reason;
  } else if (!begun && !reason.empty()) {
    text += ": " + reason;
  }
  throw Failure("cannot record " + shown(m_options->output) + ": " + text);
}

bool RecordingSession::image_was_taken() {
  const long long place = (MERU_movie_time(m_session) * m_fps + kUsecPerSec / 2) / kUsecPerSec;
  const bool rises = place > m_last_place;
  m_last_place = std::max(m_last_place, place);
  return rises;
}

void RecordingSession::push_sound(uint8_t* pcm, size_t bytes, int64_t usec) const {
  check_pushed(MERU_write_audio_pcm(m_session, pcm, static_cast<int>(bytes), usec));
}

void RecordingSession::check_pushed(int result) const {
  if (result >= 0) return;
  const std::string reason = m_diagnostics->last_failure();
  throw Failure(reason.empty() ? (result == -2 ? "an encoder failed" : "the output takes nothing more") : reason);
}

}  // namespace meru_tool

#include "remuxer.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "console.h"
#include "failure.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

// The library lets sound wait until there are enough pictures to begin with. A push of sound that lasts so long is held
// back for that; others take a fraction of it.
constexpr std::chrono::milliseconds kPatience{300};

}  // namespace

Remuxer::Remuxer(const RemuxOptions& options, const Outputs* outputs)
    : m_options(options), m_outputs(outputs), m_pace(options.realtime, kPatience) {
  m_video.track = Pace::kVideo;
  m_audio.track = Pace::kAudio;
  open_sources();
  make_info();
}

Remuxer::~Remuxer() { MERU2_stop(&m_session); }

void Remuxer::open_sources() {
  if (m_options.movie.empty()) {
    open_source(&m_video, PacketSource::kVideo, m_options.video, true);
    open_source(&m_audio, PacketSource::kAudio, m_options.audio, true);
  } else {
    const PacketSource::Contents contents = PacketSource::look_into(m_options.movie);
    const bool video = contents.video && !m_options.no_video;
    const bool audio = contents.audio && !m_options.no_audio;
    if (!video && !audio) throw Failure("nothing to remux in " + m_options.movie);
    open_source(&m_video, PacketSource::kVideo, video ? m_options.movie : "", contents.elementary);
    open_source(&m_audio, PacketSource::kAudio, audio ? m_options.movie : "", contents.elementary);
  }
  for (const Track* track : {&m_video, &m_audio}) {
    if (track->source != nullptr) m_start_usec = std::min(m_start_usec, track->source->start_usec());
  }
  if (m_start_usec == INT64_MAX) m_start_usec = 0;
}

void Remuxer::open_source(Track* track, PacketSource::Kind kind, const std::string& path, bool elementary) {
  if (path.empty()) return;
  track->source = std::make_unique<PacketSource>(path, kind, elementary, m_options.fps);
  m_pace.add(track->track, false);
}

void Remuxer::make_info() {
  std::memset(&m_info, 0, sizeof(m_info));
  put(m_info.url, "-o", m_options.output);
  put(m_info.snapshot_path, "--index", m_options.index);
  put(m_info.metadata, "--metadata", m_options.metadata);
  for (size_t i = 0; i < m_options.also.size(); ++i) m_info.other_urls[i] = m_options.also[i].c_str();
  m_info.video_format = m_video.source != nullptr ? "h264" : nullptr;
  m_info.audio_format = m_audio.source != nullptr ? "aac" : nullptr;
}

void Remuxer::run() {
  Progress progress(m_options.output, shown(m_options.output), std::chrono::milliseconds(m_options.progress_ms));
  m_session = MERU2_start(m_info, &Remuxer::on_status, this);
  if (m_session == nullptr) throw Failure("no memory for a session");
  m_pace.begin();
  std::thread video(&Remuxer::push_all, this, &m_video);
  std::thread audio(&Remuxer::push_all, this, &m_audio);
  while (!m_pace.wait_all(progress.interval())) progress.show(figures(), m_video.source != nullptr);
  video.join();
  audio.join();
  MERU2_stop(&m_session);
  if (!failure().empty()) throw Failure("the remuxing to " + shown(m_options.output) + " failed: " + failure());
  if (m_video.packets == 0 && m_audio.packets == 0) throw Failure("nothing was remuxed");
  progress.finish("remuxed", figures(), m_video.source != nullptr);
}

void Remuxer::stop() { m_pace.stop(); }

void Remuxer::on_status(int code, const char* text, void* user) {
  if (code < 0) static_cast<Remuxer*>(user)->note_failure(text);
}

void Remuxer::push_all(Track* track) {
  try {
    while (track->source != nullptr && push_next(track)) {
    }
    // The library holds some back, and waits for more of them to begin with.
    push(*track, {});
  } catch (const std::exception& e) {
    note_failure(e.what());
  }
  m_pace.finish(track->track);
}

bool Remuxer::push_next(Track* track) {
  PacketSource::Packet packet;
  if (m_pace.stopped() || !track->source->next(&packet)) return false;
  packet.pts_usec -= m_start_usec;
  packet.dts_usec -= m_start_usec;
  if (!m_pace.wait_turn(track->track, packet.dts_usec)) return false;
  push(*track, packet);
  ++track->packets;
  track->time_usec = std::max<int64_t>(track->time_usec, packet.pts_usec);
  m_pace.advance(track->track, packet.dts_usec);
  return true;
}

void Remuxer::push(const Track& track, const PacketSource::Packet& packet) {
  auto* data = const_cast<uint8_t*>(packet.data);  // the library only copies it
  if (packet.exact) {
    MERU2_write_video_packet_ts(m_session, data, packet.size, packet.pts_usec, packet.dts_usec);
  } else if (&track == &m_video) {
    MERU2_write_video_packet(m_session, data, packet.size, packet.dts_usec);
  } else {
    MERU2_write_audio_packet(m_session, data, packet.size, packet.pts_usec);
  }
}

/// The first failure ends the work. The library's text may hold the address with its key.
void Remuxer::note_failure(std::string text) {
  const size_t address = text.find(m_options.output);
  if (address != std::string::npos) text.replace(address, m_options.output.size(), shown(m_options.output));
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_failure.empty()) m_failure = std::move(text);
  }
  m_pace.stop();
}

std::string Remuxer::failure() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_failure;
}

Figures Remuxer::figures() const {
  Figures figures;
  const int64_t video = m_video.time_usec;
  const int64_t audio = m_audio.time_usec;
  figures.longest = static_cast<double>(std::max(video, audio)) / 1e6;
  const bool both = m_video.source != nullptr && m_audio.source != nullptr;
  figures.seconds = both ? static_cast<double>(std::min(video, audio)) / 1e6 : figures.longest;
  figures.images = m_video.packets;
  figures.outputs = m_outputs->states();
  return figures;
}

}  // namespace meru_tool

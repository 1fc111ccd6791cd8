#include "screen/pulse_sound.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "failure.h"
#include "screen/steady_usec.h"

namespace meru_tool {

namespace {

constexpr char kServersChoice[] = "default";
/// How much sound comes at once, and after how much the server is asked when it was taken.
constexpr pa_usec_t kPiece = 20 * PA_USEC_PER_MSEC;
constexpr pa_usec_t kBetweenTimings = 100 * PA_USEC_PER_MSEC;
/// A new stream changes the device's latency. What the server says of it counts from here on, and is waited for until
/// there.
constexpr pa_usec_t kTrial = 300 * PA_USEC_PER_MSEC;
constexpr pa_usec_t kMostTrial = PA_USEC_PER_SEC;
/// How long sound waits for the server's word.
constexpr pa_usec_t kMostUntimed = PA_USEC_PER_SEC / 2;
/// A latency beyond this is none.
constexpr double kMostLatencyUsec = 10e6;
/// A hole beyond this stays one: the time goes ahead.
constexpr pa_usec_t kMostSilence = 10 * PA_USEC_PER_SEC;

}  // namespace

PulseSound::PulseSound(const std::string& device, const SoundFormat& format, SoundListener listener)
    : m_listener(std::move(listener)),
      m_spec{PA_SAMPLE_S16NE, static_cast<uint32_t>(format.sample_rate), static_cast<uint8_t>(format.channels)},
      m_stamps(format.sample_rate) {
  const bool fits = format.channels > 0 && format.channels <= static_cast<int>(PA_CHANNELS_MAX);
  if (!fits || pa_sample_spec_valid(&m_spec) == 0) throw Failure("the sound server knows no such rate or channels");
  m_silence.resize(pa_usec_to_bytes(kPiece, &m_spec));
  const PulseConnection::Lock lock(m_connection);
  try {
    open(device);
  } catch (...) {
    close();
    throw;
  }
}

PulseSound::~PulseSound() {
  const PulseConnection::Lock lock(m_connection);
  close();
}

void PulseSound::open(const std::string& device) {
  const std::string source = device == kServersChoice ? "" : m_connection.source_of(device);
  make_stream();
  connect(source);
  m_connection.wait([this] { return pa_stream_get_state(m_stream.get()) != PA_STREAM_CREATING; });
  // A first stamp that is off would stay off for long: the time is only bent afterwards.
  m_connection.wait_until(m_began + kMostTrial,
                          [this] { return m_settled || PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream.get())) == 0; });
  if (pa_stream_get_state(m_stream.get()) != PA_STREAM_READY) {
    throw Failure("cannot record sound from " + device + ": " + m_connection.error());
  }
  m_unknown_from = pa_rtclock_now();
  m_open = true;
}

void PulseSound::make_stream() {
  pa_channel_map map;
  pa_channel_map_init_extend(&map, m_spec.channels, PA_CHANNEL_MAP_DEFAULT);
  m_stream.reset(pa_stream_new(m_connection.context(), "recording", &m_spec, &map));
  if (m_stream == nullptr) throw Failure("cannot record sound: " + m_connection.error());
  pa_stream_set_state_callback(
      m_stream.get(), [](pa_stream*, void* user) { static_cast<PulseSound*>(user)->on_state(); }, this);
  pa_stream_set_read_callback(
      m_stream.get(), [](pa_stream*, size_t, void* user) { static_cast<PulseSound*>(user)->read(); }, this);
  const auto on_change = [](pa_stream*, void* user) { static_cast<PulseSound*>(user)->on_change(); };
  pa_stream_set_suspended_callback(m_stream.get(), on_change, this);
  pa_stream_set_moved_callback(m_stream.get(), on_change, this);
  pa_stream_set_latency_update_callback(
      m_stream.get(), [](pa_stream*, void* user) { static_cast<PulseSound*>(user)->on_timing(); }, this);
}

/// @param source  empty for the server's choice
void PulseSound::connect(const std::string& source) {
  constexpr auto kServersSize = static_cast<uint32_t>(-1);
  pa_buffer_attr attributes{kServersSize, kServersSize, kServersSize, kServersSize,
                            static_cast<uint32_t>(pa_usec_to_bytes(kPiece, &m_spec))};
  // Without interpolation: it takes seconds to follow a latency that has changed.
  constexpr auto kFlags = static_cast<pa_stream_flags_t>(PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_ADJUST_LATENCY);
  if (pa_stream_connect_record(m_stream.get(), source.empty() ? nullptr : source.c_str(), &attributes, kFlags) < 0) {
    throw Failure("cannot record sound: " + m_connection.error());
  }
}

/// With the lock held.
void PulseSound::close() {
  m_open = false;
  if (m_stream == nullptr) return;
  pa_stream_set_state_callback(m_stream.get(), nullptr, nullptr);
  pa_stream_set_read_callback(m_stream.get(), nullptr, nullptr);
  pa_stream_set_suspended_callback(m_stream.get(), nullptr, nullptr);
  pa_stream_set_moved_callback(m_stream.get(), nullptr, nullptr);
  pa_stream_set_latency_update_callback(m_stream.get(), nullptr, nullptr);
  pa_stream_disconnect(m_stream.get());
  m_stream.reset();
}

/// A server that goes takes its streams along, so this tells of both.
void PulseSound::on_state() {
  if (pa_stream_get_state(m_stream.get()) == PA_STREAM_READY) m_began = pa_rtclock_now();
  if (m_open && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream.get())) == 0) {
    m_open = false;
    m_listener.on_lost(m_connection.error());
  }
  m_connection.signal();
}

/// Another device, or one that rests or has rested, has another latency. The server is asked for it by itself.
void PulseSound::on_change() {
  m_stamps.restart();
  m_unknown_from = pa_rtclock_now();
}

/// The server has said when sound is taken.
void PulseSound::on_timing() {
  const pa_timing_info* timing = pa_stream_get_timing_info(m_stream.get());
  if (timing == nullptr || timing->read_index_corrupt != 0 || timing->write_index_corrupt != 0) return;
  // What the server has written and what is still in the device is older than its word; what a sink is still to play
  // when its monitor is recorded will be heard later. Both are counted to the next sample that is read.
  const double unread = static_cast<double>(timing->write_index) - static_cast<double>(timing->read_index);
  const double age = unread * 1e6 / static_cast<double>(pa_bytes_per_second(&m_spec)) +
                     static_cast<double>(timing->transport_usec) + static_cast<double>(timing->source_usec) -
                     static_cast<double>(timing->sink_usec);
  if (std::abs(age) > kMostLatencyUsec) return;
  if (!m_open) m_stamps.restart();
  m_stamps.measure(steady_usec() - std::llround(age));
  if (!m_settled && pa_rtclock_now() - m_began >= kTrial) {
    m_settled = true;
    m_connection.signal();
  }
  read();
}

void PulseSound::read() {
  const void* data = nullptr;
  size_t bytes = 0;
  // Sound whose time is not known stays with the connection.
  while (has_time() && pa_stream_peek(m_stream.get(), &data, &bytes) >= 0 && bytes > 0) {
    take(data, bytes);
    if (pa_stream_drop(m_stream.get()) < 0) return;
  }
}

/// Whether there is a time for what is read next.
bool PulseSound::has_time() {
  if (m_stamps.known() || !m_open) return true;
  if (pa_rtclock_now() - m_unknown_from < kMostUntimed) return false;
  const size_t bytes = pa_stream_readable_size(m_stream.get());
  if (bytes != static_cast<size_t>(-1))
    m_stamps.measure(steady_usec() - static_cast<int64_t>(pa_bytes_to_usec(bytes, &m_spec)));
  return m_stamps.known();
}

/// @param data  null for a hole: sound that the server had to drop
void PulseSound::take(const void* data, size_t bytes) {
  const int64_t taken = m_stamps.next(static_cast<int64_t>(bytes / pa_frame_size(&m_spec)));
  const pa_usec_t length = pa_bytes_to_usec(bytes, &m_spec);
  ask_timing(length);
  if (!m_open) return;
  if (data != nullptr) {
    m_listener.on_sound(static_cast<const uint8_t*>(data), bytes, taken);
  } else if (length <= kMostSilence) {
    hand_on_silence(bytes, taken);
  }
}

/// By itself the server tells every second and a half.
void PulseSound::ask_timing(pa_usec_t length) {
  m_since_timing += length;
  if (m_since_timing < kBetweenTimings) return;
  m_since_timing = 0;
  pa_operation* asked = pa_stream_update_timing_info(m_stream.get(), nullptr, nullptr);
  if (asked != nullptr) pa_operation_unref(asked);
}

void PulseSound::hand_on_silence(size_t bytes, int64_t taken_usec) {
  for (size_t done = 0; done < bytes;) {
    const size_t part = std::min(bytes - done, m_silence.size());
    m_listener.on_sound(m_silence.data(), part, taken_usec + static_cast<int64_t>(pa_bytes_to_usec(done, &m_spec)));
    done += part;
  }
}

}  // namespace meru_tool

#pragma once

#include <pulse/pulseaudio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "screen/pulse_connection.h"
#include "screen/sound_source.h"
#include "screen/sound_stamps.h"

namespace meru_tool {

/// Sound from a server that speaks PulseAudio's protocol, which is PulseAudio or PipeWire.
class PulseSound : public SoundSource {
 public:
  /// As open_sound().
  PulseSound(const std::string& device, const SoundFormat& format, SoundListener listener);
  ~PulseSound() override;

 private:
  struct Free {
    void operator()(pa_stream* stream) const { pa_stream_unref(stream); }
  };
  void open(const std::string& device);
  void make_stream();
  void connect(const std::string& source);
  void close();

  void on_state();
  void on_change();
  void on_timing();
  void read();
  bool has_time();
  void ask_timing(pa_usec_t length);
  void take(const void* data, size_t bytes);
  void hand_on_silence(size_t bytes, int64_t taken_usec);

  // What changes is guarded by the connection's lock, which its thread holds while it calls back.
  const SoundListener m_listener;
  const pa_sample_spec m_spec;
  SoundStamps m_stamps;
  std::vector<uint8_t> m_silence;
  // These are on the clock of pa_rtclock_now().
  pa_usec_t m_began = 0;         // when the stream did
  pa_usec_t m_unknown_from = 0;  // since when no time is known
  pa_usec_t m_since_timing = 0;  // how much sound was read since the server was asked
  bool m_settled = false;        // whether the stream's time has been told after its beginning
  bool m_open = false;           // whether the listener is to be called
  PulseConnection m_connection;
  std::unique_ptr<pa_stream, Free> m_stream;
};

}  // namespace meru_tool

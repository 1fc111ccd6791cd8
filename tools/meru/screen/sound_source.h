#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace meru_tool {

/// Sound as a sound server records it: interleaved 16-bit PCM of the machine's byte order.
struct SoundFormat {
  int sample_rate = 48000;
  int channels = 2;
};

/// What a sound source tells, on a thread of the source's own. The functions must return soon and must not throw, and
/// must not destroy the source. The first call may come before open_sound() has returned.
struct SoundListener {
  /// Whole samples, in order. The times go on as the samples do; where sound is missing they go ahead.
  /// @param pcm         valid during the call only
  /// @param taken_usec  when the first sample was taken, on the steady clock (CLOCK_MONOTONIC), in microseconds. Sound
  ///                    that a sink is still to play is taken when it is heard: that may be a little ahead of now
  std::function<void(const uint8_t* pcm, size_t bytes, int64_t taken_usec)> on_sound;
  /// The server or the device has gone; nothing follows. @param reason  one line for the user
  std::function<void(const std::string& reason)> on_lost;
};

/// Captures until destroyed. Once the destructor has returned, the listener is not called again; the destructor waits
/// for a call that is under way.
class SoundSource {
 public:
  SoundSource() = default;
  virtual ~SoundSource() = default;
  SoundSource(const SoundSource&) = delete;
  SoundSource& operator=(const SoundSource&) = delete;
};

/// Begins to capture. Takes some seconds at most. A server that does not run is not started.
/// @param device  "default" for the server's own choice, usually the microphone, or the name of a source, or of a sink,
///                whose monitor is taken: what the machine plays
/// Throws a Failure when there is no server, no such source, or the command was built without libpulse.
std::unique_ptr<SoundSource> open_sound(const std::string& device, const SoundFormat& format, SoundListener listener);

}  // namespace meru_tool

#pragma once

#include <pulse/error.h>
#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/eventually.h"

namespace meru_test {

inline int64_t steady_usec() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

/// Plays into a sink until destroyed, mono at 48 kHz, on a thread of its own.
class PulsePlayer {
 public:
  static constexpr int kRate = 48000;
  /// The n-th sample that is played.
  using Wave = std::function<int16_t(int64_t n)>;

  /// @param sink  of the server that PULSE_SERVER names
  PulsePlayer(const std::string& sink, Wave wave) : m_wave(std::move(wave)) {
    const pa_sample_spec spec{PA_SAMPLE_S16NE, kRate, 1};
    constexpr auto kServersSize = static_cast<uint32_t>(-1);
    // Enough not to run dry on a busy machine.
    const pa_buffer_attr attributes{kServersSize, kRate / 4 * sizeof(int16_t), kServersSize, kServersSize,
                                    kServersSize};
    int error = 0;
    m_stream.reset(pa_simple_new(nullptr, "player", PA_STREAM_PLAYBACK, sink.c_str(), "wave", &spec, nullptr,
                                 &attributes, &error));
    if (m_stream == nullptr) throw std::runtime_error(std::string("cannot play: ") + pa_strerror(error));
    m_thread = std::thread([this] { play(); });
    // More than is kept: it is heard by now. A sink that had nothing to play begins after seconds only.
    if (!eventually([this] { return m_written > kRate / 2; })) {
      stop();
      throw std::runtime_error("nothing is played");
    }
  }
  ~PulsePlayer() { stop(); }
  PulsePlayer(const PulsePlayer&) = delete;
  PulsePlayer& operator=(const PulsePlayer&) = delete;

  static Wave tone(double hz) {
    return [hz](int64_t n) {
      return static_cast<int16_t>(12000 * std::sin(2 * M_PI * hz * static_cast<double>(n % kRate) / kRate));
    };
  }
  /// A click at the end of each second, and silence between them.
  static Wave clicks() {
    return [](int64_t n) { return static_cast<int16_t>(is_click(n) ? (n / 24 % 2 == 0 ? 20000 : -20000) : 0); };
  }

  /// When the clicks played so far are heard, on the steady clock in microseconds.
  std::vector<int64_t> heard() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_heard;
  }

 private:
  static constexpr int64_t kPiece = kRate / 100;
  static constexpr int64_t kClick = kRate - kPiece;  // within its second

  static bool is_click(int64_t n) { return n % kRate >= kClick; }

  void stop() {
    m_stopped = true;
    m_thread.join();
  }
  void play() {
    std::vector<int16_t> pcm(kPiece);
    int error = 0;
    for (int64_t n = 0; !m_stopped; n += kPiece) {
      for (int64_t i = 0; i < kPiece; ++i) pcm[static_cast<size_t>(i)] = m_wave(n + i);
      if (n % kRate == kClick) note_click();
      if (pa_simple_write(m_stream.get(), pcm.data(), pcm.size() * sizeof(int16_t), &error) < 0) return;
      m_written = n + kPiece;
    }
  }
  /// What is written now is heard when all before it has been.
  void note_click() {
    int error = 0;
    const pa_usec_t latency = pa_simple_get_latency(m_stream.get(), &error);
    const int64_t now = steady_usec();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_heard.push_back(now + static_cast<int64_t>(latency));
  }

  struct Free {
    void operator()(pa_simple* stream) const { pa_simple_free(stream); }
  };
  const Wave m_wave;
  std::unique_ptr<pa_simple, Free> m_stream;
  std::atomic<bool> m_stopped{false};
  std::atomic<int64_t> m_written{0};  // samples
  std::mutex m_mutex;
  std::vector<int64_t> m_heard;  // guarded by m_mutex
  std::thread m_thread;
};

}  // namespace meru_test

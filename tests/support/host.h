#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "meru/meru.h"

namespace meru_test {

constexpr long long kUsecPerSec = 1000000;
constexpr int kPixelsYuv420p = 0;
constexpr int kPixelsBgra = 28;
constexpr int kSamplesS16 = 1;
constexpr int kColorspaceUnsaid = 2;

template <size_t N>
void set_text(char (&field)[N], const std::string& text) {
  if (text.size() >= N) throw std::length_error("text does not fit");
  std::memset(field, 0, N);
  text.copy(field, N - 1);
}

/// Collects what a session reports. Its address goes to the library, so it must outlive the session.
class StatusLog {
 public:
  struct Entry {
    int code;
    std::string text;
  };
  using Predicate = std::function<bool(const Entry&)>;

  static void callback(int code, const char* msg, void* user) {
    auto* self = static_cast<StatusLog*>(user);
    if (self->m_hook) self->m_hook(code);
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_entries.push_back({code, msg});
    self->m_changed.notify_all();
  }

  /// Runs inside every callback, before it is noted. To be set before the session starts.
  void set_hook(std::function<void(int)> hook) { m_hook = std::move(hook); }

  bool wait_for(const Predicate& wanted, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, deadline, [&] {
      for (const Entry& entry : m_entries) {
        if (wanted(entry)) return true;
      }
      return false;
    });
  }
  bool wait_for_code(int code) {
    return wait_for([code](const Entry& entry) { return entry.code == code; });
  }
  std::vector<Entry> entries() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Entry> m_entries;  // guarded by m_mutex
  std::function<void(int)> m_hook;
};

/// A small recording that every encoder finishes in no time.
inline MovieInfo small_movie(const std::string& url) {
  MovieInfo info{};
  set_text(info.url, url);
  info.a_bitrate = 64;
  info.sample_rate_src = info.sample_rate_dst = 48000;
  info.channels = 2;
  info.sample_fmt = kSamplesS16;
  info.rate_control = RATE_CONTROL_ABR;
  info.v_bitrate = 200;
  info.width = info.width_src = 64;
  info.height = info.height_src = 48;
  info.fps = info.gop_size = 25;
  info.pix_fmt_src = kPixelsBgra;
  info.pix_fmt = kPixelsYuv420p;
  info.colorspace = kColorspaceUnsaid;
  info.preset = QUALITY_ULTRAFAST;
  info.profile = PROFILE_NONE;
  info.tune = TUNE_NONE;
  return info;
}

/// A picture in which something moves.
inline std::vector<uint8_t> moving_image(int width, int height, int index) {
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
  for (size_t i = 0; i < pixels.size(); ++i) {
    const size_t x = i / 4 % static_cast<size_t>(width);
    const size_t y = i / 4 / static_cast<size_t>(width);
    pixels[i] = static_cast<uint8_t>(i % 4 == 3 ? 255U : x * (i % 4 + 1) + y + static_cast<size_t>(index) * 3);
  }
  return pixels;
}

/// A recording host: starts on construction, stops on destruction, keeps what the library reports.
class Host {
 public:
  explicit Host(const MovieInfo& info, bool async = false) : m_info(info) { start(async); }
  /// With something to be done inside every callback.
  Host(const MovieInfo& info, bool async, std::function<void(int)> in_callback) : m_info(info) {
    m_status.set_hook(std::move(in_callback));
    start(async);
  }
  ~Host() { stop(); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void stop() { MERU_stop(&m_session); }
  void* session() const { return m_session; }
  void** session_address() { return &m_session; }
  StatusLog& status() { return m_status; }
  const MovieInfo& out_info() const { return m_out_info; }
  bool started() const {
    MovieInfo ignored;
    return MERU_get_mInfo(m_session, &ignored);
  }

  /// Pushes the next picture of a moving scene.
  int push_image(long long pts_usec) {
    std::vector<uint8_t> image = moving_image(m_info.width_src, m_info.height_src, m_images++);
    return MERU_write_video_bgra(m_session, image.data(), static_cast<int>(image.size()), pts_usec,
                                 m_info.width_src * 4);
  }
  /// Pushes the next `count` samples of a tone, 16 bit interleaved.
  int push_samples(int count, long long pts_usec) {
    m_pcm.resize(static_cast<size_t>(count) * static_cast<size_t>(m_info.channels));
    for (size_t i = 0; i < m_pcm.size(); ++i) {
      const long long at = m_samples + static_cast<long long>(i) / m_info.channels;
      m_pcm[i] = static_cast<int16_t>(at % 100 * 160 - 8000);
    }
    m_samples += count;
    return MERU_write_audio_pcm(m_session, m_pcm.data(), static_cast<int>(m_pcm.size() * sizeof(int16_t)), pts_usec);
  }
  long long pushed_samples() const { return m_samples; }
  int pushed_images() const { return m_images; }

  /// Pushes `images` pictures at the frame rate from `from_usec` on, with the sound to them in pieces of 10 ms.
  /// @return how many pictures were taken
  int push_scene(int images, long long from_usec) {
    int taken = 0;
    long long piece = 0;
    for (int i = 0; i < images; ++i) {
      const long long end = (i + 1) * kUsecPerSec / m_info.fps;
      if (!m_info.no_video && push_image(from_usec + i * kUsecPerSec / m_info.fps) != 0) ++taken;
      for (; !m_info.no_audio && (piece + 1) * 10000 <= end; ++piece) {
        push_samples(m_info.sample_rate_src / 100, from_usec + piece * 10000);
      }
    }
    return taken;
  }

 private:
  void start(bool async) { m_session = MERU_start(m_info, &StatusLog::callback, &m_status, &m_out_info, async); }

  MovieInfo m_info;
  MovieInfo m_out_info{};
  StatusLog m_status;
  void* m_session = nullptr;
  int m_images = 0;
  long long m_samples = 0;
  std::vector<int16_t> m_pcm;
};

}  // namespace meru_test

#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/host.h"

namespace meru_test {

/// A movie in which every picture takes much room, so that what lies between a host and its server is soon full.
inline MovieInfo noise_movie(const std::string& url, int timeout_sec) {
  MovieInfo info = small_movie(url);
  info.width = info.width_src = 320;
  info.height = info.height_src = 240;
  info.rate_control = RATE_CONTROL_CQP;
  info.qp = 1;
  info.no_audio = true;
  info.timeout_sec = timeout_sec;
  return info;
}

/// Pushes pictures of noise.
class NoiseHost {
 public:
  explicit NoiseHost(const MovieInfo& info) : m_info(info), m_host(info) {
    std::mt19937 generator(1);
    for (auto& picture : m_pictures) {
      picture.resize(static_cast<size_t>(info.width_src) * static_cast<size_t>(info.height_src) * 4);
      std::generate(picture.begin(), picture.end(), [&] { return static_cast<uint8_t>(generator()); });
    }
  }

  Host& host() { return m_host; }
  StatusLog& status() { return m_host.status(); }
  void stop() { m_host.stop(); }

  /// @return how long the push took
  std::chrono::steady_clock::duration push_one() {
    const auto before = std::chrono::steady_clock::now();
    std::vector<uint8_t>& picture = m_pictures[static_cast<size_t>(m_pushed) % m_pictures.size()];
    const int taken = MERU_write_video_bgra(m_host.session(), picture.data(), static_cast<int>(picture.size()),
                                            kUsecPerSec + m_pushed * kUsecPerSec / m_info.fps, m_info.width_src * 4);
    ++m_pushed;
    if (taken != 0) ++m_taken;
    return std::chrono::steady_clock::now() - before;
  }
  void push(int pictures) {
    for (int i = 0; i < pictures; ++i) push_one();
  }
  int pushed() const { return m_pushed; }
  int taken() const { return m_taken; }

 private:
  MovieInfo m_info;
  Host m_host;
  std::array<std::vector<uint8_t>, 5> m_pictures;
  std::atomic<int> m_pushed{0};
  std::atomic<int> m_taken{0};
};

}  // namespace meru_test

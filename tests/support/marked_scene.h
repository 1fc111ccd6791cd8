#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "support/host.h"
#include "support/probe.h"

namespace meru_test {

/// Pictures with their sound that are black and silent up to a moment, white and loud from there on.
class MarkedScene {
 public:
  explicit MarkedScene(const MovieInfo& info)
      : m_info(info),
        m_black(static_cast<size_t>(info.width_src * info.height_src * 4), 0),
        m_white(m_black.size(), 255),
        m_silent(static_cast<size_t>(info.channels * info.sample_rate_src / kPieces), 0),
        m_loud(m_silent.size()) {
    const auto channels = static_cast<size_t>(info.channels);
    const size_t half = static_cast<size_t>(info.sample_rate_src) / 2000;  // of the period of a tone of 1 kHz
    for (size_t i = 0; i < m_loud.size(); ++i) m_loud[i] = i / channels / half % 2 == 0 ? 16000 : -16000;
  }

  /// Pushes one picture and the sound to it. @return whether the picture was taken
  bool push(void* session, long long at, bool marked) {
    const long long frame = kUsecPerSec / m_info.fps;
    std::vector<uint8_t>& image = marked ? m_white : m_black;
    const bool taken =
        MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), at, m_info.width_src * 4) != 0;
    std::vector<int16_t>& pcm = marked ? m_loud : m_silent;
    for (long long piece = at; piece < at + frame; piece += kUsecPerSec / kPieces) {
      MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size() * sizeof(int16_t)), piece);
    }
    return taken;
  }

 private:
  static constexpr int kPieces = 100;  // of sound in a second

  MovieInfo m_info;
  std::vector<uint8_t> m_black, m_white;
  std::vector<int16_t> m_silent, m_loud;
};

/// When a movie turns white and loud, in seconds behind the place where the decoding begins.
struct Marks {
  double picture = 0;
  double sound = 0;

  /// @param from  seconds behind the movie's beginning
  static Marks found(const std::string& path, const MovieInfo& info, double from) {
    constexpr int kRate = 48000;
    const std::string at = "-ss " + std::to_string(from) + " ";
    const std::string pictures = decoded(path, at + "-map 0:v -pix_fmt gray -f rawvideo");
    const std::string sound = decoded(path, at + "-map 0:a -ac 1 -ar " + std::to_string(kRate) + " -f u8");
    const size_t size = static_cast<size_t>(info.width * info.height);
    size_t white = 0;
    while (white < pictures.size() / size && static_cast<uint8_t>(pictures[white * size]) < 128) ++white;
    const auto loud = std::find_if(sound.begin(), sound.end(), [](char s) { return static_cast<uint8_t>(s) > 160; });
    return {static_cast<double>(white) / info.fps, static_cast<double>(loud - sound.begin()) / kRate};
  }
};

}  // namespace meru_test

#pragma once

#include <string>
#include <vector>

#include "support/host.h"
#include "support/injected_faults.h"

namespace meru_test {

constexpr int kRecordedPictures = 12;

/// A short recording with a side index and a further output. All that it needs is made beforehand, so that the host
/// asks for no memory while calls are counted.
class SmallRecording {
 public:
  SmallRecording(const std::string& movie, const std::string& index, const std::string& further, int width = 64,
                 int height = 48)
      : m_further(further) {
    info = small_movie(movie);
    info.width = info.width_src = width;
    info.height = info.height_src = height;
    info.tune = TUNE_ZEROLATENCY;
    set_text(info.snapshot_path, index);
    if (!further.empty()) info.other_urls[0] = m_further.c_str();
    for (int i = 0; i < kRecordedPictures; ++i) m_images.push_back(moving_image(info.width, info.height, i));
    m_samples.resize(static_cast<size_t>(info.sample_rate_src / info.fps * info.channels));
    for (size_t i = 0; i < m_samples.size(); ++i) m_samples[i] = static_cast<int16_t>(i % 100 * 160);
  }

  /// Pushes everything.
  void push(void* session) {
    for (size_t i = 0; i < m_images.size(); ++i) {
      const long long pts = kUsecPerSec + static_cast<long long>(i) * kUsecPerSec / info.fps;
      MERU_write_video_bgra(session, m_images[i].data(), static_cast<int>(m_images[i].size()), pts, info.width * 4);
      MERU_write_audio_pcm(session, m_samples.data(), static_cast<int>(m_samples.size() * sizeof(int16_t)), pts);
    }
  }
  void record(HostNotes* notes) {
    void* session = MERU_start(info, &HostNotes::on_status, notes, nullptr, false);
    push(session);
    MERU_stop(&session);
  }

  MovieInfo info;

 private:
  std::string m_further;
  std::vector<std::vector<uint8_t>> m_images;
  std::vector<int16_t> m_samples;
};

}  // namespace meru_test

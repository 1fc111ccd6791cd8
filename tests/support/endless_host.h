#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "support/eventually.h"
#include "support/host.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {

/// What a recording is to consist of, for either kind of session.
struct Outputs {
  std::string main;
  std::vector<std::string> others;  ///< to be kept until the session has been stopped
};

template <class Info>
Info with_others(Info info, const Outputs& outputs) {
  for (size_t i = 0; i < outputs.others.size(); ++i) info.other_urls[i] = outputs.others[i].c_str();
  return info;
}

/// A host that records for as long as the test likes, one picture at a time with the sound to it.
class EndlessHost {
 public:
  virtual ~EndlessHost() = default;
  /// @return whether the picture was taken
  virtual bool push_one() = 0;
  virtual void stop() = 0;
  virtual StatusLog& status() = 0;

  /// How many pictures have been taken.
  int taken() const { return m_taken; }
  void push(int pictures) {
    for (int i = 0; i < pictures; ++i) count_one();
  }
  /// Pushes at an easy pace until the condition holds. @return false when it still does not at the deadline
  template <class Condition>
  bool push_until(Condition condition) {
    using std::chrono::milliseconds;
    return eventually([&] {
      count_one();
      return eventually(condition, milliseconds(5));
    });
  }

 private:
  void count_one() {
    if (push_one()) ++m_taken;
  }
  int m_taken = 0;
};

/// Pushes images and samples.
class ImageHost : public EndlessHost {
 public:
  explicit ImageHost(const Outputs& outputs) : m_host(record(outputs)) {}
  bool push_one() override { return m_host.push_scene(1, kUsecPerSec + m_pushed++ * kUsecPerSec / kFps) == 1; }
  void stop() override { m_host.stop(); }
  StatusLog& status() override { return m_host.status(); }

 private:
  static constexpr int kFps = 25;

  static MovieInfo record(const Outputs& outputs) { return with_others(small_movie(outputs.main), outputs); }

  Host m_host;
  long long m_pushed = 0;
};

/// Pushes packets, the same ones again and again.
class PackedHost : public EndlessHost {
 public:
  PackedHost(const TempDir& dir, const Outputs& outputs)
      : m_video(make_video(dir)), m_audio(make_audio(dir)), m_host(with_others(raw_movie(outputs.main), outputs)) {}
  bool push_one() override {
    const long long pts = m_pushed * kUsecPerSec / m_video.fps;
    for (; audio_pts() <= pts; ++m_pushed_audio) {
      m_host.push_audio({m_audio.packets[m_pushed_audio % m_audio.packets.size()].data, audio_pts()});
    }
    const auto index = static_cast<size_t>(m_pushed++);
    return m_host.push_video({m_video.packets[index % m_video.packets.size()].data, pts});
  }
  void stop() override { m_host.stop(); }
  StatusLog& status() override { return m_host.status(); }

 private:
  long long audio_pts() const {
    return static_cast<long long>(m_pushed_audio) * kAudioFrame * kUsecPerSec / kAudioRate;
  }

  RawVideo m_video;
  RawAudio m_audio;
  PacketHost m_host;
  long long m_pushed = 0;
  size_t m_pushed_audio = 0;
};

}  // namespace meru_test

/// Records a few seconds of a moving picture and a tone, the picture from one thread and the sound from another, as a
/// capture application would.
///   record FILE [SECONDS]     FILE.mp4, FILE.mkv ...; the side index is written beside it as FILE.index
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "meru/meru.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kFps = 30;
constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;
constexpr int kBufferSamples = 480;  // 10 ms, a usual size of a sound card's buffer
constexpr int kPixelsBgra = 28;      // FFmpeg's numbers; a host that has its headers writes AV_PIX_FMT_BGRA
constexpr int kSamplesS16 = 1;
constexpr int kColorspaceUnspecified = 2;
constexpr double kPi = 3.14159265358979323846;

MovieInfo describe(const std::string& file) {
  MovieInfo info{};
  std::snprintf(info.url, sizeof(info.url), "%s", file.c_str());
  std::snprintf(info.snapshot_path, sizeof(info.snapshot_path), "%s.index", file.c_str());
  std::snprintf(info.metadata, sizeof(info.metadata), "title:Example;artist:record.cpp");
  info.a_bitrate = 128;
  info.sample_rate_src = info.sample_rate_dst = kSampleRate;
  info.channels = kChannels;
  info.sample_fmt = kSamplesS16;
  info.rate_control = RATE_CONTROL_ABR;
  info.v_bitrate = 1000;
  info.width = info.width_src = kWidth;
  info.height = info.height_src = kHeight;
  info.fps = info.gop_size = kFps;
  info.pix_fmt_src = kPixelsBgra;
  info.colorspace = kColorspaceUnspecified;
  info.preset = QUALITY_VERYFAST;
  info.profile = PROFILE_HIGH;
  info.tune = TUNE_NONE;
  return info;
}

/// Called on threads of the library: 0 at the start, a negative code when the output fails later on.
void on_status(int code, const char* text, void* user) {
  std::fprintf(stderr, "status %d: %s\n", code, text);
  if (code != MERU_STATUS_OK) *static_cast<std::atomic<bool>*>(user) = true;
}

/// Waits until the moment that the library's clock calls `pts_usec`, as a device does that delivers at its own pace.
void wait_until(long long pts_usec) {
  std::this_thread::sleep_for(std::chrono::microseconds(pts_usec - MERU_current_sys_usec()));
}

void push_video(void* session, long long begin, int seconds, const std::atomic<bool>& failed) {
  std::vector<uint8_t> image(static_cast<size_t>(kWidth) * kHeight * 4);
  for (int n = 0; n < seconds * kFps && !failed; ++n) {
    uint8_t* pixel = image.data();
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x, pixel += 4) {
        pixel[0] = static_cast<uint8_t>(x + 4 * n);
        pixel[1] = static_cast<uint8_t>(y + 2 * n);
        pixel[2] = static_cast<uint8_t>(x + y);
        pixel[3] = 255;
      }
    }
    const long long pts = begin + n * 1000000LL / kFps;
    wait_until(pts);
    MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), pts, kWidth * 4);
  }
}

void push_audio(void* session, long long begin, int seconds, const std::atomic<bool>& failed) {
  std::vector<int16_t> pcm(static_cast<size_t>(kBufferSamples) * kChannels);
  for (long long done = 0; done < static_cast<long long>(seconds) * kSampleRate && !failed; done += kBufferSamples) {
    for (size_t i = 0; i < pcm.size(); ++i) {
      const auto sample = static_cast<double>(done + static_cast<long long>(i / kChannels));
      pcm[i] = static_cast<int16_t>(8000 * std::sin(2 * kPi * 440 * sample / kSampleRate));
    }
    const long long pts = begin + done * 1000000 / kSampleRate;
    wait_until(pts);
    MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size() * sizeof(int16_t)), pts);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 3;
  if (argc < 2 || seconds < 1) {
    std::fprintf(stderr, "usage: %s FILE [SECONDS]\n", argv[0]);
    return 2;
  }
  std::atomic<bool> failed{false};
  void* session = MERU_start(describe(argv[1]), on_status, &failed, nullptr, false);
  MovieInfo used;
  if (!MERU_get_mInfo(session, &used)) failed = true;  // an encoder that refuses its settings is reported here only

  const long long begin = MERU_current_sys_usec();
  std::thread audio([&] { push_audio(session, begin, seconds, failed); });
  push_video(session, begin, seconds, failed);
  audio.join();  // nothing may be pushed while the session is stopped
  MERU_stop(&session);
  return failed ? 1 : 0;
}

/// Records H.264 and AAC that are encoded already, the pictures from one thread and the sound from another, as a host
/// with a hardware encoder or a camera would. Here they come from files.
///   remux VIDEO.h264 AUDIO.aac FPS OUTPUT
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "meru/meru.h"

namespace {

using Bytes = std::string;

Bytes read_file(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

unsigned byte_at(const Bytes& stream, size_t at) { return static_cast<unsigned char>(stream[at]); }

/// Where the picture ends that begins at `begin`: before the first unit of the next one, which is a delimiter,
/// parameters or the first slice of a picture.
size_t end_of_picture(const Bytes& stream, size_t begin) {
  const Bytes start_code("\0\0\1", 3);
  bool in_picture = false;
  for (size_t at = stream.find(start_code, begin); at != Bytes::npos; at = stream.find(start_code, at + 3)) {
    if (at + 4 >= stream.size()) break;
    const unsigned type = byte_at(stream, at + 3) & 0x1f;
    const bool slice = type == 1 || type == 5;
    const bool first_slice = slice && (byte_at(stream, at + 4) & 0x80) != 0;
    const bool begins_picture = first_slice || (type >= 6 && type <= 9);
    if (in_picture && begins_picture) return at > 0 && stream[at - 1] == '\0' ? at - 1 : at;
    in_picture = in_picture || slice;
  }
  return stream.size();
}

void push_video(void* session, Bytes stream, double fps) {
  size_t begin = 0;
  for (int n = 0; begin < stream.size(); ++n) {
    const size_t end = end_of_picture(stream, begin);
    const auto pts_usec = static_cast<long long>(n * 1e6 / fps);
    MERU2_write_video_packet(session, &stream[begin], static_cast<int>(end - begin), pts_usec);
    begin = end;
  }
}

void push_audio(void* session, Bytes stream) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
  constexpr long long kSamples = 1024;  // of a frame
  size_t begin = 0;
  for (long long n = 0; begin + 7 <= stream.size(); ++n) {
    const unsigned rate = byte_at(stream, begin + 2) >> 2 & 0xf;
    const size_t size =
        (byte_at(stream, begin + 3) & 3) << 11 | byte_at(stream, begin + 4) << 3 | byte_at(stream, begin + 5) >> 5;
    if (rate >= std::size(kRates) || size < 7 || begin + size > stream.size()) break;
    MERU2_write_audio_packet(session, &stream[begin], static_cast<int>(size), n * kSamples * 1000000 / kRates[rate]);
    begin += size;
  }
}

/// Called on threads of the library.
void on_status(int code, const char* text, void* user) {
  std::fprintf(stderr, "%d %s\n", code, text);
  if (code < 0) *static_cast<std::atomic<bool>*>(user) = true;
}

}  // namespace

int main(int argc, char** argv) {
  const double fps = argc == 5 ? std::atof(argv[3]) : 0;
  if (fps <= 0) {
    std::fprintf(stderr, "usage: %s VIDEO.h264 AUDIO.aac FPS OUTPUT\n", argv[0]);
    return 2;
  }
  MovieInfo2 info{};
  std::snprintf(info.url, sizeof(info.url), "%s", argv[4]);
  info.video_format = "h264";
  info.audio_format = "aac";

  std::atomic<bool> failed{false};
  void* session = MERU2_start(info, on_status, &failed);
  std::thread audio([&] { push_audio(session, read_file(argv[2])); });
  push_video(session, read_file(argv[1]), fps);
  audio.join();  // nothing may be pushed while the session is stopped
  MERU2_stop(&session);
  return failed ? 1 : 0;
}

#pragma once

#include <chrono>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "meru/raw_packets.h"
#include "support/host.h"
#include "support/md5.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace meru_test {

/// A packet as a host pushes it.
struct RawPacket {
  std::string data;
  long long pts = 0;  ///< microseconds
};
using RawPackets = std::vector<RawPacket>;

/// The NAL units of an Annex B stream, each with its start code.
inline std::vector<std::string> split_nals(const std::string& stream) {
  const std::string code("\0\0\1", 3);
  std::vector<size_t> begins;
  for (size_t at = stream.find(code); at != std::string::npos; at = stream.find(code, at + 3)) {
    begins.push_back(at > 0 && stream[at - 1] == '\0' ? at - 1 : at);
  }
  begins.push_back(stream.size());
  std::vector<std::string> nals;
  for (size_t i = 0; i + 1 < begins.size(); ++i) nals.push_back(stream.substr(begins[i], begins[i + 1] - begins[i]));
  return nals;
}

/// A NAL unit without its start code.
inline std::string nal_body(const std::string& nal) { return nal.substr(nal.find('\1') + 1); }
inline int nal_type(const std::string& nal) { return nal_body(nal).at(0) & 0x1f; }

/// The access units of an Annex B stream: one ends where, behind a slice, something begins that belongs to the next
/// picture.
inline std::vector<std::string> split_access_units(const std::string& stream) {
  std::vector<std::string> units;
  bool has_slice = true;
  for (const std::string& nal : split_nals(stream)) {
    const int type = nal_type(nal);
    const bool slice = type == 1 || type == 5;
    const bool first_slice = slice && (nal_body(nal).at(1) & 0x80) != 0;  // begins at macroblock 0
    if (has_slice && (first_slice || (type >= 6 && type <= 9))) {
      units.emplace_back();
      has_slice = false;
    }
    units.back() += nal;
    has_slice = has_slice || slice;
  }
  return units;
}

/// An access unit without its parameter sets.
inline std::string without_parameter_sets(const std::string& access_unit) {
  std::string out;
  for (const std::string& nal : split_nals(access_unit)) {
    if (nal_type(nal) != 7 && nal_type(nal) != 8) out += nal;
  }
  return out;
}

/// An access unit as MP4, Matroska and FLV hold it: each NAL unit behind its length in four bytes.
inline std::string with_lengths(const std::string& access_unit) {
  std::string out;
  for (const std::string& nal : split_nals(access_unit)) {
    const std::string body = nal_body(nal);
    for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(body.size() >> shift & 0xff);
    out += body;
  }
  return out;
}

inline size_t adts_frame_size(const std::string& stream, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(stream.at(at + i))); };
  if (byte(0) != 0xff || (byte(1) & 0xf0) != 0xf0) throw std::runtime_error("no ADTS header");
  return (byte(3) & 3) << 11 | byte(4) << 3 | byte(5) >> 5;
}

inline std::vector<std::string> split_adts(const std::string& stream) {
  std::vector<std::string> frames;
  for (size_t at = 0; at < stream.size(); at += frames.back().size()) {
    frames.push_back(stream.substr(at, adts_frame_size(stream, at)));
  }
  return frames;
}

/// A frame of sound without its ADTS header, as containers hold it.
inline std::string without_adts(const std::string& frame) {
  const bool checksum = (frame.at(1) & 1) == 0;
  return frame.substr(checksum ? 9 : 7);
}

inline std::string file_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void make_with_ffmpeg(const std::string& arguments) {
  const CommandResult result = run_command("ffmpeg -nostdin -v error -y " + arguments);
  if (result.status != 0) throw std::runtime_error("ffmpeg: " + result.output);
}

/// H.264 without B-frames, as an Annex B stream and as stamped packets.
struct RawVideo {
  std::string path;
  RawPackets packets;
  int fps;
};

struct VideoChoice {
  int images = 60;
  int fps = 30;
  std::string size = "160x120";
  std::string x264 = "keyint=15:scenecut=0";  ///< further parameters of the encoder
};

inline RawVideo make_video(const TempDir& dir, const VideoChoice& choice = {}) {
  RawVideo video{dir.file("source.h264"), {}, choice.fps};
  make_with_ffmpeg("-f lavfi -i testsrc2=s=" + choice.size + ":r=" + std::to_string(choice.fps) + " -frames:v " +
                   std::to_string(choice.images) +
                   " -c:v libx264 -preset ultrafast -bf 0 -pix_fmt yuv420p -x264-params " + choice.x264 + " -f h264 " +
                   meru_test::quoted(video.path));
  for (std::string& unit : split_access_units(file_bytes(video.path))) {
    const auto index = static_cast<long long>(video.packets.size());
    video.packets.push_back({std::move(unit), index * kUsecPerSec / choice.fps});
  }
  if (video.packets.size() != static_cast<size_t>(choice.images))
    throw std::runtime_error("not one unit for each image");
  return video;
}

/// AAC, as an ADTS stream and as stamped packets.
struct RawAudio {
  std::string path;
  RawPackets packets;
};

constexpr int kAudioRate = 48000;
constexpr int kAudioFrame = 1024;

inline RawAudio make_audio(const TempDir& dir, double seconds = 2, long long from_usec = 0) {
  RawAudio audio{dir.file("source.aac"), {}};
  make_with_ffmpeg("-f lavfi -i sine=frequency=440:r=" + std::to_string(kAudioRate) + " -t " + std::to_string(seconds) +
                   " -ac 2 -c:a aac -b:a 64k -f adts " + meru_test::quoted(audio.path));
  for (std::string& frame : split_adts(file_bytes(audio.path))) {
    const auto index = static_cast<long long>(audio.packets.size());
    audio.packets.push_back({std::move(frame), from_usec + index * kAudioFrame * kUsecPerSec / kAudioRate});
  }
  return audio;
}

inline std::vector<std::string> video_hashes(const RawPackets& packets) {
  std::vector<std::string> hashes;
  for (const RawPacket& packet : packets) hashes.push_back("MD5:" + md5(with_lengths(packet.data)));
  return hashes;
}

inline std::vector<std::string> audio_hashes(const RawPackets& packets) {
  std::vector<std::string> hashes;
  for (const RawPacket& packet : packets) hashes.push_back("MD5:" + md5(without_adts(packet.data)));
  return hashes;
}

inline std::string random_bytes(size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

/// A path of exactly 511 characters in folders that may exist.
inline std::string longest_path(const TempDir& dir, const std::string& end) {
  std::string path = dir.path();
  while (path.size() + 1 + 200 + end.size() < 511) path += "/" + std::string(200, 'f');
  return path + "/" + std::string(511 - path.size() - 1 - end.size(), 'm') + end;
}

inline MovieInfo2 raw_movie(const std::string& url, bool with_video = true, bool with_audio = true) {
  MovieInfo2 info{};
  set_text(info.url, url);
  info.video_format = with_video ? "h264" : nullptr;
  info.audio_format = with_audio ? "aac" : nullptr;
  return info;
}

/// A host of packets: starts on construction, stops on destruction, keeps what the library reports.
class PacketHost {
 public:
  explicit PacketHost(const MovieInfo2& info) { start(info); }
  /// With something to be done inside every callback.
  PacketHost(const MovieInfo2& info, std::function<void(int)> in_callback) {
    m_status.set_hook(std::move(in_callback));
    start(info);
  }
  ~PacketHost() { stop(); }
  PacketHost(const PacketHost&) = delete;
  PacketHost& operator=(const PacketHost&) = delete;

  void stop() { MERU2_stop(&m_session); }
  void* session() const { return m_session; }
  void** session_address() { return &m_session; }
  StatusLog& status() { return m_status; }

  bool push_video(const RawPacket& packet) { return push(&MERU2_write_video_packet, packet); }
  bool push_audio(const RawPacket& packet) { return push(&MERU2_write_audio_packet, packet); }

  /// Pushes everything from one thread, in the order of the stamps.
  void push(const RawPackets& video, const RawPackets& audio) {
    size_t v = 0;
    for (const RawPacket& packet : audio) {
      for (; v < video.size() && video[v].pts <= packet.pts; ++v) push_video(video[v]);
      push_audio(packet);
    }
    for (; v < video.size(); ++v) push_video(video[v]);
  }
  /// Pushes each medium from a thread of its own.
  void push_from_two_threads(const RawPackets& video, const RawPackets& audio) {
    std::thread other([&] { push({}, audio); });
    push(video, {});
    other.join();
  }

 private:
  using Write = bool (*)(void*, void*, int, long long);

  void start(const MovieInfo2& info) { m_session = MERU2_start(info, &StatusLog::callback, &m_status); }
  bool push(Write write, const RawPacket& packet) {
    // The library copies the packet: what becomes of the host's bytes afterwards must not matter.
    std::string data = packet.data;
    const bool result = write(m_session, data.data(), static_cast<int>(data.size()), packet.pts);
    data.assign(data.size(), '\xaa');
    return result;
  }

  StatusLog m_status;
  void* m_session = nullptr;
};

}  // namespace meru_test

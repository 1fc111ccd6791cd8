#pragma once

#include <string>
#include <vector>

#include "meru/session.h"
#include "support/probe.h"
#include "support/raw_media.h"

namespace meru_test {

/// One access unit with both its timestamps, in microseconds.
struct TimedPacket {
  std::string data;
  long long pts, dts;
};

/// H.264 whose frames are not decoded in the order in which they are shown: a movie, and its packets with start codes.
struct ReorderedVideo {
  std::string path;
  std::vector<TimedPacket> packets;
};

inline ReorderedVideo make_reordered_video(const TempDir& dir, const std::string& x264, int frames = 60,
                                           const std::string& filters = "null", const std::string& name = "reordered") {
  ReorderedVideo video{dir.file(name + ".mp4"), {}};
  const std::string bytes = dir.file(name + ".h264");
  make_with_ffmpeg("-f lavfi -i testsrc2=s=160x120:r=25 -vf " + filters + " -frames:v " + std::to_string(frames) +
                   " -c:v libx264 -preset veryfast -pix_fmt yuv420p -x264-params keyint=20:scenecut=0:b-adapt=0:" +
                   x264 + " " + meru_test::quoted(video.path));
  make_with_ffmpeg("-i " + meru_test::quoted(video.path) + " -c copy -bsf:v h264_mp4toannexb -f h264 " +
                   meru_test::quoted(bytes));
  const std::vector<std::string> units = split_access_units(file_bytes(bytes));
  const auto times = probe_packets(video.path, "v:0");
  if (units.size() != times.size()) throw std::runtime_error("not one unit for each packet");
  for (size_t i = 0; i < units.size(); ++i) {
    const auto usec = [](double seconds) { return std::llround(seconds * kUsecPerSec); };
    video.packets.push_back({units[i], usec(times[i].pts), usec(times[i].dts)});
  }
  return video;
}

inline bool push_timed(void* session, const TimedPacket& packet) {
  std::string data = packet.data;
  return MERU2_write_video_packet_ts(session, data.data(), static_cast<int>(data.size()), packet.pts, packet.dts);
}

}  // namespace meru_test

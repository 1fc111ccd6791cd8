#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/probe.h"
#include "support/raw_media.h"

namespace meru_test {

constexpr double kMillisecond = 0.001;

/// A kind of movie.
struct Container {
  const char* name;
  double tick;  ///< the coarsest of its time bases, in seconds
};
inline void PrintTo(const Container& c, std::ostream* out) { *out << c.name; }

inline const Container kMp4{"mp4", 1.0 / kAudioRate};
inline const Container kMkv{"mkv", kMillisecond};
inline const Container kFlv{"flv", kMillisecond};

/// The packets have these payloads, in this order, and each stamp lies within one tick of the one pushed.
inline void expect_packets(const std::vector<ProbedPacket>& found, const std::vector<std::string>& hashes,
                           const RawPackets& pushed, double tick) {
  ASSERT_EQ(found.size(), pushed.size());
  for (size_t i = 0; i < found.size(); ++i) {
    const double seconds = static_cast<double>(pushed[i].pts) / kUsecPerSec;
    EXPECT_EQ(found[i].hash, hashes[i]) << "packet " << i;
    // What ffprobe prints is rounded to a microsecond.
    EXPECT_NEAR(found[i].pts, seconds, tick + 2e-6) << "packet " << i;
    EXPECT_NEAR(found[i].dts, seconds, tick + 2e-6) << "packet " << i;
  }
}

/// The movie's images are the packets pushed, given in the order of their stamps.
inline void expect_video(const std::string& path, const RawPackets& pushed, double tick) {
  SCOPED_TRACE("video of " + path);
  expect_packets(probe_packets(path, "v:0"), video_hashes(pushed), pushed, tick);
}

inline void expect_audio(const std::string& path, const RawPackets& pushed, double tick) {
  SCOPED_TRACE("audio of " + path);
  expect_packets(probe_packets(path, "a:0"), audio_hashes(pushed), pushed, tick);
}

inline size_t stream_count(const std::string& path) { return probe(path, "-show_streams").at("streams").size(); }

inline std::string decoded_images(const std::string& path) {
  return decoded(path, "-map 0:v " + every_picture() + " -f rawvideo");
}
inline std::string decoded_samples(const std::string& path) { return decoded(path, "-map 0:a -f s16le"); }

/// The session reported that its output is open, and nothing else.
inline void expect_success(StatusLog& status) {
  const auto entries = status.entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].code, 0);
  EXPECT_EQ(entries[0].text, "start success");
}

}  // namespace meru_test

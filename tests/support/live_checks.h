#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "support/host.h"
#include "support/probe.h"

namespace meru_test {

/// What FLV and Matroska round a stamp to, and half as much again because what is compared is rounded, too.
constexpr double kLiveRounding = 0.0015;

/// The stamps of a stream's packets, in the order of showing.
inline std::vector<double> stamps(const std::string& path, const std::string& stream) {
  std::vector<double> seconds;
  for (const ProbedPacket& packet : probe_packets(path, stream)) seconds.push_back(packet.pts);
  std::sort(seconds.begin(), seconds.end());
  return seconds;
}

/// There are as many images, and each lies a frame behind the one before.
/// @param from  the first image whose stamp counts
inline void expect_images_in_step(const std::string& path, int images, double fps, size_t from = 0) {
  SCOPED_TRACE("images of " + path);
  const std::vector<double> found = stamps(path, "v:0");
  ASSERT_EQ(found.size(), static_cast<size_t>(images));
  for (size_t i = from; i < found.size(); ++i) {
    EXPECT_NEAR(found[i] - found[from], static_cast<double>(i - from) / fps, kLiveRounding) << i;
  }
}

/// How the sound of a container is cut into packets.
struct SoundFrames {
  int samples;  ///< of each packet
  int delay;    ///< samples that the encoder puts before what it is given
};
constexpr SoundFrames kAacFrames{1024, 1024};
constexpr SoundFrames kOpusFrames{960, 312};

/// The packets hold what was pushed, but for less than a frame, and each lies a frame behind the one before.
inline void expect_sound_in_step(const std::string& path, long long pushed, int rate, const SoundFrames& frames) {
  SCOPED_TRACE("sound of " + path);
  const std::vector<double> found = stamps(path, "a:0");
  const long long coded = static_cast<long long>(found.size()) * frames.samples - frames.delay;
  EXPECT_GT(coded, pushed - frames.samples);
  EXPECT_LT(coded, pushed + frames.samples);
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i] - found[0], static_cast<double>(i) * frames.samples / rate, kLiveRounding) << i;
  }
}

/// The checksums of the decoded pictures or samples ("v", "a"), one a line.
inline std::string frame_hashes(const std::string& path, const std::string& stream) {
  std::istringstream lines(decoded(path, "-map 0:" + stream + " " + every_picture() + " -f framemd5"));
  std::string hashes;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    hashes += line.substr(line.rfind(',') + 1) + "\n";
  }
  return hashes;
}

/// What a strict decode of an RtspReceiver's recording complains about. The first image's stamp is not from the clock
/// of the others, so that these may lie half a frame beside the ticks of a frame that ffmpeg would round them to, and
/// share some; they keep the recording's own ticks instead. Where the first images share a stamp, they may.
inline std::string received_errors(const std::string& path) {
  const CommandResult result =
      run_command("ffmpeg -nostdin -v error -xerror -i " + quoted(path) + " -map 0 -enc_time_base:v -1 " +
                  every_picture() + " -f framecrc -y /dev/null");
  return result.status == 0 ? result.output : result.output + "exit status " + std::to_string(result.status);
}

inline std::string codec_name(const std::string& path, const std::string& type) {
  const nlohmann::json stream = probe_stream(path, type);
  return stream.is_null() ? "none" : stream.at("codec_name").get<std::string>();
}

/// The session reported that its output is open, and nothing else.
inline void expect_only_started(StatusLog& status, const std::string& text = "start OK") {
  const auto entries = status.entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].code, 0);
  EXPECT_EQ(entries[0].text, text);
}

inline bool is_failure(const StatusLog::Entry& entry) { return entry.code < 0; }

/// FFmpeg's text for one of its error codes that stands for an error of the system, or for the end of a connection that
/// the server has closed in order.
inline std::string error_text(int code) {
  constexpr int kEndOfFile = -('E' | 'O' << 8 | 'F' << 16 | ' ' << 24);
  return code == kEndOfFile ? "End of file" : std::generic_category().message(-code);
}

/// The session reported that its output is open, and once that it failed, with FFmpeg's text for the code.
inline void expect_started_and_failed(StatusLog& status, const std::string& text = "start OK") {
  const auto entries = status.entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].code, 0);
  EXPECT_EQ(entries[0].text, text);
  EXPECT_LT(entries[1].code, 0);
  EXPECT_EQ(entries[1].text, error_text(entries[1].code));
}

}  // namespace meru_test

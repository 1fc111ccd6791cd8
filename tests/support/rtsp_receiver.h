#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/eventually.h"
#include "support/run_command.h"
#include "support/server_process.h"

namespace meru_test {

/// The first image of those that an RtspReceiver recorded whose stamp counts. The first has none. Version 4 takes more
/// of them, until it knows better, for images that are not in the order of showing, and gives them all the same stamp.
inline size_t first_true_stamp() {
  static const bool version_4 = run_command("ffmpeg -version").output.rfind("ffmpeg version 4", 0) == 0;
  return version_4 ? 8 : 1;
}

/// The ffmpeg command as an RTSP server on a free port of 127.0.0.1, that takes one stream and records it as it is.
///
/// The recorded stamps are those sent, counted from somewhere near 10 s; but for those of the first images, see
/// first_true_stamp(). Sound is kept although version 7 takes its packets for what only a key frame could begin.
class RtspReceiver {
 public:
  /// @param recorded  path of the recording, an MKV
  explicit RtspReceiver(std::string recorded) : m_recorded(std::move(recorded)) {
    m_process = std::make_unique<ServerProcess>(
        std::vector<std::string>{"ffmpeg", "-nostdin", "-v", "error", "-y", "-itsoffset", "10", "-rtsp_flags", "listen",
                                 "-i", url(), "-map", "0", "-c", "copy", "-copyinkf", "-copyts", m_recorded},
        output());
    const bool settled = eventually([&] { return m_port.has_listener() || m_process->has_ended(); });
    if (!settled || m_process->has_ended()) throw std::runtime_error("ffmpeg does not listen: " + said());
  }
  RtspReceiver(const RtspReceiver&) = delete;
  RtspReceiver& operator=(const RtspReceiver&) = delete;

  std::string url() const { return "rtsp://127.0.0.1:" + m_port.text() + "/live"; }
  std::string recorded() const { return m_recorded; }
  /// What ffmpeg complained about.
  std::string said() const {
    std::ifstream in(output());
    return {std::istreambuf_iterator<char>(in), {}};
  }
  /// Waits until the sender has ended the stream and the recording is complete.
  bool ended() { return m_process->ends(); }
  /// Waits until the first packets have come in.
  bool has_sender() {
    return eventually([&] { return m_process->has_open(m_recorded); });
  }

  /// From then on the port refuses connections.
  void kill() { m_process->kill(); }
  void suspend() { m_process->suspend(); }
  void resume() { m_process->resume(); }

 private:
  std::string output() const { return m_recorded + ".said.txt"; }

  ReservedPort m_port;
  std::string m_recorded;
  std::unique_ptr<ServerProcess> m_process;
};

}  // namespace meru_test

#pragma once

#include <memory>
#include <string>

#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/temp_dir.h"

namespace meru_test {

/// A real server of one stream, of RTMP or of RTSP.
class LiveServer {
 public:
  /// @param name  of the stream, and of its recording
  LiveServer(const TempDir& dir, const std::string& scheme, const std::string& name) : m_name(name) {
    if (scheme == "rtmp") {
      m_rtmp = std::make_unique<RtmpServer>(dir.path());
    } else {
      m_rtsp = std::make_unique<RtspReceiver>(dir.file(name + ".received.mkv"));
    }
  }

  std::string url() const { return m_rtmp != nullptr ? m_rtmp->url(m_name) : m_rtsp->url(); }
  std::string recorded() const { return m_rtmp != nullptr ? m_rtmp->recorded(m_name) : m_rtsp->recorded(); }
  /// Waits until the sender has gone and the recording is complete.
  bool has_recorded() { return m_rtmp != nullptr ? m_rtmp->has_recorded(m_name) : m_rtsp->ended(); }

  void kill() { m_rtmp != nullptr ? m_rtmp->kill() : m_rtsp->kill(); }
  void suspend() { m_rtmp != nullptr ? m_rtmp->suspend() : m_rtsp->suspend(); }
  void resume() { m_rtmp != nullptr ? m_rtmp->resume() : m_rtsp->resume(); }

 private:
  std::string m_name;
  std::unique_ptr<RtmpServer> m_rtmp;
  std::unique_ptr<RtspReceiver> m_rtsp;
};

}  // namespace meru_test

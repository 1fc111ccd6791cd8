#pragma once

#include <memory>
#include <string>

#include "support/misbehaving_server.h"
#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/server_process.h"
#include "support/tcp_proxy.h"
#include "support/temp_dir.h"

namespace meru_test {

/// What happens to an output.
enum class Trouble {
  kRefused,   ///< nobody listens
  kRejected,  ///< the server does not want the stream
  kKilled,    ///< the server is killed in the middle
  kReset,     ///< the connection is reset in the middle
};

/// The server of one live output that fails.
class FailingServer {
 public:
  static constexpr const char* kKey = "s3cret-k3y";

  FailingServer(const TempDir& dir, Trouble trouble, const std::string& scheme) : m_trouble(trouble) {
    const bool rtmp = scheme == "rtmp";
    if (trouble == Trouble::kRefused) {
      m_url = scheme + "://127.0.0.1:" + m_nobody.text() + "/live/" + (rtmp ? kKey : "stream");
    } else if (rtmp) {
      m_rtmp = std::make_unique<RtmpServer>(dir.path());
      m_url = trouble == Trouble::kRejected ? m_rtmp->refusing_url(kKey) : m_rtmp->url(kKey);
    } else if (trouble == Trouble::kRejected) {
      m_forbidding = std::make_unique<MisbehavingServer>(Manners::kForbids);
      m_url = m_forbidding->url(scheme, "stream");
    } else {
      m_rtsp = std::make_unique<RtspReceiver>(dir.file("failing.mkv"));
      m_url = m_rtsp->url();
    }
    if (strikes()) {
      m_proxy = std::make_unique<TcpProxy>(m_url);
      m_url = m_proxy->url();
    }
  }

  const std::string& url() const { return m_url; }
  /// Whether the failure waits for strike().
  bool strikes() const { return m_trouble == Trouble::kKilled || m_trouble == Trouble::kReset; }
  /// Whether the stream has begun to flow to the server.
  bool has_stream() const {
    constexpr long long kMoreThanGreetings = 20000;
    return m_proxy->carried() > kMoreThanGreetings;
  }
  void strike() {
    if (m_trouble == Trouble::kReset) {
      m_proxy->reset();
    } else if (m_rtmp != nullptr) {
      m_rtmp->kill();
    } else {
      m_rtsp->kill();
    }
  }

 private:
  Trouble m_trouble;
  ReservedPort m_nobody;
  std::unique_ptr<RtmpServer> m_rtmp;
  std::unique_ptr<RtspReceiver> m_rtsp;
  std::unique_ptr<MisbehavingServer> m_forbidding;
  std::unique_ptr<TcpProxy> m_proxy;
  std::string m_url;
};

}  // namespace meru_test

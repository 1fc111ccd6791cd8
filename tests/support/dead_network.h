#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "support/full_backlog.h"
#include "support/local_listener.h"
#include "support/misbehaving_server.h"
#include "support/server_process.h"

namespace meru_test {

/// The ways in which an address does not answer.
enum class Death { kNeverAnswers, kFullBacklog, kRefused, kUnknownHost, kHalfAHandshake, kByteASecond };

/// An address where no stream can be delivered.
class DeadNetwork {
 public:
  static constexpr const char* kKey = "s3cret-k3y";

  DeadNetwork(Death death, const std::string& scheme) {
    switch (death) {
      case Death::kNeverAnswers:
        m_silent = std::make_unique<SilentServer>();
        m_url = address(scheme, "127.0.0.1", m_silent->port());
        break;
      case Death::kFullBacklog:
        m_full = std::make_unique<FullBacklog>();
        m_url = address(scheme, "127.0.0.1", m_full->port());
        break;
      case Death::kRefused:
        m_nobody = std::make_unique<ReservedPort>();
        m_url = address(scheme, "127.0.0.1", static_cast<int>(m_nobody->number()));
        break;
      case Death::kUnknownHost:
        // No label of a name is so long: the system refuses it without asking anybody.
        m_url = address(scheme, std::string(64, 'n') + ".invalid", 1935);
        break;
      case Death::kHalfAHandshake:
        behave(Manners::kHalfAHandshake, scheme);
        break;
      case Death::kByteASecond:
        behave(Manners::kByteASecond, scheme);
        break;
    }
  }

  const std::string& url() const { return m_url; }
  /// Whether it is still as dead as it is meant to be.
  bool holds() const { return m_full == nullptr || m_full->holds_connects(); }

 private:
  static std::string address(const std::string& scheme, const std::string& host, int port) {
    return scheme + "://" + host + ":" + std::to_string(port) + "/live/" + kKey;
  }
  void behave(Manners manners, const std::string& scheme) {
    m_server = std::make_unique<MisbehavingServer>(manners);
    m_url = address(scheme, "127.0.0.1", m_server->port());
  }

  std::unique_ptr<SilentServer> m_silent;
  std::unique_ptr<FullBacklog> m_full;
  std::unique_ptr<ReservedPort> m_nobody;
  std::unique_ptr<MisbehavingServer> m_server;
  std::string m_url;
};

}  // namespace meru_test

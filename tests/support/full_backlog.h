#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/eventually.h"
#include "support/sockets.h"

namespace meru_test {

/// A server whose backlog is full: the system answers no further connection, which then hangs before it is made.
class FullBacklog {
 public:
  FullBacklog() : m_listening(listening_socket(0)), m_port(port_of(m_listening)) {
    // Few of them: what a backlog of 0 holds is up to the system.
    for (int i = 0; i < 16; ++i) {
      m_fillers.push_back(begin_connect(m_port));
      if (hangs(m_fillers.back())) return;
    }
    throw std::runtime_error("the backlog takes connections without end");
  }

  int port() const { return m_port; }
  std::string url(const std::string& scheme, const std::string& key) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_port) + "/live/" + key;
  }
  /// @return whether a connection that is begun now is not answered
  bool holds_connects() const { return hangs(begin_connect(m_port)); }

 private:
  static bool hangs(const Socket& connection) {
    const auto made = [&] { return tcp_state(connection) == TCP_ESTABLISHED; };
    return !eventually(made, std::chrono::milliseconds(100)) && tcp_state(connection) == TCP_SYN_SENT;
  }

  Socket m_listening;
  int m_port;
  std::vector<Socket> m_fillers;
};

}  // namespace meru_test

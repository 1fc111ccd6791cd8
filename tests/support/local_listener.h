#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace meru_test {

/// A server on 127.0.0.1 that lets connections in (the system accepts them) and never answers.
class SilentServer {
 public:
  SilentServer() : m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (m_socket < 0 || bind(m_socket, generic, length) != 0 || listen(m_socket, 128) != 0 ||
        getsockname(m_socket, generic, &length) != 0) {
      throw std::runtime_error("no listening socket");
    }
    m_port = ntohs(address.sin_port);
  }
  ~SilentServer() { close(); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  int port() const { return m_port; }
  std::string url(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_port) + "/live/key";
  }
  /// From now on the port refuses connections.
  void close() {
    if (m_socket >= 0) ::close(m_socket);
    m_socket = -1;
  }

 private:
  int m_socket;
  int m_port = 0;
};

}  // namespace meru_test

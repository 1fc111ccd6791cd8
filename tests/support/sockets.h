#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace meru_test {

/// A socket that is closed with its owner.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : m_fd(fd) {}
  ~Socket() { close(); }
  Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }

  int fd() const { return m_fd; }
  bool is_open() const { return m_fd >= 0; }
  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }
  /// Closes so that the other side sees a reset, whatever it has still on its way.
  void reset() {
    const linger at_once{1, 0};
    if (m_fd >= 0) setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close();
  }
  /// Sends all of it. @return false when the other side has gone
  bool send_all(const char* data, size_t size) const {
    while (size > 0) {
      const ssize_t sent = ::send(m_fd, data, size, MSG_NOSIGNAL);
      if (sent <= 0) return false;
      data += sent;
      size -= static_cast<size_t>(sent);
    }
    return true;
  }

 private:
  int m_fd = -1;
};

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

/// A socket that listens on a free port of 127.0.0.1.
inline Socket listening_socket(int backlog) {
  Socket made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in any = loopback(0);
  if (!made.is_open() || bind(made.fd(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0 ||
      listen(made.fd(), backlog) != 0) {
    throw std::runtime_error("no listening socket");
  }
  return made;
}

inline int port_of(const Socket& listening) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (getsockname(listening.fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("no port");
  }
  return ntohs(address.sin_port);
}

/// Begins a connection without waiting for it.
inline Socket begin_connect(int port) {
  Socket made(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback(port);
  if (!made.is_open()) throw std::runtime_error("no socket");
  // What becomes of it is seen in its state.
  static_cast<void>(connect(made.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return made;
}

/// @return the state of a connection, TCP_ESTABLISHED or TCP_SYN_SENT for instance
inline int tcp_state(const Socket& connection) {
  tcp_info info{};
  socklen_t length = sizeof(info);
  if (getsockopt(connection.fd(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return -1;
  return info.tcpi_state;
}

}  // namespace meru_test

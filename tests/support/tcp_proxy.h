#pragma once

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/sockets.h"
#include "support/wake_up.h"

namespace meru_test {

/// Stands before a server of 127.0.0.1 and carries each connection to it, until it is told to reset them.
class TcpProxy {
 public:
  /// @param server_url  an address of the server: "SCHEME://127.0.0.1:PORT/PATH"
  explicit TcpProxy(std::string server_url)
      : m_server_url(std::move(server_url)),
        m_listening(listening_socket(16)),
        m_port(port_of(m_listening)),
        m_thread([this] { serve(); }) {}
  ~TcpProxy() {
    m_end.ring();
    m_thread.join();
  }
  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  /// The server's address with this port in place of the server's.
  std::string url() const {
    return m_server_url.substr(0, port_begin()) + std::to_string(m_port) + m_server_url.substr(port_end());
  }
  /// How many bytes have been carried to the server.
  long long carried() const { return m_carried; }

  /// Resets every connection, on both sides, and every further one as soon as it is made.
  void reset() {
    m_reset.ring();
    m_is_reset.wait();
  }

 private:
  struct Link {
    Socket client;
    Socket server;
  };

  size_t port_begin() const { return m_server_url.find(':', m_server_url.find("://") + 1) + 1; }
  size_t port_end() const { return m_server_url.find('/', port_begin()); }

  void serve() {
    bool dead = false;
    for (;;) {
      // Once it has been rung it stays so, and is left out.
      std::vector<pollfd> waits{
          {m_end.fd(), POLLIN, 0}, {dead ? -1 : m_reset.fd(), POLLIN, 0}, {m_listening.fd(), POLLIN, 0}};
      for (const Link& link : m_links) {
        waits.push_back({link.client.fd(), POLLIN, 0});
        waits.push_back({link.server.fd(), POLLIN, 0});
      }
      if (poll(waits.data(), waits.size(), -1) < 0) continue;
      if (waits[0].revents != 0) return;
      if (waits[1].revents != 0) {
        dead = true;
        reset_links();
        m_is_reset.ring();
        continue;
      }
      size_t at = 3;
      for (auto link = m_links.begin(); link != m_links.end(); at += 2) {
        const bool up = waits[at].revents == 0 || carry(link->client, link->server, &m_carried);
        const bool down = waits[at + 1].revents == 0 || carry(link->server, link->client, nullptr);
        link = up && down ? std::next(link) : m_links.erase(link);
      }
      if (waits[2].revents != 0) let_in(dead);
    }
  }

  void reset_links() {
    for (Link& link : m_links) {
      link.client.reset();
      link.server.reset();
    }
    m_links.clear();
  }

  void let_in(bool dead) {
    Link link{Socket(accept4(m_listening.fd(), nullptr, nullptr, SOCK_CLOEXEC)),
              Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
    if (dead) link.client.reset();
    const sockaddr_in address = loopback(std::stoi(m_server_url.substr(port_begin())));
    if (link.client.is_open() &&
        connect(link.server.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      m_links.push_back(std::move(link));
    }
  }

  /// @return false when one of them has gone
  static bool carry(const Socket& from, const Socket& to, std::atomic<long long>* count) {
    char bytes[65536];
    const ssize_t got = recv(from.fd(), bytes, sizeof(bytes), MSG_DONTWAIT);
    if (got <= 0 || !to.send_all(bytes, static_cast<size_t>(got))) return false;
    if (count != nullptr) *count += got;
    return true;
  }

  const std::string m_server_url;
  Socket m_listening;
  const int m_port;
  WakeUp m_end;
  WakeUp m_reset;
  WakeUp m_is_reset;
  std::atomic<long long> m_carried{0};
  std::list<Link> m_links;  // of the thread alone
  std::thread m_thread;
};

}  // namespace meru_test

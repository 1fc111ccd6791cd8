#pragma once

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/sockets.h"
#include "support/wake_up.h"

namespace meru_test {

/// What a MisbehavingServer does to whoever connects.
enum class Manners {
  kHalfAHandshake,       ///< answers half of an RTMP handshake, or half a line of RTSP, and then nothing
  kByteASecond,          ///< answers nothing and reads one byte a second
  kResetAtFirstBytes,    ///< resets the connection when something has come
  kResetAfterHandshake,  ///< answers the handshake, or the first RTSP request, and resets the connection at what
                         ///< follows
  kDrips,                ///< answers a byte of the handshake, or of an endless line of RTSP, every 200 ms
  kForbids,              ///< answers each RTSP request that it is forbidden; RTMP as kResetAtFirstBytes
};

/// A server on a free port of 127.0.0.1 that lets connections in and then misbehaves.
class MisbehavingServer {
 public:
  explicit MisbehavingServer(Manners manners)
      : m_manners(manners),
        m_listening(listening_socket(128)),
        m_port(port_of(m_listening)),
        m_thread([this] { serve(); }) {}
  ~MisbehavingServer() {
    m_end.ring();
    m_thread.join();
  }
  MisbehavingServer(const MisbehavingServer&) = delete;
  MisbehavingServer& operator=(const MisbehavingServer&) = delete;

  int port() const { return m_port; }
  std::string url(const std::string& scheme, const std::string& key) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_port) + "/live/" + key;
  }
  /// How many connections have got the treatment: an answer, a byte read or a reset.
  int treated() const { return m_treated; }

 private:
  static constexpr size_t kRtmpHello = 1 + 1536;    // version and first block of the client
  static constexpr size_t kRtmpBlock = 1536;        // each block of the handshake
  static constexpr std::chrono::seconds kPause{1};  // from one byte to the next

  struct Client {
    Socket socket;
    std::string got;
    bool answered = false;
    std::chrono::steady_clock::time_point next_read{};
    std::chrono::steady_clock::time_point next_drop{};
    size_t dripped = 0;
  };

  void serve() {
    for (;;) {
      std::vector<pollfd> waits{{m_end.fd(), POLLIN, 0}, {m_listening.fd(), POLLIN, 0}};
      const auto now = std::chrono::steady_clock::now();
      for (const Client& client : m_clients) {
        const short events = client.next_read <= now ? POLLIN : 0;
        waits.push_back({client.socket.fd(), static_cast<short>(events | POLLRDHUP), 0});
      }
      const bool by_the_clock = m_manners == Manners::kByteASecond || m_manners == Manners::kDrips;
      if (poll(waits.data(), waits.size(), by_the_clock ? 50 : -1) < 0) continue;
      if (waits[0].revents != 0) return;
      for (size_t i = 0; i < m_clients.size(); ++i) {
        const short seen = waits[i + 2].revents;
        if ((seen & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
          m_clients[i].socket.close();
        } else if (seen != 0) {
          read_from(&m_clients[i]);
        }
      }
      if (m_manners == Manners::kDrips) drip();
      m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                     [](const Client& client) { return !client.socket.is_open(); }),
                      m_clients.end());
      if (waits[1].revents != 0) {
        Client client{Socket(accept4(m_listening.fd(), nullptr, nullptr, SOCK_CLOEXEC)), {}, false, {}};
        if (client.socket.is_open()) m_clients.push_back(std::move(client));
      }
    }
  }

  void read_from(Client* client) {
    char bytes[4096];
    const size_t most = m_manners == Manners::kByteASecond ? 1 : sizeof(bytes);
    const ssize_t got = recv(client->socket.fd(), bytes, most, MSG_DONTWAIT);
    if (got <= 0) {
      client->socket.close();
      return;
    }
    client->got.append(bytes, static_cast<size_t>(got));
    switch (m_manners) {
      case Manners::kByteASecond:
        client->next_read = std::chrono::steady_clock::now() + kPause;
        treat(client);
        break;
      case Manners::kResetAtFirstBytes:
        reset(client);
        break;
      case Manners::kHalfAHandshake:
        if (!client->answered && has_request(*client)) answer(client, half_an_answer(*client));
        break;
      case Manners::kResetAfterHandshake:
        if (client->answered) {
          reset(client);
        } else if (has_request(*client)) {
          answer(client, whole_answer(client));
        }
        break;
      case Manners::kDrips:
        break;  // by the clock
      case Manners::kForbids:
        if (is_rtmp(*client)) {
          reset(client);
        } else if (has_request(*client)) {
          answer(client, rtsp_answer(client, "403 Forbidden"));
        }
        break;
    }
  }

  /// The protocol shows in the first byte: RTMP's is its version.
  static bool is_rtmp(const Client& client) { return client.got[0] == '\3'; }
  static bool has_request(const Client& client) {
    return is_rtmp(client) ? client.got.size() >= kRtmpHello : client.got.find("\r\n\r\n") != std::string::npos;
  }
  static std::string half_an_answer(const Client& client) {
    return is_rtmp(client) ? '\3' + std::string(kRtmpBlock / 2, '\0') : "RTSP/1.0 2";
  }
  static std::string whole_answer(Client* client) {
    if (!is_rtmp(*client)) return rtsp_answer(client, "200 OK");
    // A version of zero in the server's block: nothing is to be verified. The last block is the client's own.
    return '\3' + std::string(kRtmpBlock, '\0') + client->got.substr(1, kRtmpBlock);
  }
  /// To the first request, which is taken away.
  static std::string rtsp_answer(Client* client, const std::string& status) {
    const size_t end = client->got.find("\r\n\r\n");
    const std::string request = client->got.substr(0, end + 2);
    client->got.erase(0, end + 4);
    const size_t number = request.find("CSeq:");
    const std::string line =
        number == std::string::npos ? "" : request.substr(number, request.find("\r\n", number) + 2 - number);
    return "RTSP/1.0 " + status + "\r\n" + line + "\r\n";
  }

  void drip() {
    const auto now = std::chrono::steady_clock::now();
    for (Client& client : m_clients) {
      if (client.got.empty() || now < client.next_drop || !client.socket.is_open()) continue;
      client.next_drop = now + std::chrono::milliseconds(200);
      treat(&client);
      const std::string whole = is_rtmp(client) ? '\3' + std::string(2 * kRtmpBlock, '\0') : "RTSP/1.0 200 OK\r\nX: ";
      const char drop = client.dripped < whole.size() ? whole[client.dripped] : 'x';
      ++client.dripped;
      if (!client.socket.send_all(&drop, 1)) client.socket.close();
    }
  }

  void treat(Client* client) {
    if (!client->answered) ++m_treated;
    client->answered = true;
  }
  void answer(Client* client, const std::string& text) {
    treat(client);
    if (!client->socket.send_all(text.data(), text.size())) client->socket.close();
  }
  void reset(Client* client) {
    treat(client);
    client->socket.reset();
  }

  const Manners m_manners;
  Socket m_listening;
  const int m_port;
  WakeUp m_end;
  std::atomic<int> m_treated{0};
  std::vector<Client> m_clients;  // of the thread alone
  std::thread m_thread;
};

}  // namespace meru_test

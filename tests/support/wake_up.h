#pragma once

#include <poll.h>
#include <sys/eventfd.h>

#include <cstdint>
#include <stdexcept>

#include "support/sockets.h"

namespace meru_test {

/// A descriptor that becomes readable, for good, when it is rung: tells a thread that waits in poll().
class WakeUp {
 public:
  WakeUp() : m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_event.is_open()) throw std::runtime_error("no event descriptor");
  }
  int fd() const { return m_event.fd(); }
  void ring() const {
    const uint64_t one = 1;
    if (write(fd(), &one, sizeof(one)) != sizeof(one)) throw std::runtime_error("the event cannot be rung");
  }

  /// Returns when it has been rung.
  void wait() const {
    pollfd rung{fd(), POLLIN, 0};
    while (poll(&rung, 1, -1) <= 0) {
    }
  }

 private:
  Socket m_event;
};

}  // namespace meru_test

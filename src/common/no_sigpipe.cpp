#include "common/no_sigpipe.h"

#ifdef SIGPIPE

#include <pthread.h>

namespace {

sigset_t only_sigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool is_pending() {
  sigset_t pending;
  return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

NoSigpipe::NoSigpipe() : m_was_pending(is_pending()) {
  const sigset_t set = only_sigpipe();
  pthread_sigmask(SIG_BLOCK, &set, &m_before);
}

NoSigpipe::~NoSigpipe() {
  // One that was there before belongs to somebody else. A write raises it for the thread that writes.
  if (!m_was_pending && is_pending()) {
    const sigset_t set = only_sigpipe();
#ifdef __APPLE__
    int signal = 0;
    sigwait(&set, &signal);
#else
    const timespec none{};
    sigtimedwait(&set, nullptr, &none);
#endif
  }
  pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

#else

NoSigpipe::NoSigpipe() = default;
NoSigpipe::~NoSigpipe() = default;

#endif

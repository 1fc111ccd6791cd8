#pragma once

#include <csignal>

/// Keeps this thread's writes to a pipe without a reader from raising SIGPIPE: the write fails with EPIPE instead. The
/// process's handler and the signal mask of other threads stay as they are.
class NoSigpipe {
 public:
  NoSigpipe();
  /// Takes back a signal that a write has raised meanwhile, then restores the thread's mask.
  ~NoSigpipe();
  NoSigpipe(const NoSigpipe&) = delete;
  NoSigpipe& operator=(const NoSigpipe&) = delete;

#ifdef SIGPIPE
 private:
  sigset_t m_before;
  bool m_was_pending;
#endif
};

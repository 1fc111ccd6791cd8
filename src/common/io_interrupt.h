#pragma once

extern "C" {
#include <libavformat/avio.h>
}

#include <atomic>
#include <cstdint>
#include <memory>

/// Set once by MERU_stop, read by whatever works for the start of a recording.
using StopFlag = std::shared_ptr<std::atomic<bool>>;

/// Breaks off the blocking network calls of one output.
///
/// During the start a call is broken off as soon as the stop flag is set, and the opening may have a limit. While
/// recording nothing is broken off. Once the recording is being stopped, a network output has until a deadline.
/// Installed in the output's context, asked by FFmpeg on whatever thread does the I/O; must outlive that context.
class IoInterrupt {
 public:
  IoInterrupt() = default;
  IoInterrupt(const IoInterrupt&) = delete;
  IoInterrupt& operator=(const IoInterrupt&) = delete;

  /// Obeys `stop` from now until start_over(). Call before the I/O begins.
  void begin_start(StopFlag stop);
  /// The start has succeeded: the stop flag no longer breaks off I/O, so that pending packets are still delivered.
  void start_over() { m_starting = false; }
  /// Breaks off everything that still blocks `usec` microseconds from now. A limit can only be brought forward.
  void limit(int64_t usec);
  /// The same for the opening of the output alone, until opening_over().
  void limit_opening(int64_t usec);
  void opening_over() { m_opening_deadline = 0; }

  /// @return whether the start was told to stop before it was over, so that errors of its I/O mean nothing.
  bool start_given_up() const { return m_starting && *m_stop; }

  /// Limits one piece of I/O, such as the writing of a packet, until io_over(); 0: no limit.
  void limit_io(int64_t usec);
  /// @return whether a limit has broken off the I/O since limit_io(). Some of FFmpeg's muxers do not say so themselves.
  bool io_over();

  /// @return whether a limit has passed
  bool too_late() const;

  const StopFlag& stop_flag() const { return m_stop; }
  AVIOInterruptCB callback() { return {&IoInterrupt::asked, this}; }

 private:
  static int asked(void* self);

  StopFlag m_stop;  // set before the I/O begins, constant afterwards
  std::atomic<bool> m_starting{false};
  std::atomic<int64_t> m_deadline{0};  // on the steady clock in microseconds, 0 = none
  std::atomic<int64_t> m_opening_deadline{0};
  std::atomic<int64_t> m_io_deadline{0};
  mutable std::atomic<bool> m_broken_off{false};
};

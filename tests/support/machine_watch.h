#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace meru_test {

/// Looks how busy the machine is, from the beginning of this object on.
class MachineWatch {
 public:
  MachineWatch() : m_begin(times()), m_thread(&MachineWatch::run, this) {}
  ~MachineWatch() { stop(); }
  MachineWatch(const MachineWatch&) = delete;
  MachineWatch& operator=(const MachineWatch&) = delete;

  /// Whether half of the processors' time was left over, and whoever waited for the clock was woken in time. To be
  /// asked once, at the end.
  bool was_idle() {
    stop();
    const Times end = times();
    const double all = end.all - m_begin.all;
    return all > 0 && (end.unused - m_begin.unused) / all >= 0.5 && m_worst < std::chrono::milliseconds(10);
  }

 private:
  struct Times {
    double unused = 0, all = 0;
  };

  static Times times() {
    std::ifstream in("/proc/stat");
    std::string name;
    in >> name;
    Times times;
    double value = 0;
    // Time in guests, behind these eight, is counted among them already.
    for (int column = 0; column < 8 && in >> value; ++column) {
      times.all += value;
      if (column == 3 || column == 4) times.unused += value;  // idle, and waiting for a disk
    }
    return times;
  }

  void run() {
    while (!m_stopped) {
      const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
      std::this_thread::sleep_until(due);
      m_worst = std::max<std::chrono::nanoseconds>(m_worst, std::chrono::steady_clock::now() - due);
    }
  }

  void stop() {
    m_stopped = true;
    if (m_thread.joinable()) m_thread.join();
  }

  Times m_begin;
  std::chrono::nanoseconds m_worst{0};  // the thread's, until it has ended
  std::atomic<bool> m_stopped{false};
  std::thread m_thread;
};

}  // namespace meru_test

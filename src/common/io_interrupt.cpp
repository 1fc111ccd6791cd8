#include "common/io_interrupt.h"

#include <chrono>
#include <utility>

namespace {

int64_t steady_usec() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void IoInterrupt::begin_start(StopFlag stop) {
  m_stop = std::move(stop);
  m_starting = m_stop != nullptr;
}

void IoInterrupt::limit(int64_t usec) { m_deadline = steady_usec() + usec; }

int IoInterrupt::asked(void* self) {
  const auto* interrupt = static_cast<const IoInterrupt*>(self);
  if (interrupt->start_given_up()) return 1;
  const int64_t deadline = interrupt->m_deadline;
  return deadline != 0 && steady_usec() >= deadline ? 1 : 0;
}

#include "common/io_interrupt.h"

#include <algorithm>
#include <chrono>
#include <iterator>
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

void IoInterrupt::limit(int64_t usec) {
  const int64_t wanted = steady_usec() + usec;
  int64_t set = m_deadline;
  while ((set == 0 || wanted < set) && !m_deadline.compare_exchange_weak(set, wanted)) continue;
}

void IoInterrupt::limit_opening(int64_t usec) { m_opening_deadline = steady_usec() + usec; }

void IoInterrupt::limit_io(int64_t usec) {
  m_broken_off = false;
  m_io_deadline = usec > 0 ? steady_usec() + usec : 0;
}

bool IoInterrupt::io_over() {
  m_io_deadline = 0;
  return m_broken_off;
}

bool IoInterrupt::too_late() const {
  const int64_t now = steady_usec();
  const int64_t deadlines[] = {m_deadline, m_opening_deadline, m_io_deadline};
  return std::any_of(std::begin(deadlines), std::end(deadlines), [now](int64_t d) { return d != 0 && now >= d; });
}

int IoInterrupt::asked(void* self) {
  const auto* interrupt = static_cast<const IoInterrupt*>(self);
  if (interrupt->start_given_up()) return 1;
  if (!interrupt->too_late()) return 0;
  interrupt->m_broken_off = true;
  return 1;
}

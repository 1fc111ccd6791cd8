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

void IoInterrupt::limit(int64_t usec) { m_deadline = steady_usec() + usec; }

void IoInterrupt::limit_opening(int64_t usec) { m_opening_deadline = steady_usec() + usec; }

bool IoInterrupt::too_late() const {
  const int64_t now = steady_usec();
  const int64_t deadlines[] = {m_deadline, m_opening_deadline};
  return std::any_of(std::begin(deadlines), std::end(deadlines), [now](int64_t d) { return d != 0 && now >= d; });
}

int IoInterrupt::asked(void* self) {
  const auto* interrupt = static_cast<const IoInterrupt*>(self);
  return interrupt->start_given_up() || interrupt->too_late() ? 1 : 0;
}

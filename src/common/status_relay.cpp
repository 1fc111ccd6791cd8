#include "common/status_relay.h"

bool StatusRelay::enter(Call* call) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_muted) return false;
  call->next = m_inside;
  // cppcheck-suppress danglingLifetime ; the caller takes it out before its frame ends
  m_inside = call;
  return true;
}

void StatusRelay::leave(const Call* call) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Call** at = &m_inside;
  while (*at != call) at = &(*at)->next;
  *at = call->next;
  m_left.notify_all();
}

void StatusRelay::report(int id, const char* text) {
  Call call;
  if (!enter(&call)) return;
  if (m_note) m_note(id, text);
  if (m_cb != nullptr) m_cb(id, text, m_user);
  leave(&call);
}

void StatusRelay::mute() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_muted = true;
}

void StatusRelay::wait_until_quiet() {
  const auto self = std::this_thread::get_id();
  std::unique_lock<std::mutex> lock(m_mutex);
  m_left.wait(lock, [&] {
    const Call* call = m_inside;
    while (call != nullptr && call->thread == self) call = call->next;
    return call == nullptr;
  });
}

bool StatusRelay::inside_callback() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const Call* call = m_inside;
  while (call != nullptr && call->thread != std::this_thread::get_id()) call = call->next;
  return call != nullptr;
}

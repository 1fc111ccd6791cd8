#include "common/status_relay.h"

#include <algorithm>

bool StatusRelay::enter() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_muted) return false;
  m_inside.push_back(std::this_thread::get_id());
  return true;
}

void StatusRelay::leave() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_inside.erase(std::find(m_inside.begin(), m_inside.end(), std::this_thread::get_id()));
  m_left.notify_all();
}

void StatusRelay::report(int id, const char* text) {
  if (!enter()) return;
  if (m_note) m_note(id, text);
  if (m_cb != nullptr) m_cb(id, text, m_user);
  leave();
}

void StatusRelay::mute() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_muted = true;
}

void StatusRelay::wait_until_quiet() {
  const auto self = std::this_thread::get_id();
  std::unique_lock<std::mutex> lock(m_mutex);
  m_left.wait(lock, [&] {
    return std::all_of(m_inside.begin(), m_inside.end(), [&](std::thread::id id) { return id == self; });
  });
}

bool StatusRelay::inside_callback() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return std::find(m_inside.begin(), m_inside.end(), std::this_thread::get_id()) != m_inside.end();
}

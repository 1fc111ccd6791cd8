#include "output/start_gate.h"

#include <utility>

namespace MR {

namespace {

/// Says which thread is inside a step, exceptions included.
class Inside {
 public:
  explicit Inside(std::atomic<std::thread::id>* who) : m_who(who) { *m_who = std::this_thread::get_id(); }
  ~Inside() { *m_who = std::thread::id(); }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  std::atomic<std::thread::id>* m_who;
};

}  // namespace

bool StartGate::pass(const std::function<void()>& step) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (*m_exited) return false;
  const Inside inside(&m_inside);
  step();
  return true;
}

bool StartGate::pass_last(const std::function<void()>& step) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (*m_exited) return false;
  const Inside inside(&m_inside);
  step();
  m_files.clear();
  m_over = !m_stopped_inside;
  return m_over;
}

void StartGate::open_file(const std::string& path, const std::function<bool()>& open, std::function<void()> close) {
  m_files.push_back({CreatedFile(path), nullptr});
  OpenFile& entry = m_files.back();
  if (!open()) {
    m_files.pop_back();
    return;
  }
  entry.file.opened();
  entry.close = std::move(close);
}

bool StartGate::open(const std::string& path, const std::function<bool()>& open, std::function<void()> close) {
  if (!path.empty()) return pass([&] { open_file(path, open, std::move(close)); });
  open();
  return true;
}

void StartGate::note_open(std::function<void()> close) { m_files.push_back({CreatedFile({}), std::move(close)}); }

/// A host that stops the session from its log callback may be inside a step.
std::unique_lock<std::mutex> StartGate::lock_unless_inside() {
  return inside_step() ? std::unique_lock<std::mutex>() : std::unique_lock<std::mutex>(m_mutex);
}

bool StartGate::close() {
  *m_exited = true;
  const auto lock = lock_unless_inside();
  if (m_over) return true;
  if (lock.owns_lock()) {
    abandon();
  } else {
    m_stopped_inside = true;
  }
  return false;
}

bool StartGate::leave(std::function<void()> last_act) {
  const auto lock = lock_unless_inside();
  if (m_over) return false;
  m_last_act = std::move(last_act);
  return true;
}

bool StartGate::end() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const bool stopped = *m_exited && !m_over;
  if (stopped) {
    abandon();
  } else {
    m_files.clear();
    m_over = true;
  }
  return stopped;
}

std::function<void()> StartGate::take_last_act() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_over = true;
  return std::exchange(m_last_act, nullptr);
}

void StartGate::abandon() {
  for (auto entry = m_files.rbegin(); entry != m_files.rend(); ++entry) {
    if (entry->close) entry->close();
    entry->file.remove();
  }
  m_files.clear();
}

}  // namespace MR

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace meru_test {

/// Collects what a repair reports. Its address goes to the library, so it must outlive the repair.
class RepairLog {
 public:
  struct Entry {
    double progress;
    int code;
    std::string text;
  };

  static void callback(double progress, int code, const char* msg, void* user) {
    auto* self = static_cast<RepairLog*>(user);
    {
      const std::lock_guard<std::mutex> lock(self->m_mutex);
      self->m_entries.push_back({progress, code, msg});
      self->m_changed.notify_all();
    }
    if (self->m_hook) self->m_hook();
  }

  /// Runs inside every callback, after it was noted. To be set before the repair starts.
  void set_hook(std::function<void()> hook) { m_hook = std::move(hook); }
  bool wait_for_reports(size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_entries.size() >= count; });
  }
  std::vector<Entry> entries() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
  }
  Entry last() {
    const std::vector<Entry> all = entries();
    return all.empty() ? Entry{-1, 1, "no report"} : all.back();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Entry> m_entries;  // guarded by m_mutex
  std::function<void()> m_hook;
};

}  // namespace meru_test

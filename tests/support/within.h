#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

namespace meru_test {

/// Something done on a thread of its own, that may hang when what is tested is wrong.
class Background {
 public:
  explicit Background(std::function<void()> work) {
    std::packaged_task<void()> task(std::move(work));
    m_done = task.get_future();
    m_thread = std::thread(std::move(task));
  }
  ~Background() { m_thread.join(); }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  bool ends_within(std::chrono::milliseconds deadline) const {
    return m_done.wait_for(deadline) == std::future_status::ready;
  }
  bool ends() const { return ends_within(std::chrono::seconds(30)); }

 private:
  std::future<void> m_done;
  std::thread m_thread;
};

}  // namespace meru_test

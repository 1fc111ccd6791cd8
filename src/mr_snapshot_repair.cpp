#include <exception>
#include <map>
#include <memory>
#include <mutex>

#include "MVRepair/restore/mv_repair.h"
#include "common/log_site.h"
#include "meru/repair.h"

namespace {

/// The repairs that hosts hold handles of. A handle that another thread has just ended is not in it any more, so that
/// asking it is safe.
class Repairs {
 public:
  static Repairs& instance() {
    // Never destroyed: repairs may run while the process ends.
    static auto* const repairs = new Repairs;
    return *repairs;
  }

  void* add(const std::shared_ptr<MVRepair>& repair) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_repairs.emplace(repair.get(), repair);
    return repair.get();
  }

  std::shared_ptr<MVRepair> find(void* handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_repairs.find(handle);
    return found != m_repairs.end() ? found->second : nullptr;
  }

  std::shared_ptr<MVRepair> take(void* handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto node = m_repairs.extract(handle);
    return node.empty() ? nullptr : node.mapped();
  }

 private:
  std::mutex m_mutex;
  std::map<void*, std::shared_ptr<MVRepair>> m_repairs;  // guarded by m_mutex
};

MVRepair::Callback wrap(MovieRepairCallback cb, void* user) {
  if (cb == nullptr) return {};
  return [cb, user](double progress, int code, const char* msg) { cb(progress, code, msg, user); };
}

const char* text(const char* path) { return path != nullptr ? path : "(null)"; }

void log_paths(const char* broken, const char* moov, const char* output) {
  MERU_LOG(5, "broken=%s, moov=%s, output=%s", text(broken), text(moov), text(output));
}

/// For what the system refuses before a repair runs: a thread, or memory.
void report_failure(const char* text, MovieRepairCallback cb, void* user) {
  MERU_LOG(2, "the repair could not be started: %s", text);
  MVRepair::print_progress(0.0);
  if (cb != nullptr) cb(0.0, MERU_REPAIR_WRITE_FAILED, text, user);
}

}  // namespace

void* MERU_StartRepair_Async(const char* broken, const char* moov, const char* output, MovieRepairCallback cb,
                             void* user) {
  void* handle = nullptr;
  try {
    const auto repair = std::make_shared<MVRepair>();
    handle = Repairs::instance().add(repair);
    log_paths(broken, moov, output);
    repair->start_async(broken, moov, output, wrap(cb, user));
  } catch (const std::exception& e) {
    report_failure(e.what(), cb, user);
  }
  return handle;
}

bool MERU_StartRepair_sync(const char* broken, const char* moov, const char* output, MovieRepairCallback cb,
                           void* user) {
  try {
    const auto repair = std::make_shared<MVRepair>();
    log_paths(broken, moov, output);
    return repair->start_sync(broken, moov, output, wrap(cb, user));
  } catch (const std::exception& e) {
    report_failure(e.what(), cb, user);
    return false;
  }
}

void MERU_StopRepair(void** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  void* const ended = *handle;
  *handle = nullptr;
  const std::shared_ptr<MVRepair> repair = Repairs::instance().take(ended);
  if (repair == nullptr) return;
  if (repair->is_foreign()) {
    // Never destroyed: its thread is the parent's.
    (void)std::make_unique<std::shared_ptr<MVRepair>>(repair).release();
  } else {
    repair->stop();
  }
}

bool MERU_Repair_IsRunning(void* handle) {
  const std::shared_ptr<MVRepair> repair = Repairs::instance().find(handle);
  return repair != nullptr && repair->is_running();
}

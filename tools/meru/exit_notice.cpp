#include "exit_notice.h"

#include <atomic>
#include <string>

#include "console.h"
#include "control.h"

namespace meru_tool {

namespace {

std::atomic<const Diagnostics*> g_recording{nullptr};

}  // namespace

ExitNotice::ExitNotice(const Diagnostics* diagnostics) { g_recording = diagnostics; }

ExitNotice::~ExitNotice() { g_recording = nullptr; }

void ExitNotice::at_exit() {
  restore_terminal();
  const Diagnostics* diagnostics = g_recording;
  if (diagnostics == nullptr) return;
  const std::string reason = diagnostics->last_failure();
  Console::instance().error(reason.empty() ? "the library ended the recording"
                                           : "the library ended the recording: " + reason);
}

}  // namespace meru_tool

#pragma once

#include "diagnostics.h"

namespace meru_tool {

/// Some failures of the library end the process. While one of these lives, the user then still gets the one line that
/// says why. One at a time.
class ExitNotice {
 public:
  /// @param diagnostics  must never be destroyed: it is read while the process ends
  explicit ExitNotice(const Diagnostics* diagnostics);
  ~ExitNotice();
  ExitNotice(const ExitNotice&) = delete;
  ExitNotice& operator=(const ExitNotice&) = delete;

  /// To be registered with std::atexit().
  static void at_exit();
};

}  // namespace meru_tool

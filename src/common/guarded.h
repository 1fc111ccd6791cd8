#pragma once

#include <exception>

#include "common/log_site.h"

/// Does what an exported function is for. No exception leaves it: what there is no memory for is left undone, and the
/// log says so.
template <class Result, class Call>
Result guarded(Result otherwise, Call call) noexcept {
  try {
    return call();
  } catch (const std::exception& e) {
    MERU_LOG(2, "a call of the host was not carried out: %s", e.what());
  }
  return otherwise;
}

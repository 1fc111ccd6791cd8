#pragma once

#include "support/sanitized.h"

namespace meru_test {

/// What is put before the command so that its files seem to lie on a server, where a lock needs a file that is open for
/// writing and nobody is told who else writes; or where there are no locks at all.
#ifdef MERU_STRICT_LOCKS
constexpr char kStrictLocks[] = "LD_PRELOAD=" MERU_STRICT_LOCKS;
constexpr char kNoLocks[] = "MERU_NO_LOCKS=1 LD_PRELOAD=" MERU_STRICT_LOCKS;
constexpr bool kCanPreload = !kSanitized;
#else
constexpr char kStrictLocks[] = "";
constexpr char kNoLocks[] = "";
constexpr bool kCanPreload = false;
#endif
constexpr char kWhyNoPreload[] = "nothing can be loaded before a sanitizer, or in this system";

}  // namespace meru_test

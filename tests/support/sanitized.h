#pragma once

namespace meru_test {

/// Whether a sanitizer watches this build. It keeps freed memory back, so that the size of the process says nothing.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

}  // namespace meru_test

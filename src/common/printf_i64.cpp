#include "common/printf_i64.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/c_numbers.h"

namespace nuv {

namespace {
constexpr char kI64[] = "%I64d";
constexpr size_t kI64Len = sizeof(kI64) - 1;
}  // namespace

bool has_i64(const char* fmt) { return strstr(fmt, kI64) != nullptr; }

std::string expand_i64(const char* fmt) {
  std::string out(fmt);
  // "%%I64d" is a percent sign followed by text, so every conversion is stepped over whole.
  for (size_t at = out.find('%'); at != std::string::npos; at = out.find('%', at)) {
    if (out.compare(at, kI64Len, kI64) == 0) {
      out.replace(at, kI64Len, "%lld");
    }
    at += out.compare(at, 2, "%%") == 0 ? 2 : 1;
  }
  return out;
}

void print_stderr(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const CNumbers c_numbers;
  try {
    vfprintf(stderr, has_i64(fmt) ? expand_i64(fmt).c_str() : fmt, ap);
  } catch (const std::bad_alloc&) {
    // The line is lost, what it tells of goes on.
  }
  va_end(ap);
  fflush(stderr);
}

}  // namespace nuv

#pragma once

#include <cstdarg>

namespace nuv {

/// A place in the source that logs. A call writes the message in double quotes, with a line feed behind them, through
/// the process-wide logger under the tag "bg".
struct LogSite {
  const char* file;
  int line;

  /// `fmt` is checked as printf's.
  void operator()(int level, const char* fmt, ...) const
#if defined(__GNUC__)
      __attribute__((format(printf, 3, 4)))
#endif
      ;
  /// For messages with "%I64d", which the compiler's check does not know; it takes long long arguments.
  void i64(int level, const char* fmt, ...) const;

 private:
  void write(int level, const char* fmt, va_list ap) const;
};

}  // namespace nuv

/// MERU_LOG(2, "could not open %s", path);  MERU_LOG.i64(5, "pts=%I64d", pts);
#define MERU_LOG (::nuv::LogSite{__FILE__, __LINE__})

/// @file log.h
/// The library's text log. One logger serves the whole process; it exists from its first use to the end of the process.
///
/// A line looks like `1115-12:19:03[I][bg] movie_muxer.cpp 57  : "before write stop ..."`: local time, the mark of the
/// level, a tag, source file and line, and the message. A line holds at most 510 characters.
#ifndef MERU_LOG_H
#define MERU_LOG_H

#include "meru/export.h"

#ifdef __cplusplus
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>

namespace nuv {

/// Levels of a message. The library itself uses 2 (failures, starts and stops), 4 (lifecycle) and 5 (detail).
enum NuvLogLevel : int {
  LOG_NONE = 0,
  LOG_FATAL = 1,
  LOG_ERROR = 2,
  LOG_WARN = 3,
  LOG_INFO = 4,
  LOG_DEBUG = 5,
  LOG_TRACE = 6,
};

/// The process-wide logger. Thread-safe, but for `m_callback`, which is to be set before the first recording starts.
class MERU_EXPORT Logger {
 public:
  /// Receives a message: its tag, its level, source file and line, and its text, valid during the call only.
  ///
  /// Runs on whatever thread logs, on several at once, and holds that up for as long as it takes; the library may hold
  /// a lock meanwhile. It may call the functions of the log, the clock, the read-outs, MERU_pause, MERU_resume and
  /// MERU_Repair_IsRunning, on handles that no other thread is just ending. It must not start, push, stop or repair
  /// anything, wait for a thread that does, change `m_callback`, or throw. What it calls may log in turn: it has to
  /// recognise messages that come while it runs.
  using Callback = std::function<void(const char* tag, int level, const char* file, int line, const char* msg)>;

  Logger() = default;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  /// Sends the log back to stderr; never closes a stream.
  virtual ~Logger();

  /// @param p  a logger to put in place (the caller keeps owning it and it must outlive every use); null
  ///           changes nothing
  /// @return the logger in place; created (stderr, level 2, no callback) when there is none yet
  static Logger* instance(Logger* p = nullptr);

  /// Sends the log to `fp` (stderr when null). The stream stays the caller's; the earlier one is not closed.
  void redirect(FILE* fp);

  /// Writes one message, printf-style. `level` is clamped to 0..6; without a callback a level above the threshold
  /// returns at once. `%I64d` in `fmt` prints a 64-bit integer on every platform. No line feed is added.
  void write(const char* tag, int level, const char* file, int line, const char* fmt, ...);

  /// As write(), with the arguments as a list. With a callback: hands it the message alone, cut to 510 characters,
  /// whatever the level. Without: prefix and message in one line of at most 510 characters, flushed.
  void write2(const char* tag, int level, const char* file, int line, const char* fmt, va_list ap);

  /// Writes the line prefix to `dst` (at most `n` bytes, terminated) and returns `dst`.
  char* make_prefix(char* dst, int n, const char* tag, NuvLogLevel level, const char* file, int line);

  /// The local time in strftime's `fmt`, in a buffer of the calling thread that the next call overwrites.
  static const char* now(const char* fmt);

  std::atomic<FILE*> m_fp{stderr};      ///< destination, never null
  std::atomic<int> m_level{LOG_ERROR};  ///< messages up to this level are written
  Callback m_callback;                  ///< when set, receives every message instead of the stream
};

}  // namespace nuv

/// Appends the log to the file at `path`. Blanks, tabs, line breaks and double quotes around the path are dropped. With
/// a null path, or when the file cannot be opened, the log goes to stderr. The file stays open to the process's end.
MERU_API void MERU_Log_On(const char* path);
/// Sends the log to `fp`, or to stderr when it is null. The stream stays the caller's.
MERU_API void MERU_Log_On2(FILE* fp);
/// Sets the threshold: 2 = failures and a few lines of each start and stop (the default), 4 = and lifecycle, 5 = and
/// detail; negative = nothing.
MERU_API void MERU_Log_Level(int level);
/// Sends the log to stdout. Neither closes a log file nor changes the level.
MERU_API void MERU_Log_Off();

#else

#include <stdio.h>

MERU_API void MERU_Log_On(const char* path);
MERU_API void MERU_Log_On2(FILE* fp);
MERU_API void MERU_Log_Level(int level);
MERU_API void MERU_Log_Off(void);

#endif

#endif

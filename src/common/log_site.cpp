#include "common/log_site.h"

#include <new>
#include <string>

#include "meru/log.h"

namespace nuv {

void LogSite::write(int level, const char* fmt, va_list ap) const {
  Logger* logger = Logger::instance();
  // Most messages are below the threshold: they must cost nothing on the per-packet path.
  if (!logger->m_callback && level > logger->m_level.load(std::memory_order_relaxed)) return;
  try {
    logger->write2("bg", level, file, line, ("\"" + std::string(fmt) + "\"\n").c_str(), ap);
  } catch (const std::bad_alloc&) {
    // The message is lost. What it tells of must go on: a writing thread, the end of a recording.
  }
}

void LogSite::operator()(int level, const char* fmt, ...) const {
  va_list ap;
  va_start(ap, fmt);
  write(level, fmt, ap);
  va_end(ap);
}

void LogSite::i64(int level, const char* fmt, ...) const {
  va_list ap;
  va_start(ap, fmt);
  write(level, fmt, ap);
  va_end(ap);
}

}  // namespace nuv

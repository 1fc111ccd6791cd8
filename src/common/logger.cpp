#include <algorithm>
#include <cstring>
#include <ctime>

#include "common/c_numbers.h"
#include "common/guarded.h"
#include "common/printf_i64.h"
#include "common/trim.h"
#include "meru/log.h"

namespace nuv {

namespace {

constexpr char CLevel[] = "-FEWID= ";
constexpr int LogMaxLineLen = 512;
constexpr int kPrefixSize = 128;

int clamp_level(int level) { return std::clamp<int>(level, LOG_NONE, LOG_TRACE); }

void format(char* dst, int size, const char* fmt, va_list ap) {
  const CNumbers c_numbers;
  try {
    vsnprintf(dst, static_cast<size_t>(size), has_i64(fmt) ? expand_i64(fmt).c_str() : fmt, ap);
  } catch (const std::bad_alloc&) {
    dst[0] = '\0';  // a message is not worth an exception in a host
  }
}

const char* base_name(const char* file) {
  const char* base = file;
  for (const char* p = file; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace

Logger::~Logger() { redirect(stderr); }

Logger* Logger::instance(Logger* p) {
  // Never destroyed: threads of the library may still log while the process ends.
  static std::atomic<Logger*> inst{nullptr};
  if (p != nullptr) inst = p;
  Logger* current = inst;
  if (current != nullptr) return current;
  static Logger* const own = new Logger;
  return inst.compare_exchange_strong(current, own) ? own : current;
}

void Logger::redirect(FILE* fp) { m_fp = fp != nullptr ? fp : stderr; }

void Logger::write(const char* tag, int level, const char* file, int line, const char* fmt, ...) {
  level = clamp_level(level);
  if (!m_callback && level > m_level) return;
  va_list ap;
  va_start(ap, fmt);
  write2(tag, level, file, line, fmt, ap);
  va_end(ap);
}

void Logger::write2(const char* tag, int level, const char* file, int line, const char* fmt, va_list ap) {
  level = clamp_level(level);
  if (file == nullptr) file = "";
  char line_buf[LogMaxLineLen];
  if (m_callback) {
    format(line_buf, LogMaxLineLen - 1, fmt, ap);
    m_callback(tag, level, file, line, line_buf);
    return;
  }
  if (level > m_level) return;
  make_prefix(line_buf, kPrefixSize, tag, static_cast<NuvLogLevel>(level), file, line);
  const int prefix_len = static_cast<int>(strlen(line_buf));
  format(line_buf + prefix_len, LogMaxLineLen - prefix_len - 1, fmt, ap);
  FILE* fp = m_fp;
  fputs(line_buf, fp);
  fflush(fp);
}

char* Logger::make_prefix(char* dst, int n, const char* tag, NuvLogLevel level, const char* file, int line) {
  snprintf(dst, static_cast<size_t>(n), "%s[%c][%s] %s %-4d: ", now("%m%d-%H:%M:%S"),
           CLevel[clamp_level(static_cast<int>(level))], tag, base_name(file), line);
  return dst;
}

const char* Logger::now(const char* fmt) {
  // One buffer for each thread, so that two threads that log at once do not see each other's time.
  thread_local char s_buff[64];
  const time_t seconds = time(nullptr);
  tm local{};
  localtime_r(&seconds, &local);
  if (strftime(s_buff, sizeof(s_buff) - 1, fmt, &local) == 0) s_buff[0] = '\0';
  return s_buff;
}

}  // namespace nuv

void MERU_Log_On(const char* path) {
  const auto open = [path] { return fopen(nuv::str::trim_path(path).c_str(), "a+e"); };
  nuv::Logger::instance()->redirect(path != nullptr ? guarded<FILE*>(nullptr, open) : nullptr);
}

void MERU_Log_On2(FILE* fp) { nuv::Logger::instance()->redirect(fp); }

void MERU_Log_Level(int level) { nuv::Logger::instance()->m_level = level; }

void MERU_Log_Off() { nuv::Logger::instance()->redirect(stdout); }

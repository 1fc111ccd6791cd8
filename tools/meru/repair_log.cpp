#include "repair_log.h"

#include <cstdio>
#include <cstring>

#include "meru/log.h"

namespace meru_tool {

namespace {

// How the lines begin that tell of a record that could not be restored.
constexpr const char* kDamage[] = {"===> stream.idx=", "读取packet数据",        "@@ moov",
                                   "no packet can ",   "no record can be read", "no memory for a packet"};

bool begins_with(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

bool tells_damage(const std::string& message) {
  for (const char* start : kDamage) {
    if (begins_with(message, start)) return true;
  }
  return false;
}

/// The message without its quotes and line feed.
std::string inner(const char* msg) {
  std::string text(msg);
  while (!text.empty() && (text.back() == '\n' || text.back() == '"')) text.pop_back();
  return begins_with(text, "\"") ? text.substr(1) : text;
}

}  // namespace

RepairLog::RepairLog(bool verbose) {
  const int threshold = verbose ? nuv::LOG_INFO : nuv::LOG_ERROR;
  nuv::Logger::instance()->m_callback = [this, threshold](const char*, int level, const char*, int, const char* msg) {
    if (level <= threshold) std::fputs(msg, stderr);
    take(level, inner(msg));
  };
}

RepairLog::~RepairLog() { nuv::Logger::instance()->m_callback = nullptr; }

void RepairLog::take(int level, const std::string& message) {
  // Text of a fixed form from the library itself: what cannot be read leaves the figures as they are.
  std::sscanf(message.c_str(), "restored: packets=%lld, bytes=%lld, duration=%lf", &m_packets,  // NOLINT(cert-err34-c)
              &m_bytes, &m_duration);
  if (begins_with(message, ">> 执行完成")) {
    const char* total = std::strstr(message.c_str(), "共");
    if (total != nullptr) std::sscanf(total, "共%d行", &m_ignored_lines);  // NOLINT(cert-err34-c)
    return;
  }
  if (tells_damage(message)) ++m_damaged_lines;
  if (level <= nuv::LOG_ERROR) m_last_failure = message;
}

}  // namespace meru_tool

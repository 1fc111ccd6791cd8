#include "common/trim.h"

#include <cstring>

namespace nuv::str {

std::string trim2(const char* s, const char* chars) {
  const size_t length = strlen(s);
  if (length == 0 || chars == nullptr || *chars == '\0') return s;

  size_t end = length;
  while (end > 1 && strchr(chars, s[end - 1]) != nullptr) --end;
  size_t begin = 0;
  while (begin < end && strchr(chars, s[begin]) != nullptr) ++begin;
  return std::string(s + begin, end - begin);
}

std::string trim_path(const char* path) { return trim2(path, "\"\b\t\n\r "); }

}  // namespace nuv::str

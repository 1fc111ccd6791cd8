#pragma once

#include <fstream>
#include <stdexcept>
#include <string>

namespace meru_test {

/// How much memory this process has, in KiB.
inline long resident_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  throw std::runtime_error("the system does not say");
}

}  // namespace meru_test

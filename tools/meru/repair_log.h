#pragma once

#include <string>

namespace meru_tool {

/// Takes the library's log and finds the figures of a repair in it, which the library tells nowhere else. What it takes
/// goes on to standard error. One at a time, made before the repair and read after it.
class RepairLog {
 public:
  /// @param verbose  whether the course of events goes on to standard error as well, not the failures alone
  explicit RepairLog(bool verbose);
  ~RepairLog();
  RepairLog(const RepairLog&) = delete;
  RepairLog& operator=(const RepairLog&) = delete;

  long long packets() const { return m_packets; }
  long long bytes() const { return m_bytes; }
  double duration() const { return m_duration; }
  int ignored_lines() const { return m_ignored_lines; }
  int damaged_lines() const { return m_damaged_lines; }
  /// The last failure of the library, empty when there was none.
  const std::string& last_failure() const { return m_last_failure; }

 private:
  void take(int level, const std::string& message);

  long long m_packets = 0, m_bytes = 0;
  double m_duration = 0;
  int m_ignored_lines = 0, m_damaged_lines = 0;
  std::string m_last_failure;
};

}  // namespace meru_tool

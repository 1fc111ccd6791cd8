#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace meru_tool {

/// Tells what happens: in lines for a person, or as JSON for a program. From any thread.
class ScreenEvents {
 public:
  using Json = nlohmann::ordered_json;

  explicit ScreenEvents(bool json) : m_json(json) {}

  bool json() const { return m_json; }
  /// @param seconds  of the movie
  /// @param more     further members of the JSON object
  /// @param line     for a person; empty for nothing
  void tell(const char* event, double seconds, const Json& more, const std::string& line) const;

 private:
  bool m_json;
};

}  // namespace meru_tool

#pragma once

namespace meru_tool {

/// What a number that was typed may be.
struct Limit {
  const char* option;
  double value, low, high;

  /// Throws a UsageError that names the option when the value lies outside.
  void check() const;
};

}  // namespace meru_tool

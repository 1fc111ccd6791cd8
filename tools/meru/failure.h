#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

namespace meru_tool {

/// Why the command cannot go on, in one line for the user.
class Failure : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A mistake in the command line itself.
class UsageError : public Failure {
  using Failure::Failure;
};

inline std::string error_text(int error) { return std::generic_category().message(error); }

}  // namespace meru_tool

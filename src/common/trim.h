#pragma once

#include <string>

namespace nuv::str {

/// Removes the characters of `chars` from both ends of `s`, which must not be null. The first character is only looked
/// at from the front, so a text made of such characters alone still comes out empty.
std::string trim2(const char* s, const char* chars);

/// A path without the white space and double quotes that a host may have around it. `path` must not be null.
std::string trim_path(const char* path);

}  // namespace nuv::str

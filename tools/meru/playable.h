#pragma once

#include <string>

namespace meru_tool {

/// Plays the beginning of a movie. @return why it cannot be played, empty when pictures come out, or sound of a movie
/// without pictures
std::string why_not_playable(const std::string& path);

}  // namespace meru_tool

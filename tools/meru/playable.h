#pragma once

#include <string>

namespace meru_tool {

/// Whether a file has what a player needs to begin with: an MP4 or MOV file that was cut short has not.
bool can_be_opened(const std::string& path);

/// Plays the beginning of a movie. @return why it cannot be played, empty when pictures come out, or sound of a movie
/// without pictures
std::string why_not_playable(const std::string& path);

}  // namespace meru_tool

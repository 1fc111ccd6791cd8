#pragma once

#include "screen/screen_options.h"

namespace meru_tool {

/// Runs `meru screen`. Throws a Failure when there is no complete movie. @return the exit status
int record_screen(const CLI::App& cmd, ScreenOptions options);

}  // namespace meru_tool

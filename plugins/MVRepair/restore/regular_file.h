#pragma once

#include <string>

#include "common/ffmpeg_handles.h"

/// Opens a file as fopen does, but nothing else that has a path: opening a pipe would wait for its other end, and a
/// folder can be opened, but not read. @return null when it cannot be
FilePtr open_regular_file(const std::string& path, const char* mode);

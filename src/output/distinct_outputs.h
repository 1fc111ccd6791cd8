#pragma once

#include <string>

namespace MR {

/// Looks for two outputs of a session, its side index included, that are one file. Nothing is opened.
/// @param snapshot_path  empty: no side index
/// @param other_urls     four additional outputs; ends at the first null
/// @return a sentence that names them; empty when all are different files
std::string shared_file(const char* url, const char* snapshot_path, const char* const* other_urls);

}  // namespace MR

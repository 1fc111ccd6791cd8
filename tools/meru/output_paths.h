#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "failure.h"

namespace meru_tool {

bool is_network(const std::string& url);
/// Whether an output is a file; it may have the name of that protocol before its path.
bool is_file(const std::string& url);
/// What was typed, without "file:" at its front.
std::string without_protocol(const std::string& typed);
/// The path of such an output: unmistakable(), without the name of the protocol.
std::string file_path(const std::string& typed);
/// A path of which FFmpeg takes no beginning for a protocol, as it would of "file:a.mp4" or "12:30.mp4".
std::string unmistakable(const std::string& path);
/// Whether both paths lead to one file.
bool same_file(const std::string& a, const std::string& b);
/// Refuses a path that cannot be written: a missing folder, a folder itself, no permission.
void check_writable(const std::string& what, const std::string& path);
/// Refuses outputs that are files and cannot be written, are a source, or are given twice. Empty paths are none given.
void check_output_files(const std::string& output, const std::string& index, const std::vector<std::string>& also,
                        const std::vector<std::string>& sources);

/// Copies a text into a field of the record, which must hold its end as well.
template <size_t N>
void put(char (&field)[N], const std::string& option, const std::string& text) {
  if (text.size() >= N) throw UsageError(option + ": longer than " + std::to_string(N - 1) + " bytes");
  std::memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace meru_tool

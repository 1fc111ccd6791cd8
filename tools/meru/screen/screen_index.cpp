#include "screen/screen_index.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <utility>

#include "failure.h"
#include "output_paths.h"
#include "screen/left_behind.h"

namespace meru_tool {

namespace {

/// Whether what was written of such a file plays by itself.
bool plays_when_cut(const std::string& movie) {
  std::string extension = std::filesystem::path(movie).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  for (const char* playable : {".mkv", ".webm", ".flv", ".avi", ".ts", ".mts", ".m2ts", ".mpg", ".mpeg", ".nut"}) {
    if (extension == playable) return true;
  }
  return false;
}

bool exists(const std::string& path) {
  std::error_code error;
  return !path.empty() && std::filesystem::exists(path, error);
}

}  // namespace

std::string ScreenIndex::path_for(const ScreenOptions& options) {
  if (options.no_index || !options.index.empty() || is_network(options.output)) return options.index;
  return plays_when_cut(options.output) ? "" : options.output + kIndexSuffix;
}

ScreenIndex::ScreenIndex(const std::string& movie, std::string path) : m_path(std::move(path)) {
  if (is_network(movie)) return;
  const std::string folder = std::filesystem::path(movie).parent_path().string();
  recover_left_behind(folder);
  for (const std::string& index : {m_path, movie + kIndexSuffix}) {
    if (!exists(index) || !exists(movie)) continue;
    std::string text = movie;
    text.append(" is being recorded, or was cut short and is not repaired: its index is ").append(index);
    throw Failure(text.append("; record into another file, or move both away"));
  }
}

ScreenIndex::~ScreenIndex() {
  // Before the lock ends, so that nobody takes the index for one that was left behind.
  if (m_lock && !m_left) unlink(m_path.c_str());
}

void ScreenIndex::hold() {
  if (!m_path.empty()) m_lock = IndexLock::to_record(m_path);
}

}  // namespace meru_tool

#include "screen/screen_files.h"

#include <filesystem>
#include <utility>

#include "output_paths.h"
#include "screen/left_behind.h"

namespace meru_tool {

std::string ScreenFiles::index_for(const ScreenOptions& options) {
  if (options.no_index || !options.index.empty() || !is_file(options.output)) return options.index;
  return plays_when_cut(options.output) ? "" : options.output + kIndexSuffix;
}

ScreenFiles::ScreenFiles(const ScreenOptions& options) : m_index(options.index) {
  if (is_file(options.output)) {
    recover_left_behind(std::filesystem::path(options.output).parent_path().string());
    m_movies.emplace_back(options.output);
  }
  for (const std::string& url : options.also) {
    if (is_file(url)) m_movies.emplace_back(url);
  }
  for (const MovieGuard& movie : m_movies) movie.check();
  if (!m_index.empty()) check_free_index(m_index);
}

ScreenFiles::~ScreenFiles() {
  // Before the lock ends, so that nobody takes the index for one that was left behind.
  if (m_index_lock && !m_index_kept) m_index_lock->remove();
}

void ScreenFiles::hold() {
  for (MovieGuard& movie : m_movies) movie.hold();
  if (!m_index.empty()) hold_index();
}

void ScreenFiles::hold_index() {
  FileLock lock = FileLock::to_record("the index " + m_index, m_index, FileLock::Links::kRefuse);
  if (!lock.made()) check_free_index(m_index);
  m_index_lock = std::move(lock);
}

void ScreenFiles::discard_movies() const {
  for (const MovieGuard& movie : m_movies) movie.discard();
}

}  // namespace meru_tool

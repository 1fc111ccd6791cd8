#include "screen/movie_guard.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <utility>

#include "failure.h"
#include "playable.h"
#include "screen/left_behind.h"

namespace meru_tool {

namespace {

constexpr char kOrAnother[] = ", or record into another file";

/// A device or a pipe keeps nothing that could be needed.
bool is_special(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode);
}

/// @param index  not empty
std::string in_the_way(const std::string& index) {
  const std::string movie = movie_of_index(index);
  const std::string folder = std::filesystem::path(index).parent_path().string();
  const std::string how = movie.empty() ? "meru repair" : "meru recover " + (folder.empty() ? "." : folder);
  return "the index " + index + " is not empty: " + (movie.empty() ? "its movie" : movie) +
         " is being recorded, or was cut short. Repair it (" + how + ") or remove the index" + kOrAnother;
}

}  // namespace

bool plays_when_cut(const std::string& movie) {
  std::string extension = std::filesystem::path(movie).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  for (const char* playable : {".mkv", ".webm", ".flv", ".avi", ".ts", ".mts", ".m2ts", ".mpg", ".mpeg", ".nut"}) {
    if (extension == playable) return true;
  }
  return false;
}

void check_free_index(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return;
  if (!S_ISREG(st.st_mode)) throw Failure("cannot write the index " + path + ": it is not a regular file");
  if (st.st_size > 0) throw Failure(in_the_way(path));
  if (st.st_uid != geteuid()) throw Failure("cannot write the index " + path + ": it belongs to somebody else");
}

MovieGuard::MovieGuard(std::string movie) : m_movie(std::move(movie)) {}

MovieGuard::MovieGuard(MovieGuard&& other) noexcept
    : m_movie(std::move(other.m_movie)), m_lock(std::exchange(other.m_lock, std::nullopt)), m_before(other.m_before) {}

MovieGuard::~MovieGuard() {
  // A container that spreads over several files writes nothing into the one that has its name.
  if (m_lock && m_lock->made() && m_lock->state().st_size == 0) m_lock->remove();
}

void MovieGuard::check() const {
  if (is_special(m_movie)) return;
  if (is_being_written(m_movie)) throw Failure(m_movie + " is being recorded: record into another file");
  check_index();
}

void MovieGuard::hold() {
  check();
  if (is_special(m_movie)) return;
  m_lock = FileLock::to_record(m_movie, m_movie, FileLock::Links::kFollow);
  m_before = m_lock->state();
  check_whole();
  // Who had the movie until now may have been killed since the index was looked for.
  check_index();
}

void MovieGuard::check_index() const {
  struct stat st {};
  const std::string index = m_movie + kIndexSuffix;
  if (stat(index.c_str(), &st) == 0 && st.st_size > 0) throw Failure(in_the_way(index));
}

/// An index of another name may belong to a movie without its table, or one that has served already.
void MovieGuard::check_whole() const {
  if (m_before.st_size == 0 || plays_when_cut(m_movie) || can_be_opened(m_movie)) return;
  const std::string repaired = repaired_movie_of(m_movie);
  if (repaired.empty()) {
    throw Failure(m_movie +
                  " cannot be opened: it may be a movie that was cut short. Repair it from its index (meru "
                  "repair) or remove it" +
                  kOrAnother);
  }
  throw Failure(m_movie + " was cut short and is kept: what was saved of it is in " + repaired + ". Remove " + m_movie +
                " to record into it again" + kOrAnother);
}

void MovieGuard::discard() const {
  if (!m_lock) return;
  const struct stat now = m_lock->state();
  const bool overwritten = now.st_size != m_before.st_size || now.st_mtim.tv_sec != m_before.st_mtim.tv_sec ||
                           now.st_mtim.tv_nsec != m_before.st_mtim.tv_nsec;
  if (m_lock->made() || overwritten) m_lock->remove();
}

}  // namespace meru_tool

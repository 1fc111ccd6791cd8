#include "screen/left_behind.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

#include "byte_source.h"
#include "console.h"
#include "diagnostics.h"
#include "failure.h"
#include "output_paths.h"
#include "playable.h"
#include "screen/file_lock.h"

namespace meru_tool {

namespace {

namespace fs = std::filesystem;

/// How the name of an index goes on that is not to be found again.
constexpr char kServed[] = ".done";

/// The indexes of a folder, by name.
std::vector<fs::path> indexes_in(const std::string& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator at(folder, error); !error && at != fs::directory_iterator(); at.increment(error)) {
    std::error_code gone;
    if (!movie_of_index(at->path().string()).empty() && at->is_regular_file(gone))
      found.push_back(at->path().lexically_normal());
  }
  if (error) throw Failure("cannot look into " + folder + ": " + error.message());
  std::sort(found.begin(), found.end());
  return found;
}

/// A name with a number in it, from the second one on.
std::string numbered(const std::string& before_number, int number, const std::string& behind) {
  return before_number + (number > 1 ? "-" + std::to_string(number) : "") + behind;
}

/// What the repaired movie is called before its number.
std::string repaired_stem(const fs::path& movie) { return (movie.parent_path() / movie.stem()).string() + ".repaired"; }

/// Makes an empty file that nobody else has: of this name, or with a number when that is taken.
std::string reserve(const std::string& before_number, const std::string& behind) {
  for (int number = 1;; ++number) {
    std::string path = numbered(before_number, number, behind);
    const Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.get() >= 0) return path;
    if (errno != EEXIST) throw Failure("cannot write " + path + ": " + error_text(errno));
  }
}

bool is_empty_or_missing(const fs::path& path) {
  std::error_code error;
  const bool exists = fs::exists(path, error);
  return !error && (!exists || fs::file_size(path, error) == 0) && !error;
}

/// One index and its movie.
class Recovery {
 public:
  Recovery(const fs::path& index, const RecoverTalk& talk)
      : m_index(unmistakable(index.string())), m_movie(movie_of_index(index.string())), m_talk(talk) {}

  /// @return an exit status. Throws a Failure when the movie cannot be repaired
  int run() const {
    const std::optional<FileLock> lock = FileLock::to_repair(m_index);
    if (!lock.has_value() || is_being_written(m_movie)) {
      if (m_talk.tell_of_used) m_talk.say("left alone: " + m_index + " is in use");
      return EXIT_SUCCESS;
    }
    m_talk.say("found " + m_index + ": the recording of " + m_movie + " did not come to its end");
    if (is_empty_or_missing(m_index) && is_empty_or_missing(m_movie)) {
      fs::remove(m_index);
      m_talk.say("nothing was recorded: removed the empty index");
      return EXIT_SUCCESS;
    }
    if (!fs::exists(m_movie)) throw Failure("cannot repair from " + m_index + ": " + m_movie + " is not there");
    return repair_or_keep();
  }

 private:
  int repair_or_keep() const {
    check_readable_name(m_movie);
    if (why_not_playable(m_movie).empty()) {
      m_talk.say("nothing to repair: " + m_movie + " plays as it is");
      put_index_aside();
      return EXIT_SUCCESS;
    }
    const fs::path movie(m_movie);
    const std::string output = reserve(repaired_stem(movie), movie.extension().string());
    const RepairResult result = run_repair({m_movie, m_index, output}, m_talk.show);
    if (result.exit_code != EXIT_SUCCESS) {
      unlink(output.c_str());  // the movie and its index are still there
      m_talk.complain("cannot repair " + m_movie + ": " + (result.stopped ? "stopped" : result.failure));
      return result.exit_code;
    }
    m_talk.say(result.summary() + "  " + output);
    if (const std::string lacks = result.left_out(); !lacks.empty()) m_talk.say(lacks);
    put_index_aside();
    return EXIT_SUCCESS;
  }

  /// It is kept, as the movie is: what a repair of today leaves out, another may bring back.
  void put_index_aside() const {
    const std::string aside = reserve(m_index + kServed, "");
    fs::rename(m_index, aside);
    m_talk.say("the index is now " + aside);
  }

  const std::string m_index, m_movie;
  const RecoverTalk& m_talk;
};

/// As Recovery::run(), but what it throws is told.
int recover_one(const fs::path& index, const RecoverTalk& talk) {
  try {
    return Recovery(index, talk).run();
  } catch (const Failure& e) {
    talk.complain(e.what());
  } catch (const fs::filesystem_error& e) {
    talk.complain(e.what());
  }
  return EXIT_FAILURE;
}

/// Gives standard output and standard error back what they lead to.
class KeptOutputs {
 public:
  KeptOutputs() : m_out(kept(STDOUT_FILENO)), m_err(kept(STDERR_FILENO)) {}
  ~KeptOutputs() {
    // What is still in the buffers belongs where they lead to now.
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(m_out.get(), STDOUT_FILENO);
    dup2(m_err.get(), STDERR_FILENO);
  }
  KeptOutputs(const KeptOutputs&) = delete;
  KeptOutputs& operator=(const KeptOutputs&) = delete;

 private:
  static Fd kept(int fd) { return Fd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)); }

  Fd m_out, m_err;
};

}  // namespace

std::string movie_of_index(const std::string& index) {
  constexpr size_t kLength = sizeof(kIndexSuffix) - 1;
  const std::string name = fs::path(index).filename().string();
  if (name.size() <= kLength || name.compare(name.size() - kLength, kLength, kIndexSuffix) != 0) return {};
  return unmistakable(index.substr(0, index.size() - kLength));
}

std::string repaired_movie_of(const std::string& movie) {
  std::error_code error;
  if (!fs::exists(movie + kIndexSuffix + kServed, error)) return {};
  std::string last;
  for (int number = 1;; ++number) {
    const std::string path = numbered(repaired_stem(movie), number, fs::path(movie).extension().string());
    if (!fs::exists(path, error)) return last;
    last = path;
  }
}

RecoverResult recover_folder(const std::string& folder, const RecoverTalk& talk) {
  RecoverResult result;
  for (const fs::path& index : indexes_in(folder)) {
    ++result.found;
    const int status = recover_one(index, talk);
    if (status != EXIT_SUCCESS) result.exit_code = status;
    if (status > EXIT_FAILURE) break;  // the user has had enough
  }
  return result;
}

void recover_left_behind(const std::string& folder) {
  const auto tell = [](const std::string& text) { Console::instance().error(text); };
  RecoverResult result;
  try {
    const KeptOutputs kept;
    const Diagnostics diagnostics("", false);
    result = recover_folder(folder.empty() ? "." : folder, {tell, tell, {false, false}, false});
  } catch (const Failure& e) {
    tell(e.what());
  }
  if (result.exit_code > EXIT_FAILURE) throw Failure("stopped while a movie was repaired");
}

}  // namespace meru_tool

#include "screen/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "failure.h"

namespace meru_tool {

namespace {

enum class Locked { kYes, kElsewhere, kUnknown };

Locked lock(const Fd& fd) {
  if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return Locked::kYes;
  return errno == EWOULDBLOCK ? Locked::kElsewhere : Locked::kUnknown;
}

/// Whether the path itself, not what it may be a link to, is the file that was opened.
bool is_at(const std::string& path, const Fd& fd, bool follow) {
  struct stat named {};
  struct stat opened {};
  const int found = follow ? stat(path.c_str(), &named) : lstat(path.c_str(), &named);
  return found == 0 && fstat(fd.get(), &opened) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

#ifdef F_SETLEASE

/// A lease to read is not given while a file is open for writing. This one lasts for a moment, and who opens the file
/// in it waits that long.
bool has_writer(const Fd& fd) {
  fcntl(fd.get(), F_SETSIG, SIGURG);  // what tells of such a one: by itself it ends no process
  if (fcntl(fd.get(), F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
  fcntl(fd.get(), F_SETLEASE, F_UNLCK);
  return false;
}

#else

bool has_writer(const Fd&) { return false; }

#endif

/// Where locks travel to a server, only who may write gets one: so what is locked is opened for writing.
constexpr int kToLock = O_WRONLY | O_NOCTTY | O_CLOEXEC;

/// @return -1 with errno when there is no such file and none can be made
Fd open_or_make(const std::string& path, bool follow, bool* made) {
  const int flags = kToLock | (follow ? 0 : O_NOFOLLOW);
  Fd fd(open(path.c_str(), flags));
  if (fd.get() >= 0 || errno != ENOENT) return fd;
  fd = Fd(open(path.c_str(), flags | O_CREAT | O_EXCL, 0666));
  *made = fd.get() >= 0;
  // A link to where nothing is yet, or somebody was faster.
  if (!*made && errno == EEXIST) fd = Fd(open(path.c_str(), flags | O_CREAT, 0666));
  return fd;
}

void check_kind(const std::string& what, const struct stat& st) {
  if (!S_ISREG(st.st_mode)) throw Failure("cannot write " + what + ": it is not a regular file");
}

[[noreturn]] void throw_in_use(const std::string& what) {
  throw Failure(what + " is in use: it is being recorded or repaired");
}

}  // namespace

FileLock FileLock::to_record(const std::string& what, const std::string& path, Links links) {
  const bool follow = links == Links::kFollow;
  for (;;) {
    struct stat st {};
    // Asked before it is opened, which waits where it is a pipe.
    if ((follow ? stat(path.c_str(), &st) : lstat(path.c_str(), &st)) == 0) check_kind(what, st);
    if (is_being_written(path)) throw_in_use(what);
    bool made = false;
    Fd fd = open_or_make(path, follow, &made);
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) throw Failure("cannot write " + what + ": " + error_text(errno));
    check_kind(what, st);
    if (lock(fd) == Locked::kElsewhere) throw_in_use(what);
    // Who held it until now may have removed it.
    if (is_at(path, fd, follow)) return {path, std::move(fd), made};
  }
}

std::optional<FileLock> FileLock::to_repair(const std::string& path) {
  Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0 && errno == ENOENT) return std::nullopt;
  if (fd.get() < 0) throw Failure("cannot read the index " + path + ": " + error_text(errno));
  if (has_writer(fd)) return std::nullopt;
  Locked locked = lock(fd);
  if (locked == Locked::kUnknown) {
    if (Fd writable(open(path.c_str(), kToLock)); writable.get() >= 0) fd = std::move(writable);
    locked = lock(fd);
  }
  if (locked == Locked::kUnknown) {
    throw Failure("cannot tell whether the index " + path + " is in use: " + error_text(errno) +
                  "; when it is not, `meru repair` repairs its movie");
  }
  if (locked == Locked::kElsewhere || !is_at(path, fd, true)) return std::nullopt;
  return FileLock(path, std::move(fd), false);
}

struct stat FileLock::state() const {
  struct stat st {};
  fstat(m_fd.get(), &st);
  return st;
}

void FileLock::remove() const {
  if (is_at(m_path, m_fd, false)) unlink(m_path.c_str());
}

bool is_being_written(const std::string& path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return fd.get() >= 0 && has_writer(fd);
}

}  // namespace meru_tool

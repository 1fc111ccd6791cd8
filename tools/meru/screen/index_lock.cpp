#include "screen/index_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>

#include "failure.h"

namespace meru_tool {

namespace {

/// @return false when somebody else has it
bool lock(const Fd& fd) { return flock(fd.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

/// Whether the path still leads to the file that was opened.
bool leads_to(const std::string& path, const Fd& fd) {
  struct stat named {};
  struct stat opened {};
  return stat(path.c_str(), &named) == 0 && fstat(fd.get(), &opened) == 0 && named.st_ino == opened.st_ino &&
         named.st_dev == opened.st_dev;
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

}  // namespace

IndexLock IndexLock::to_record(const std::string& path) {
  for (;;) {
    Fd fd(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666));
    if (fd.get() < 0) throw Failure("cannot write the index " + path + ": " + error_text(errno));
    if (!lock(fd)) throw Failure("the index " + path + " is in use: it is being recorded or repaired");
    // Who held it until now may have removed it.
    if (leads_to(path, fd)) return IndexLock(std::move(fd));
  }
}

std::optional<IndexLock> IndexLock::to_repair(const std::string& path) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0 && errno == ENOENT) return std::nullopt;
  if (fd.get() < 0) throw Failure("cannot read the index " + path + ": " + error_text(errno));
  if (!lock(fd) || !leads_to(path, fd) || has_writer(fd)) return std::nullopt;
  return IndexLock(std::move(fd));
}

bool is_being_written(const std::string& path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return fd.get() >= 0 && has_writer(fd);
}

}  // namespace meru_tool

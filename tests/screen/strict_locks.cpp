// Stands in front of the C library as a file system on a server does: a lock needs a file that is open for writing, and
// nobody is told who else writes. With MERU_NO_LOCKS in the environment it has no locks at all.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace {

using Fcntl = int (*)(int, int, void*);
using Flock = int (*)(int, int);

int pass_on(int fd, int command, void* argument) {
  static const auto real = reinterpret_cast<Fcntl>(dlsym(RTLD_NEXT, "fcntl"));
  return real(fd, command, argument);
}

}  // namespace

extern "C" int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command != F_SETLEASE) return pass_on(fd, command, argument);
  errno = EINVAL;
  return -1;
}

extern "C" int flock(int fd, int operation) noexcept {
  static const auto real = reinterpret_cast<Flock>(dlsym(RTLD_NEXT, "flock"));
  const bool none = std::getenv("MERU_NO_LOCKS") != nullptr;
  const bool writable = (pass_on(fd, F_GETFL, nullptr) & O_ACCMODE) != O_RDONLY;
  if (!none && writable) return real(fd, operation);
  errno = none ? ENOLCK : EBADF;
  return -1;
}

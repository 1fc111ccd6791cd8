#include "byte_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "failure.h"

namespace meru_tool {

namespace {

constexpr int kPipeBytes = 1 << 20;

int open_source(const std::string& path) {
  // Without O_NONBLOCK a named pipe would hold the command up, out of reach of a signal, until somebody writes to it.
  const int fd =
      path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3) : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) throw Failure("cannot read " + path + ": " + error_text(errno));
  return fd;
}

}  // namespace

Fd::~Fd() {
  if (m_fd >= 0) close(m_fd);
}

Fd& Fd::operator=(Fd&& other) noexcept {
  std::swap(m_fd, other.m_fd);
  return *this;
}

int Fd::release() { return std::exchange(m_fd, -1); }

ByteSource::ByteSource(const std::string& path)
    : m_name(path == "-" ? "standard input" : path), m_fd(open_source(path)) {
  struct stat st {};
  if (fstat(m_fd.get(), &st) != 0) throw Failure("cannot read " + m_name + ": " + error_text(errno));
  if (S_ISDIR(st.st_mode)) throw Failure("cannot read " + m_name + ": it is a folder");
  m_regular = S_ISREG(st.st_mode);
  if (m_regular) {
    const off_t at = lseek(m_fd.get(), 0, SEEK_CUR);
    if (at > 0) m_position = at;
    return;
  }
  int wake[2];
  if (pipe(wake) != 0) throw Failure("cannot make a pipe: " + error_text(errno));
  m_wake_read = Fd(wake[0]);
  m_wake_write = Fd(wake[1]);
  for (const int fd : wake) fcntl(fd, F_SETFD, FD_CLOEXEC);
#ifdef F_SETPIPE_SZ
  // An image is megabytes, and a pipe holds 64 KiB unless told otherwise. Refused for what is not a pipe.
  if (S_ISFIFO(st.st_mode)) fcntl(m_fd.get(), F_SETPIPE_SZ, kPipeBytes);
#endif
}

off_t ByteSource::file_size() const {
  struct stat st {};
  return m_regular && fstat(m_fd.get(), &st) == 0 ? st.st_size : -1;
}

void ByteSource::stop() {
  // The byte is never read, so that every later wait ends as well.
  const char byte = 0;
  if (m_wake_write.get() >= 0 && write(m_wake_write.get(), &byte, 1) < 0) return;
}

bool ByteSource::stopped() const {
  if (m_regular) return false;
  pollfd wake{m_wake_read.get(), POLLIN, 0};
  return poll(&wake, 1, 0) > 0;
}

bool ByteSource::wait_for_bytes() {
  pollfd fds[2] = {{m_fd.get(), POLLIN, 0}, {m_wake_read.get(), POLLIN, 0}};
  while (poll(fds, 2, -1) < 0) {
    if (errno == EINTR) continue;
    m_error = error_text(errno);
    return false;
  }
  return fds[1].revents == 0;
}

size_t ByteSource::read(void* to, size_t size) {
  size_t done = 0;
  while (done < size && m_error.empty()) {
    if (!m_regular && !wait_for_bytes()) break;
    const ssize_t n = ::read(m_fd.get(), static_cast<char*>(to) + done, size - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0) {
      break;
    } else if (errno != EINTR && errno != EAGAIN) {
      m_error = error_text(errno);
    }
  }
  m_position += static_cast<off_t>(done);
  return done;
}

bool ByteSource::read_line(std::string* line, size_t max_length) {
  // Byte by byte: only headers are read so, and what follows one must stay in the pipe for the images.
  line->clear();
  char c = 0;
  while (line->size() <= max_length && read(&c, 1) == 1) {
    if (c == '\n') return true;
    line->push_back(c);
  }
  return false;
}

}  // namespace meru_tool

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace meru_tool {

/// A descriptor that is closed with its owner.
class Fd {
 public:
  explicit Fd(int fd = -1) : m_fd(fd) {}
  ~Fd();
  Fd(Fd&& other) noexcept : m_fd(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return m_fd; }
  int release();

 private:
  int m_fd;
};

/// The bytes of a file, a pipe or standard input, in order. A read that waits for a pipe ends when stop() is called.
class ByteSource {
 public:
  /// @param path  "-" for standard input. Throws a Failure when it cannot be opened.
  explicit ByteSource(const std::string& path);

  /// Reads `size` bytes. @return how many there were: less at the end, after stop() or after an error
  size_t read(void* to, size_t size);
  /// Reads up to and with the next line feed, which is dropped. @return false at the end or for a longer line
  bool read_line(std::string* line, size_t max_length);

  void stop();
  bool stopped() const;
  /// What a failed read was told, empty when there was none.
  const std::string& error() const { return m_error; }
  /// The source as messages call it.
  const std::string& name() const { return m_name; }
  /// Size of a regular file, -1 for anything else.
  off_t file_size() const;
  off_t position() const { return m_position; }
  int descriptor() const { return m_fd.get(); }

 private:
  bool wait_for_bytes();

  std::string m_name;
  Fd m_fd;
  Fd m_wake_read, m_wake_write;  // a byte in this pipe ends a wait for ever
  bool m_regular = false;
  off_t m_position = 0;
  std::string m_error;
};

}  // namespace meru_tool

#include "stalling_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace meru_bench {

StallingReader::StallingReader(std::string path) : m_path(std::move(path)) {
  if (mkfifo(m_path.c_str(), 0600) != 0) throw std::runtime_error("cannot make the pipe " + m_path);
  // Both ends at once: neither waits for the other.
  m_keeper = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
  m_pipe = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (m_keeper < 0 || m_pipe < 0) throw std::runtime_error("cannot open the pipe " + m_path);
  m_thread = std::thread(&StallingReader::run, this);
}

StallingReader::~StallingReader() {
  stall(false);
  close(m_keeper);  // the last writer: the reader finds the end
  m_thread.join();
  close(m_pipe);
}

void StallingReader::stall(bool stalled) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_stalled = stalled;
  m_changed.notify_one();
}

void StallingReader::run() {
  std::array<char, 65536> buffer;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(lock, [&] { return !m_stalled; });
    }
    const ssize_t count = read(m_pipe, buffer.data(), buffer.size());
    if (count <= 0) return;
    m_bytes += count;
  }
}

}  // namespace meru_bench

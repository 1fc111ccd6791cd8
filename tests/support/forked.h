#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "support/eventually.h"

namespace meru_test {

/// An object that this process and those that it forks see.
template <class T>
class Shared {
 public:
  Shared() : m_memory(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (m_memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    reset();
  }
  ~Shared() { munmap(m_memory, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  void reset() { new (m_memory) T(); }
  T* get() const { return static_cast<T*>(m_memory); }
  T* operator->() const { return get(); }
  T& operator*() const { return *get(); }

 private:
  void* m_memory;
};

/// How a process ended.
struct ProcessEnd {
  bool hung = false;
  int signal = 0;  ///< that killed it
  int status = 0;  ///< that it ended with
};

/// Does something in a copy of this process, which must have no other threads, and ends it there with status 0. Its
/// standard output and error go to the file `log`.
inline ProcessEnd run_forked(const std::function<void()>& work, const std::string& log) {
  std::fflush(nullptr);  // else both processes write what is pending
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("no process");
  if (pid == 0) {
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    work();
    std::exit(0);
  }
  int status = 0;
  ProcessEnd end;
  end.hung = !eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
  if (end.hung) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  if (WIFEXITED(status)) end.status = WEXITSTATUS(status);
  return end;
}

}  // namespace meru_test

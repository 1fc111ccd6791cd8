#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/eventually.h"

namespace meru_test {

/// A port of 127.0.0.1 that the system gives to nobody else as long as this lives. A server that allows the reuse of
/// addresses can listen on it; while none does, connections are refused.
class ReservedPort {
 public:
  ReservedPort() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int reuse = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (m_socket < 0 || setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0 ||
        bind(m_socket, generic, length) != 0 || getsockname(m_socket, generic, &length) != 0) {
      throw std::runtime_error("no free port");
    }
    m_port = ntohs(address.sin_port);
  }
  ~ReservedPort() { close(m_socket); }
  ReservedPort(const ReservedPort&) = delete;
  ReservedPort& operator=(const ReservedPort&) = delete;

  unsigned number() const { return m_port; }
  std::string text() const { return std::to_string(m_port); }
  /// Whether a server listens on it. Tells without connecting, which a server of a single stream would take for one.
  bool has_listener() const {
    constexpr unsigned kListening = 10;
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
      unsigned port = 0, state = 0;
      if (std::sscanf(line.c_str(), " %*d: %*8x:%4x %*8x:%*4x %2x", &port, &state) != 2) continue;
      if (port == m_port && state == kListening) return true;
    }
    return false;
  }

 private:
  int m_socket;
  unsigned m_port = 0;
};

/// A server in a process of its own, without a shell in between. It ends with the thread that starts it, at the latest.
class ServerProcess {
 public:
  /// @param output  path of a file that takes what the server says
  ServerProcess(std::vector<std::string> arguments, const std::string& output) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("no process");
    // The library's threads may hold any lock: from here to exec the child makes plain system calls only.
    if (m_pid == 0) run(argv.data(), output.c_str(), parent);
  }
  ~ServerProcess() { kill(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  /// Kills it and waits until it has gone.
  void kill() {
    send(SIGKILL);
    wait(0);
  }
  /// Asks it to end, as it would when the system goes down, and waits until it has gone.
  void end() {
    send(SIGTERM);
    if (!ends()) kill();
  }
  /// Stops it where it is, and waits until it stands still.
  void suspend() {
    send(SIGSTOP);
    wait(WUNTRACED);
  }
  void resume() { send(SIGCONT); }
  /// Whether it has gone, by itself or killed.
  bool has_ended() {
    wait(WNOHANG);
    return m_pid < 0;
  }
  bool ends() {
    return eventually([&] { return has_ended(); });
  }
  bool has_open(const std::string& path) {
    std::error_code error;
    const std::filesystem::path wanted = std::filesystem::canonical(path, error);
    if (error || has_ended()) return false;
    std::filesystem::directory_iterator fd("/proc/" + std::to_string(m_pid) + "/fd", error);
    for (; !error && fd != std::filesystem::directory_iterator(); fd.increment(error)) {
      std::error_code closed_meanwhile;
      if (std::filesystem::read_symlink(fd->path(), closed_meanwhile) == wanted) return true;
    }
    return false;
  }

 private:
  /// The number is looked at once: -1 would reach every process of the machine.
  void send(int signal_number) const {
    if (const pid_t pid = m_pid; pid > 0) ::kill(pid, signal_number);
  }
  /// Forgets the process when it has gone; from then on its number may be another's.
  void wait(int options) {
    const pid_t pid = m_pid;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, options) == pid && !WIFSTOPPED(status)) m_pid = -1;
  }
  [[noreturn]] static void run(char* const* argv, const char* output, pid_t parent) {
    constexpr int kMostFds = 1024;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const int nothing = open("/dev/null", O_RDONLY);
    const int log = open(output, O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(nothing, STDIN_FILENO);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    // A server must not keep the test's files and connections open.
    for (int fd = STDERR_FILENO + 1; fd < kMostFds; ++fd) close(fd);
    execvp(argv[0], argv);
    _exit(127);
  }

  pid_t m_pid = -1;
};

}  // namespace meru_test

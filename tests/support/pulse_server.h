#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/eventually.h"
#include "support/run_command.h"
#include "support/server_process.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

namespace meru_test {

/// A sound server of the test's own, with sinks that play to nobody. This process, and those it starts from then on,
/// have no other server; nothing of the user's is read or written.
class PulseServer {
 public:
  explicit PulseServer(const std::vector<std::string>& sinks = {"speaker"}) {
    only_server(path("native"), m_folder.path());
    std::vector<std::string> arguments = {
        "env", "-u", "PULSE_SERVER", "-u", "DISPLAY", "-u", "DBUS_SESSION_BUS_ADDRESS"};
    for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH"}) {
      arguments.push_back(name + ("=" + m_folder.path()));
    }
    for (const char* argument : {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                 "--disable-shm=yes", "--high-priority=no", "--realtime=no", "--log-target=stderr"}) {
      arguments.emplace_back(argument);
    }
    for (const std::string& sink : sinks) add_module(&arguments, "module-null-sink sink_name=" + sink);
    add_module(&arguments, "module-native-protocol-unix auth-anonymous=1 socket=" + path("native"));
    m_process = std::make_unique<ServerProcess>(arguments, path("said.txt"));
    const bool settled = eventually([&] { return listens() || m_process->has_ended(); });
    if (!settled || m_process->has_ended()) {
      throw std::runtime_error("pulseaudio does not listen: " + run_command("cat " + path("said.txt")).output);
    }
  }

  /// Makes the server at that socket the only one for this process, be there one or not.
  static void only_server(const std::string& socket_path, const std::string& folder) {
    setenv("PULSE_SERVER", ("unix:" + socket_path).c_str(), 1);
    setenv("PULSE_COOKIE", (folder + "/cookie").c_str(), 1);
    for (const char* name : {"PULSE_RUNTIME_PATH", "XDG_CONFIG_HOME"}) setenv(name, folder.c_str(), 1);
  }

  void kill() { m_process->kill(); }
  /// Stops it where it is: it takes connections and does not answer.
  void suspend() { m_process->suspend(); }
  void resume() { m_process->resume(); }
  /// Lets a program of the server's do something: "suspend-sink speaker 1".
  void command(const std::string& text) const {
    const CommandResult result = run_command("pactl " + text);
    if (result.status != 0) throw std::runtime_error("pactl " + text + ": " + result.output);
  }

 private:
  static void add_module(std::vector<std::string>* arguments, const std::string& module) {
    arguments->emplace_back("-L");
    arguments->push_back(module);
  }
  std::string path(const std::string& name) const { return m_folder.file(name); }
  bool listens() const {
    const Socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path("native").c_str(), sizeof(address.sun_path) - 1);
    return connect(made.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

  TempDir m_folder;
  std::unique_ptr<ServerProcess> m_process;
};

}  // namespace meru_test

#pragma once

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/eventually.h"
#include "support/run_command.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace meru_test {

/// An X server without a monitor, on a display number that nobody else has.
class XDisplay {
 public:
  /// @param screen  size and depth
  explicit XDisplay(const std::string& screen = "320x240x24")
      : m_server({"Xvfb", "-displayfd", "1", "-screen", "0", screen, "-nolisten", "tcp", "-noreset"}, log()) {
    if (!eventually([&] { return has_number() || m_server.has_ended(); }) || m_name.empty()) {
      throw std::runtime_error("no X server: " + run_command("cat " + quoted(log())).output);
    }
  }
  ~XDisplay() {
    m_server.resume();
    end();
  }
  XDisplay(const XDisplay&) = delete;
  XDisplay& operator=(const XDisplay&) = delete;

  /// ":7"
  const std::string& name() const { return m_name; }
  /// The option of the command.
  std::string option() const { return "--display " + m_name + " "; }
  /// What is put before a command of the shell that is to show something, or to look.
  std::string environment() const { return "DISPLAY=" + m_name + " "; }
  /// The server goes; its clients lose their connections.
  void end() { m_server.end(); }
  /// The server stops answering, and goes on.
  void suspend() { m_server.suspend(); }
  void resume() { m_server.resume(); }

  /// Gives the screen another, smaller size. Throws when it does not get it.
  void resize(int width, int height) const {
    const std::string w = std::to_string(width), h = std::to_string(height);
    const std::string xrandr = environment() + "xrandr ";
    // A mode is made of where its lines and its columns end; without a monitor only their number counts.
    const std::string lines = w + " " + w + " " + w + " " + w + " " + h + " " + h + " " + h + " " + h;
    const std::string said =
        run_command(xrandr + "--newmode small 10 " + lines + "; " + xrandr + "--addmode screen small; " + xrandr +
                    "--output screen --mode small; " + xrandr)
            .output;
    if (said.find("current " + w + " x " + h) == std::string::npos) throw std::runtime_error("xrandr: " + said);
  }

  /// The picture on the screen as another program takes it, in BGRA. @param options  of ffmpeg's x11grab
  std::string grabbed(const std::string& options = "-draw_mouse 0") const {
    const std::string file = m_dir.file("grabbed");
    const CommandResult result = run_command("ffmpeg -nostdin -v error -y -f x11grab " + options + " -i " + m_name +
                                             " -frames:v 1 -pix_fmt bgra -f rawvideo " + quoted(file));
    if (result.status != 0) throw std::runtime_error("x11grab: " + result.output);
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  std::string log() const { return m_dir.file("x.log"); }

  /// The server writes its number on a line of its own, once clients can come.
  bool has_number() {
    std::ifstream in(log());
    for (std::string line; std::getline(in, line) && !in.eof();) {
      if (line.empty() || line.find_first_not_of("0123456789") != std::string::npos) continue;
      m_name = ":" + line;
      return true;
    }
    return false;
  }

  TempDir m_dir;
  std::string m_name;
  ServerProcess m_server;
};

/// A program on the screen. Its own window is the only one, so it needs no manager of windows.
class XProgram {
 public:
  XProgram(const XDisplay& display, std::vector<std::string> arguments)
      : m_server(with_display(display, std::move(arguments)), m_dir.file("log")) {}

  /// Waits until it has said this.
  bool says(const std::string& text) {
    return eventually([&] {
      std::ifstream in(m_dir.file("log"));
      const std::string said{std::istreambuf_iterator<char>(in), {}};
      return said.find(text) != std::string::npos;
    });
  }

 private:
  static std::vector<std::string> with_display(const XDisplay& display, std::vector<std::string> arguments) {
    std::vector<std::string> whole = {"env", "DISPLAY=" + display.name()};
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    return whole;
  }

  TempDir m_dir;
  ServerProcess m_server;
};

}  // namespace meru_test

#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/eventually.h"
#include "support/run_command.h"
#include "support/server_process.h"

namespace meru_test {

/// nginx with its RTMP module on a free port of 127.0.0.1, that records every stream whole.
class RtmpServer {
 public:
  /// @param folder  exists, and takes the configuration, the logs and the recordings
  explicit RtmpServer(const std::string& folder) : m_folder(folder + "/rtmp" + m_port.text()) {
    std::filesystem::create_directories(m_folder + "/recorded");
    std::ofstream(m_folder + "/nginx.conf") << configuration();
    m_process = std::make_unique<ServerProcess>(std::vector<std::string>{program(), "-p", m_folder, "-c", "nginx.conf"},
                                                output());
    const bool settled = eventually([&] { return m_port.has_listener() || m_process->has_ended(); });
    if (!settled || m_process->has_ended()) throw std::runtime_error("nginx does not listen: " + said());
  }
  RtmpServer(const RtmpServer&) = delete;
  RtmpServer& operator=(const RtmpServer&) = delete;

  std::string url(const std::string& key) const { return address("live", key); }
  /// An application that rejects every stream name.
  std::string refusing_url(const std::string& key) const { return address("refusing", key); }
  /// Path of the recording, complete once the server has seen the publisher go.
  std::string recorded(const std::string& key) const { return m_folder + "/recorded/" + key + ".flv"; }
  /// Waits until the recording is complete.
  bool has_recorded(const std::string& key) {
    return eventually([&] { return std::filesystem::exists(recorded(key)) && !m_process->has_open(recorded(key)); });
  }
  /// Waits until somebody publishes.
  bool has_publisher(const std::string& key) {
    return eventually([&] { return m_process->has_open(recorded(key)); });
  }

  /// From then on the port refuses connections. What is recorded so far stays.
  void kill() { m_process->kill(); }
  void suspend() { m_process->suspend(); }
  void resume() { m_process->resume(); }

 private:
  std::string address(const std::string& application, const std::string& key) const {
    return "rtmp://127.0.0.1:" + m_port.text() + "/" + application + "/" + key;
  }
  std::string output() const { return m_folder + "/said.txt"; }
  std::string said() const {
    std::ifstream in(output());
    return {std::istreambuf_iterator<char>(in), {}};
  }
  /// An ordinary user's search path often lacks the folder that it is installed to.
  static std::string program() {
    const char* const usual = "/usr/sbin/nginx";
    return access(usual, X_OK) == 0 ? usual : "nginx";
  }
  static std::string modules() {
    const std::string option = "--modules-path=";
    const std::string told = run_command(program() + " -V").output;
    const size_t at = told.find(option);
    if (at == std::string::npos) throw std::runtime_error("no nginx with loadable modules: " + told);
    const size_t begin = at + option.size();
    return told.substr(begin, told.find_first_of(" \n", begin) - begin);
  }
  /// One process, so that a signal reaches all of the server. The largest message has to take a picture of noise.
  /// No receipts: one that meets a publisher which has just gone makes the system drop what the server has yet to read.
  std::string configuration() const {
    std::string text = R"(load_module MODULES/ngx_rtmp_module.so;
USER
daemon off;
master_process off;
pid nginx.pid;
error_log error.log info;
events { worker_connections 64; }
rtmp {
  access_log off;
  server {
    listen 127.0.0.1:RTMP_PORT;
    max_message 64M;
    ack_window 1000000000;
    application live { live on; record all; record_path "FOLDER/recorded"; record_suffix .flv; }
    application refusing { live on; on_publish http://127.0.0.1:HTTP_PORT/; }
  }
}
http {
  access_log off;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  server { listen 127.0.0.1:HTTP_PORT; return 403; }
}
)";
    const std::pair<const char*, std::string> values[] = {{"MODULES", modules()},
                                                          {"USER", geteuid() == 0 ? "user root;" : ""},
                                                          {"RTMP_PORT", m_port.text()},
                                                          {"HTTP_PORT", m_http_port.text()},
                                                          {"FOLDER", m_folder}};
    for (const auto& [name, value] : values) text = std::regex_replace(text, std::regex(name), value);
    return text;
  }

  ReservedPort m_port, m_http_port;
  std::string m_folder;
  std::unique_ptr<ServerProcess> m_process;
};

}  // namespace meru_test

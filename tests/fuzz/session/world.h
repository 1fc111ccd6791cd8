#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fuzz/session/dice.h"
#include "support/full_backlog.h"
#include "support/local_listener.h"
#include "support/misbehaving_server.h"
#include "support/temp_dir.h"

namespace session_fuzz {

/// What all rounds share: the containers, and servers that fail in every way.
class World {
 public:
  World();
  /// File name extensions of the containers that FFmpeg can write with encoders that there are.
  const std::vector<std::string>& extensions() const { return m_extensions; }
  std::string bad_address(Dice* dice) const;

 private:
  std::vector<std::string> m_extensions;
  std::vector<std::unique_ptr<meru_test::MisbehavingServer>> m_servers;
  std::vector<int> m_ports;
  std::unique_ptr<meru_test::FullBacklog> m_full;
  std::unique_ptr<meru_test::SilentServer> m_silent;
};

/// Whether a recording of these settings can have a sound track: the process ends where its encoder refuses them.
bool sound_encoder_opens(const std::string& url, int sample_rate, int kbit, bool with_live_output);

/// The folder of one thread, with paths of all kinds.
class Folder {
 public:
  Folder();
  /// For the main output, with an extension that chooses the container.
  std::string movie(Dice* dice, const std::string& extension);
  /// Another name of `path`: a symbolic link, a detour, or the same.
  std::string alias(Dice* dice, const std::string& path);
  /// A path that cannot be written, or not as a file.
  std::string bad_path(Dice* dice);
  std::string index(Dice* dice) { return m_dir.file("index" + std::to_string(dice->below(3))); }
  std::string file(const std::string& name) const { return m_dir.file(name); }
  /// A name that no other session gets.
  std::string unique(const std::string& extension) {
    return m_dir.file("once" + std::to_string(m_unique++) + "." + extension);
  }
  void note_movie(const std::string& movie, const std::string& index) { m_last = {movie, index}; }
  const std::pair<std::string, std::string>& last_movie() const { return m_last; }

 private:
  meru_test::TempDir m_dir{meru_test::TempDir::fast_parent()};
  std::pair<std::string, std::string> m_last;
  int m_unique = 0;
};

/// What a thread works with in one round.
struct Worker {
  World* world;
  Folder* folder;
  Dice dice;
};

void record(Worker* worker);
void record_packets(Worker* worker);
void repair(Worker* worker);
void use_log(Worker* worker);

/// What a session told its host; kept to the end of the program.
struct Told {
  std::atomic<void*> stop_from_inside{nullptr};  ///< the session, once it is known, if a callback is to stop it
  std::atomic<bool> stopped{false};
  std::atomic<int> successes{0};
  std::atomic<int> failures{0};
  std::shared_ptr<void> keep;  ///< what a session that is stopped from inside may still read
  bool packets = false;
  static void callback(int code, const char* text, void* user);
};
Told* new_told();

/// Sessions that record raw media and have been started, and those whose books have come.
void count_start();
int open_sessions();

}  // namespace session_fuzz

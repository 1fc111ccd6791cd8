#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "meru/raw_packets.h"
#include "meru/session.h"
#include "outputs.h"
#include "pace.h"
#include "packet_source.h"
#include "progress.h"
#include "remux_command.h"

namespace meru_tool {

/// One run of `meru remux`: a session of the library, fed with packets from two threads.
class Remuxer {
 public:
  Remuxer(const RemuxOptions& options, const Outputs* outputs);
  ~Remuxer();
  Remuxer(const Remuxer&) = delete;
  Remuxer& operator=(const Remuxer&) = delete;

  /// Remuxes to the end. Throws a Failure when the movie could not be completed.
  void run();
  /// Ends soon; what was read until then makes the movie. From any thread.
  void stop();

 private:
  struct Track {
    std::unique_ptr<PacketSource> source;
    Pace::Track track = Pace::kVideo;
    std::atomic<int64_t> packets{0};
    std::atomic<int64_t> time_usec{0};  // how far it has got
  };

  void open_sources();
  void open_source(Track* track, PacketSource::Kind kind, const std::string& path, bool elementary);
  void make_info();
  static void on_status(int code, const char* text, void* user);
  void push_all(Track* track);
  bool push_next(Track* track);
  void push(const Track& track, const PacketSource::Packet& packet);
  void note_failure(std::string text);
  std::string failure() const;
  Figures figures() const;

  const RemuxOptions& m_options;
  const Outputs* m_outputs;
  Track m_video, m_audio;
  int64_t m_start_usec = INT64_MAX;  // where the movie begins in its file
  MovieInfo2 m_info;
  Pace m_pace;
  void* m_session = nullptr;
  mutable std::mutex m_mutex;
  std::string m_failure;  // guarded by m_mutex: the first one
};

}  // namespace meru_tool

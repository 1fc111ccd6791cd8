#pragma once

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/probe.h"

namespace meru_test {

/// One kind of recording that is killed.
struct KilledCase {
  const char* name;
  const char* extension;
  const char* arguments;
  int fps;  ///< 0: sound alone
  bool sound;
};

/// How far a recording had got by its own last line of progress.
struct HandedOver {
  double seconds = 0;
  long long frames = 0;
};

inline HandedOver last_progress(const std::string& text) {
  HandedOver handed;
  std::istringstream lines(text.substr(0, text.rfind('\n') + 1));  // the last one may be half a line
  for (std::string line; std::getline(lines, line);) {
    int hours = 0;
    int minutes = 0;
    double seconds = 0;
    long long frames = 0;
    const int read = std::sscanf(line.c_str(), "%d:%d:%lf %lld frames", &hours, &minutes, &seconds, &frames);
    if (read >= 3) handed = {hours * 3600 + minutes * 60 + seconds, read == 4 ? frames : 0};
  }
  return handed;
}

/// The hash of each decoded picture, in order.
inline std::vector<std::string> picture_hashes(const std::string& movie) {
  std::vector<std::string> hashes;
  std::istringstream lines(decoded(movie, "-map 0:v -f framemd5"));
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != '#') hashes.push_back(line.substr(line.rfind(',') + 1));
  }
  return hashes;
}

/// Records, kills the recorder with SIGKILL at a random moment, repairs, and looks at what came out.
class KilledRecording {
 public:
  explicit KilledRecording(const KilledCase& kind) : m_kind(kind) {}

  std::string movie() const { return m_folder.file(name("killed")); }
  std::string index() const { return m_folder.file("killed.index"); }
  std::string repaired() const { return m_folder.file(name("repaired")); }

  /// The same material, recorded to an end.
  std::string undisturbed(int seconds) const {
    const ToolRun run = m_folder.record(m_kind.arguments + std::string(" --seconds ") + std::to_string(seconds) +
                                        " -o " + name("whole"));
    if (run.status != 0) throw std::runtime_error("recording: " + run.err);
    return m_folder.file(name("whole"));
  }

  /// @param after  how long it records from the moment on at which half a second was handed over
  void record_and_kill(std::chrono::milliseconds after) {
    for (const std::string& path : {movie(), index(), repaired(), m_folder.file("out.txt")})
      std::filesystem::remove(path);
    ToolProcess process(m_folder, m_kind.arguments + std::string(" --realtime --progress 5 -o ") + name("killed") +
                                      " --index killed.index");
    const bool begun = eventually([&] { return last_progress(process.out()).seconds >= 0.5; });
    if (!begun) throw std::runtime_error("the recording did not begin: " + process.err());
    // Not to wait for anything: the moment of the kill is to be any.
    std::this_thread::sleep_for(after);
    process.send(SIGKILL);
    if (process.wait() != 128 + SIGKILL) throw std::runtime_error("the recording was not killed");
    m_handed = last_progress(process.out());
  }

  HandedOver handed() const { return m_handed; }

  ToolRun repair() const {
    return m_folder.run("repair killed" + extension() + " killed.index repaired" + extension());
  }

  /// The seconds of what was handed over that the repaired movie lacks, in the track that lacks most.
  double loss() const {
    double loss = 0;
    if (m_kind.fps > 0) {
      const auto restored = static_cast<double>(probe_packets(repaired(), "v:0").size());
      loss = (static_cast<double>(m_handed.frames) - restored) / m_kind.fps;
    }
    if (m_kind.sound) {
      const std::vector<ProbedPacket> packets = probe_packets(repaired(), "a:0");
      const double end = packets.empty() ? 0 : packets.back().pts + packets.back().duration;
      loss = std::max(loss, m_handed.seconds - end);
    }
    return loss;
  }

  /// The first packet of the repaired movie whose bytes are not those of the killed one at the place that its index
  /// names; empty when there is none.
  std::string differing_packet() const {
    const std::string broken = read_file(movie());
    const std::string whole = read_file(repaired());
    std::string text = read_file(index());
    text.resize(text.rfind(';') + 1);  // a record under way when the process ended
    std::map<int, std::vector<IndexReader::Packet>> indexed;
    for (const auto& packet : IndexReader(text).packets()) indexed[packet.stream].push_back(packet);
    for (const auto& [stream, packets] : indexed) {
      const auto probed = probe_packets(repaired(), std::to_string(stream));
      if (probed.size() != packets.size()) return "stream " + std::to_string(stream) + " has another number of packets";
      for (size_t i = 0; i < packets.size(); ++i) {
        const auto size = static_cast<size_t>(packets[i].size);
        const bool same =
            probed[i].size == packets[i].size && whole.compare(static_cast<size_t>(probed[i].pos), size, broken,
                                                               static_cast<size_t>(packets[i].pos), size) == 0;
        if (!same) return "packet " + std::to_string(i) + " of stream " + std::to_string(stream);
      }
    }
    return {};
  }

 private:
  std::string extension() const { return std::string(".") + m_kind.extension; }
  std::string name(const std::string& stem) const { return stem + extension(); }

  const KilledCase& m_kind;
  ToolFolder m_folder;
  HandedOver m_handed;
};

}  // namespace meru_test

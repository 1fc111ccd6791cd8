#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "meru/repair.h"
#include "support/cut_recording.h"
#include "support/repair_host.h"
#include "support/sanitized.h"

namespace meru_test {

/// Sends standard output and standard error away as long as it lives.
class Silence {
 public:
  Silence() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (size_t i = 0; i < 2; ++i) {
      fflush(i == 0 ? stdout : stderr);
      m_saved[i] = dup(static_cast<int>(i) + 1);
      dup2(nowhere, static_cast<int>(i) + 1);
    }
    close(nowhere);
  }
  ~Silence() {
    for (size_t i = 0; i < 2; ++i) {
      fflush(i == 0 ? stdout : stderr);
      dup2(m_saved[i], static_cast<int>(i) + 1);
      close(m_saved[i]);
    }
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int m_saved[2] = {-1, -1};
};

/// A number of KiB that the system keeps of this process.
inline long memory_kib(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != name + ":") continue;
    long kib = -1;
    status >> kib;
    return kib;
  }
  return -1;
}
/// The most memory this process ever had.
inline long peak_memory_kib() { return memory_kib("VmHWM"); }
/// The address space it has.
inline long virtual_memory_kib() { return memory_kib("VmSize"); }

/// How a repair of damaged files ended.
struct Outcome {
  int code = 0;         ///< 0, or the one failure that was reported
  size_t packets = 0;   ///< in the new movie, which was looked through
  std::string problem;  ///< what must never be; empty otherwise
};

/// Damages a recording of three seconds in all ways, and repairs it.
class DamageTest : public testing::Test {
 protected:
  static constexpr CutRecording::Kind kKind{"mp4", "mp4", false, false};
  static constexpr long kMemoryKib = 64 * 1024;

  void SetUp() override {
    movie_bytes = file_text(recording.broken);
    index_bytes = file_text(recording.index);
    ASSERT_GT(movie_bytes.size(), 100U << 10);
    packets = IndexReader(index_bytes).packets();
    ASSERT_GT(packets.size(), 200U);
    body_at = index_bytes.size() - IndexReader(index_bytes).body().size();
    m_memory_before = peak_memory_kib();
  }
  void TearDown() override {
    if (!kSanitized) {
      EXPECT_LT(peak_memory_kib() - m_memory_before, kMemoryKib);
    }
  }

  std::string header() const { return index_bytes.substr(0, body_at); }
  std::string body() const { return index_bytes.substr(body_at); }

  Outcome repair_files(const std::string& movie, const std::string& index) const {
    std::remove(recording.output.c_str());
    RepairLog log;
    bool done = false;
    {
      const Silence silence;
      done = MERU_StartRepair_sync(movie.c_str(), index.c_str(), recording.output.c_str(), RepairLog::callback, &log);
    }
    return judged(done, log);
  }
  Outcome repair(const std::string& movie, const std::string& index) const {
    write_file(recording.file("damaged.mp4"), movie);
    return repair_index(recording.file("damaged.mp4"), index);
  }
  Outcome repair_index(const std::string& movie_path, const std::string& index) const {
    write_file(recording.file("damaged.idx"), index);
    return repair_files(movie_path, recording.file("damaged.idx"));
  }
  Outcome repair_index(const std::string& index) const { return repair_index(recording.broken, index); }

  /// How many records a movie of this length still holds.
  size_t packets_within(size_t length) const {
    size_t count = 0;
    while (count < packets.size() && static_cast<size_t>(packets[count].pos + packets[count].size) <= length) ++count;
    return count;
  }

  CutRecording recording{kKind, 75, 320, 240};
  std::string movie_bytes, index_bytes;
  std::vector<IndexReader::Packet> packets;
  size_t body_at = 0;

 private:
  /// A repair either reports one failure that the header file names, and says so, or leaves a finished movie behind.
  Outcome judged(bool done, RepairLog& log) const {
    Outcome outcome;
    const auto reports = log.entries();
    if (reports.empty()) return {0, 0, "no report"};
    for (const auto& report : reports) {
      if (report.progress < 0.0 || report.progress > 1.0) outcome.problem = "progress";
      if (report.code == 0) continue;
      if (outcome.code != 0 || &report != &reports.back()) outcome.problem = "a report behind a failure";
      outcome.code = report.code;
      if (report.code != MERU_REPAIR_NO_MOVIE && report.code != MERU_REPAIR_NO_INDEX &&
          report.code != MERU_REPAIR_WRITE_FAILED) {
        outcome.problem = "code";
      }
    }
    if (done != (outcome.code == 0)) outcome.problem = "result and reports differ";
    if (done) look_through(&outcome);
    return outcome;
  }
  void look_through(Outcome* outcome) const {
    try {
      const std::string bytes = file_text(recording.output);
      outcome->packets = Mp4Movie(bytes).samples().size();
    } catch (const std::exception& e) {
      outcome->problem = e.what();
    }
  }

  long m_memory_before = 0;
};

}  // namespace meru_test

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "meru/export.h"

/// Bookkeeping: nothing is lost in silence. Whatever a session takes is either passed on or dropped for a reason.
namespace MR {

/// Why something that was taken was not passed on.
enum class Drop {
  kNotStarted,    ///< the start was not confirmed, or the session was being stopped
  kPaused,        ///< the recording was paused
  kDisabled,      ///< the record has no such track
  kRefused,       ///< not what the record announces
  kTimestamp,     ///< the timestamp does not rise, or comes too late
  kFilter,        ///< the host's filter returned no frame
  kEncoder,       ///< the encoder failed on it, or never returned it
  kDamaged,       ///< nothing that can be recorded was found in it
  kOverlap,       ///< audio that starts before the end of the audio so far
  kLeftOver,      ///< less than the encoder takes, at the end
  kFailedOutput,  ///< the output has failed, or was never opened
  kQueueAborted,  ///< it was still queued when the session ended
  kMemory,        ///< out of memory
  kCount
};

/// @return the reason as a log prints it
MERU_EXPORT const char* drop_text(Drop reason);
/// One line in the log, if it is the first drop for that reason: "WHAT dropped (REASON): WHY; others are only counted".
void report_drop(const char* what, Drop reason, bool first, const char* why);

/// One account: taken = passed + dropped. The unit (frames, samples, bytes, packets) is that of whoever counts. Any
/// thread.
class Ledger {
 public:
  void take(int64_t count = 1) { m_taken.fetch_add(count, std::memory_order_relaxed); }
  void pass(int64_t count = 1) { m_passed.fetch_add(count, std::memory_order_relaxed); }
  /// @return whether this is the first drop for that reason
  bool drop(Drop reason, int64_t count = 1) { return of(reason).fetch_add(count, std::memory_order_relaxed) == 0; }
  /// Counts as dropped what was counted as passed before, such as frames that an encoder took and never returned.
  bool take_back(Drop reason, int64_t count);

  int64_t taken() const { return m_taken; }
  int64_t passed() const { return m_passed; }
  int64_t dropped(Drop reason) const { return m_dropped[static_cast<size_t>(reason)]; }
  int64_t dropped() const { return std::accumulate(m_dropped.begin(), m_dropped.end(), int64_t{0}); }
  bool balances() const { return taken() == passed() + dropped(); }

 private:
  std::atomic<int64_t>& of(Drop reason) { return m_dropped[static_cast<size_t>(reason)]; }

  std::atomic<int64_t> m_taken{0};
  std::atomic<int64_t> m_passed{0};
  std::array<std::atomic<int64_t>, static_cast<size_t>(Drop::kCount)> m_dropped{};
};

/// Takes `count` and drops it again, for memory, unless it was settled: for calls that may throw.
class Taken {
 public:
  Taken(Ledger* ledger, int64_t count) : m_ledger(ledger), m_count(count) { m_ledger->take(count); }
  ~Taken() {
    if (!m_settled) m_ledger->drop(Drop::kMemory, m_count);
  }
  Taken(const Taken&) = delete;
  Taken& operator=(const Taken&) = delete;

  void pass() {
    m_settled = true;
    m_ledger->pass(m_count);
  }
  /// @return whether this is the first drop for that reason
  bool drop(Drop reason) {
    m_settled = true;
    return m_ledger->drop(reason, m_count);
  }
  /// Somebody else passes or drops it.
  void settled() { m_settled = true; }

 private:
  Ledger* m_ledger;
  int64_t m_count;
  bool m_settled = false;
};

/// The accounts of one output: packets handed over = written + dropped, by stream.
struct OutputBooks {
  static constexpr size_t kStreams = 8;
  std::array<Ledger, kStreams> streams;
  std::array<int, kStreams> kinds{};  ///< AVMediaType of each stream, once the header is written
  size_t stream_count = 0;            ///< 0 as long as the header is not written
  std::string url;                    ///< as the host gave it; empty as long as the header is not written
  std::atomic<bool> complete{false};  ///< the trailer is written
  Ledger& of(int stream) { return streams.at(static_cast<size_t>(stream)); }
};

/// The accounts of a session that encodes.
struct CaptureBooks {
  Ledger video_frames;              ///< pushed = encoded + dropped
  Ledger source_samples;            ///< per channel, at the host's rate: pushed = converted + dropped
  Ledger encoder_samples;           ///< at the encoder's rate: resampled and silence = encoded + dropped
  std::atomic<int64_t> silence{0};  ///< of the encoder's samples: how many were made, not pushed
};

/// The books of a session that has ended.
struct SessionReport {
  bool encodes;  ///< the session records raw media
  struct Account {
    const char* name;
    const Ledger* ledger;
  };
  std::vector<Account> accounts;
  std::vector<const OutputBooks*> outputs;  ///< the main output first
};

/// Called at the end of every session, on the thread that ends it. The report is valid during the call.
using BooksObserver = void (*)(const SessionReport& report);

/// For tests: leaves no released library. Null removes the observer.
MERU_EXPORT void observe_books(BooksObserver observer);
void publish_books(const SessionReport& report);
/// @return whether anybody wants the report
bool books_are_observed();

}  // namespace MR

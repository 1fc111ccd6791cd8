#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fault/fault_shim.h"
#include "support/books_check.h"
#include "support/forked.h"
#include "support/meru_tool.h"
#include "support/probe.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {

inline void PrintTo(Fault fault, std::ostream* out) {
  static constexpr const char* kNames[] = {"Open", "Read", "Write", "Seek", "Thread", "Memory"};
  *out << kNames[static_cast<int>(fault)];
}

/// Names the tests of a table of faults.
struct FaultName {
  std::string operator()(const testing::TestParamInfo<Fault>& row) const { return testing::PrintToString(row.param); }
};

/// What a host saw, noted without asking for memory: its own calls must not be among those that fail.
struct HostNotes {
  static constexpr int kMostCodes = 16;

  FaultReport fault;
  std::atomic<int> reports{0};
  int codes[kMostCodes] = {};
  char text[160] = {};    ///< of the last failure
  bool returned = false;  ///< what the call that does everything returned
  bool finished = false;
  char exception[160] = {};  ///< that left an exported function

  void note(int code, const char* message) {
    if (code != 0) std::strncpy(text, message, sizeof(text) - 1);
    if (reports < kMostCodes) codes[reports] = code;
    ++reports;
  }
  static void on_status(int code, const char* message, void* self) {
    static_cast<HostNotes*>(self)->note(code, message);
  }
  static void on_progress(double /*progress*/, int code, const char* message, void* self) {
    if (code != 0) static_cast<HostNotes*>(self)->note(code, message);
  }
  std::vector<int> all_codes() const { return {codes, codes + std::min<int>(reports, kMostCodes)}; }
  bool injected() const { return fault.failed[0] != '\0'; }
};

/// Runs a scenario again and again, each time in a process of its own in which another call fails, until there is no
/// such call any more. MERU_EVERY_FAULT=1 takes every call, else it is a sample when there are many.
///
/// No run may crash, hang, let an exception out of an exported function, or change an earlier file.
class InjectedFaults : public testing::TestWithParam<Fault> {
 protected:
  static constexpr long kSample = 30;

  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "the sanitizer stands in front of the allocator itself";
    leave_files_unread = true;  // the reading would meet the faults itself
    std::filesystem::create_directory(folder());
    prepare();
  }

  /// Before the first run.
  virtual void prepare() {}
  /// Before each run.
  virtual void begin() {}
  /// The host's process, from the first call of the library to the last.
  virtual void scenario(HostNotes* notes) = 0;
  /// What must hold of a run that ended by itself.
  virtual void expect_documented(const HostNotes& notes) = 0;
  /// A line that the library writes before it ends the process; empty when it must not.
  virtual std::vector<std::string> last_words() const { return {}; }

  std::string folder() const { return m_dir.file("folder"); }
  std::string file(const std::string& name) const { return folder() + "/" + name; }
  std::string log() const { return file_text(m_log); }
  bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }

  /// A file that no run may change.
  void protect(const std::string& path) { m_earlier.emplace_back(path, file_text(path)); }

  void run_all() {
    const long calls = run(GetParam(), 0);
    ASSERT_FALSE(HasFailure() || m_whole.empty()) << "without a fault\n" << log();
#if !__GLIBC_PREREQ(2, 34)
    if (calls == 0) GTEST_SKIP() << "reads of this C library's streams cannot be made to fail";
#endif
    const bool every = std::getenv("MERU_EVERY_FAULT") != nullptr;
    const long step = every ? 1 : std::max(1L, calls / kSample);
    long injected = 0;
    // Calls that repeat in a period of the step would otherwise always be the same one of it.
    for (long i = 0;; ++i) {
      run(GetParam(), 1 + i * step + i % step);
      if (!m_notes->injected()) break;
      ++injected;
    }
    EXPECT_GT(injected, 0) << "nothing stands in front of the calls";
    EXPECT_EQ(m_notes->all_codes(), m_undisturbed_codes) << "a run that no fault has reached";
    std::cout << testing::PrintToString(GetParam()) << ": " << calls << " calls, " << injected << " made to fail\n";
    RecordProperty("injected", static_cast<int>(injected));
  }

  /// @return how many calls of the kind there were
  long run(Fault fault, long at) {
    m_notes.reset();
    begin();
    const ProcessEnd end = run_forked([&] { host(fault, at); }, m_log);
    SCOPED_TRACE(place(at));
    const bool failed_before = HasFailure();
    expect_orderly(end);
    if (m_notes->finished) expect_documented(*m_notes);
    for (const auto& [path, bytes] : m_earlier) EXPECT_TRUE(file_text(path) == bytes) << path << " was changed";
    if (HasFailure() && !failed_before) std::cout << "the first failure's log:\n" << log() << "\n";
    if (at == 0) m_undisturbed_codes = m_notes->all_codes();
    return m_notes->fault.calls;
  }

  /// What a host was told no failure of is the movie of the undisturbed run; without memory for one of its packets it
  /// may lack that one.
  void expect_success(const std::string& path) {
    const std::string bytes = file_text(path);
    if (!m_notes->injected()) m_whole[path] = bytes;
    if (GetParam() != Fault::kMemory && GetParam() != Fault::kRead) {
      EXPECT_TRUE(bytes == m_whole[path]) << path << " is not what it is without a fault";
    }
    expect_plays(path, bytes);
  }

 private:
  /// Decodes each movie once: most runs make the same one.
  void expect_plays(const std::string& path, const std::string& bytes) {
    if (m_sound.count(bytes) != 0) return;
    const std::string errors = decode_errors(path);
    EXPECT_EQ(errors, "") << path;
    if (errors.empty()) m_sound.insert(bytes);
  }

  void host(Fault fault, long at) {
    const std::string path = folder();
    begin_faults(fault, at, path.c_str(), &m_notes->fault);
    try {
      scenario(m_notes.get());
    } catch (const std::exception& e) {
      std::strncpy(m_notes->exception, e.what(), sizeof(m_notes->exception) - 1);
    } catch (...) {
      std::strncpy(m_notes->exception, "not of the standard library", sizeof(m_notes->exception) - 1);
    }
    end_faults();
    m_notes->finished = true;
  }

  void expect_orderly(const ProcessEnd& end) {
    EXPECT_FALSE(end.hung);
    EXPECT_EQ(end.signal, 0);
    EXPECT_STREQ(m_notes->exception, "");
    if (end.hung || end.signal != 0) return;
    EXPECT_EQ(end.status, m_notes->finished ? 0 : 1);
    if (end.status == 0) return;
    const std::string words = log();
    const auto all = last_words();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const auto& w) { return words.find(w) != std::string::npos; }))
        << words;
  }

  /// What failed and where from, for addr2line.
  std::string place(long at) const {
    std::ostringstream text;
    text << "call " << at << " failed: " << m_notes->fault.failed << ", library addresses" << std::hex;
    const auto base = m_notes->fault.library_address;
    for (const void* caller : m_notes->fault.callers) {
      const auto address = reinterpret_cast<unsigned long>(caller);
      if (address > base && address < m_notes->fault.library_end) text << " " << address - base - 1;
    }
    return text.str();
  }

  TempDir m_dir{TempDir::fast_parent()};
  const std::string m_log = m_dir.file("log");
  Shared<HostNotes> m_notes;
  std::vector<std::pair<std::string, std::string>> m_earlier;
  std::vector<int> m_undisturbed_codes;
  std::set<std::string> m_sound;               // movies that were found to play
  std::map<std::string, std::string> m_whole;  // what the undisturbed run wrote
};

}  // namespace meru_test

// A recording in which one call of the system fails, each one in turn.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "support/injected_faults.h"
#include "support/small_recording.h"

namespace meru_test {
namespace {

class InjectedRecordingTest : public InjectedFaults {
 protected:
  void prepare() override {
    SmallRecording earlier(file("earlier.mp4"), file("earlier.index"), "");
    HostNotes notes;
    ASSERT_EQ(run_forked([&] { earlier.record(&notes); }, file("earlier.log")).status, 0);
    protect(file("earlier.mp4"));
    protect(file("earlier.index"));
  }
  void begin() override {
    for (const char* name : {"movie.mp4", "further.mov", "movie.index"}) std::filesystem::remove(file(name));
    m_recording.emplace(file("movie.mp4"), file("movie.index"), file("further.mov"));
  }
  void scenario(HostNotes* notes) override { m_recording->record(notes); }

  void expect_documented(const HostNotes& notes) override {
    const std::vector<int> codes = notes.all_codes();
    if (codes.empty()) return expect_silent_start();
    if (codes[0] != MERU_STATUS_OK) return expect_failed_start(codes);
    ASSERT_LE(codes.size(), 2U);
    if (codes.size() == 1) {
      expect_success(file("movie.mp4"));
    } else {
      EXPECT_LT(codes[1], 0) << notes.text;
    }
    if (!logged("further output 1 ")) expect_success(file("further.mov"));
  }

  /// Nothing is told of it but by the log, and the session takes nothing.
  void expect_silent_start() {
    EXPECT_TRUE(GetParam() == Fault::kMemory || GetParam() == Fault::kThread);
    EXPECT_TRUE(logged("catch error") || logged("could not be started") || logged("was not carried out")) << log();
  }
  static void expect_failed_start(const std::vector<int>& codes) {
    EXPECT_EQ(codes.size(), 1U);
    const std::set<int> known = {MERU_STATUS_NO_CONTEXT, MERU_STATUS_OPEN_FAILED, MERU_STATUS_NO_FORMAT,
                                 MERU_STATUS_HEADER_FAILED};
    EXPECT_EQ(known.count(codes[0]), 1U) << codes[0];
  }
  std::vector<std::string> last_words() const override {
    return {"Could not allocate stream", "Could not open audio codec", "Error allocating an audio frame",
            "Error allocating an audio buffer", "Could not initialize the conversion context"};
  }

  std::optional<SmallRecording> m_recording;
};

TEST_P(InjectedRecordingTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedRecordingTest,
                         testing::Values(Fault::kOpen, Fault::kWrite, Fault::kSeek, Fault::kThread, Fault::kMemory),
                         FaultName());

/// The same with images that are worth threads of their own.
class InjectedLargeImagesTest : public InjectedRecordingTest {
 protected:
  void begin() override {
    InjectedRecordingTest::begin();
    m_recording.emplace(file("movie.mp4"), file("movie.index"), file("further.mov"), 640, 480);
  }
};

TEST_P(InjectedLargeImagesTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedLargeImagesTest, testing::Values(Fault::kThread), FaultName());

/// The same with a start on a thread of its own, which may end without a word.
class InjectedAsyncStartTest : public InjectedRecordingTest {
 protected:
  void scenario(HostNotes* notes) override {
    void* session = MERU_start(m_recording->info, &HostNotes::on_status, notes, nullptr, true);
    const auto told = [&] { return notes->reports > 0; };
    // A start that says nothing is waited for by its end, which MERU_stop does not wait for.
    eventually([&] { return told() || notes->injected() || session == nullptr; });
    eventually(told, std::chrono::milliseconds(100));
    m_recording->push(session);
    MERU_stop(&session);
  }
};

TEST_P(InjectedAsyncStartTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedAsyncStartTest, testing::Values(Fault::kThread, Fault::kMemory), FaultName());

}  // namespace
}  // namespace meru_test

// A repair in which one call of the system fails, each one in turn.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/injected_faults.h"
#include "support/mp4_movie.h"
#include "support/small_recording.h"

namespace meru_test {
namespace {

class InjectedRepairTest : public InjectedFaults {
 protected:
  void prepare() override {
    SmallRecording recording(file("whole.mp4"), m_index, "");
    HostNotes notes;
    ASSERT_EQ(run_forked([&] { recording.record(&notes); }, file("whole.log")).status, 0);
    const std::string whole = file_text(file("whole.mp4"));
    write_file(m_broken, whole.substr(0, Mp4Movie::find_box(whole, "moov")));
    for (const std::string& path : {m_broken, m_index, file("whole.mp4")}) protect(path);
  }
  void begin() override { std::filesystem::remove(m_repaired); }
  void scenario(HostNotes* notes) override {
    notes->returned =
        MERU_StartRepair_sync(m_broken.c_str(), m_index.c_str(), m_repaired.c_str(), &HostNotes::on_progress, notes);
  }

  void expect_documented(const HostNotes& notes) override {
    const std::vector<int> codes = notes.all_codes();
    if (notes.returned) {
      EXPECT_TRUE(codes.empty());
      if (!logged("读取packet数据")) return expect_success(m_repaired);
      // A broken movie may have places that cannot be read: packets are left out, and what needs them is damaged.
      EXPECT_EQ(GetParam(), Fault::kRead);
      EXPECT_NO_THROW(probe(m_repaired, "-show_streams"));
      return;
    }
    ASSERT_EQ(codes.size(), 1U);
    const std::set<int> known = {MERU_REPAIR_NO_MOVIE, MERU_REPAIR_NO_INDEX, MERU_REPAIR_WRITE_FAILED};
    EXPECT_EQ(known.count(codes[0]), 1U) << codes[0] << ": " << notes.text;
  }

  const std::string m_broken = file("broken.mp4");
  const std::string m_index = file("broken.index");
  const std::string m_repaired = file("repaired.mp4");
};

TEST_P(InjectedRepairTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedRepairTest,
                         testing::Values(Fault::kOpen, Fault::kRead, Fault::kWrite, Fault::kSeek, Fault::kMemory),
                         FaultName());

/// The same on a thread of its own.
class InjectedAsyncRepairTest : public InjectedRepairTest {
 protected:
  void scenario(HostNotes* notes) override {
    void* repair =
        MERU_StartRepair_Async(m_broken.c_str(), m_index.c_str(), m_repaired.c_str(), &HostNotes::on_progress, notes);
    eventually([&] { return !MERU_Repair_IsRunning(repair); });
    MERU_StopRepair(&repair);
    notes->returned = notes->reports == 0;
  }
};

TEST_P(InjectedAsyncRepairTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedAsyncRepairTest, testing::Values(Fault::kThread, Fault::kMemory), FaultName());

}  // namespace
}  // namespace meru_test

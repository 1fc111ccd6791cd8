// A host whose locale writes numbers with a comma, as the one that a desktop sets.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>

#include "meru/repair.h"
#include "support/cut_recording.h"
#include "support/log_capture.h"
#include "support/run_command.h"

namespace meru_test {
namespace {

constexpr char kSource[] =
    "comment_char %\nescape_char /\n"
    "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n";

/// Sets a locale of its own making, of which only the numbers are described.
class CommaLocale {
 public:
  CommaLocale() {
    write_file(m_dir.file("source"), kSource);
    // Its status tells of the categories that are not described.
    run_command("localedef --no-archive -c -i " + m_dir.file("source") + " " + m_dir.file("comma"));
    setenv("LOCPATH", m_dir.path().c_str(), 1);
    m_set = setlocale(LC_NUMERIC, "comma") != nullptr;
  }
  ~CommaLocale() {
    setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
  }
  CommaLocale(const CommaLocale&) = delete;
  CommaLocale& operator=(const CommaLocale&) = delete;

  bool set() const { return m_set; }

 private:
  TempDir m_dir;
  bool m_set = false;
};

bool has_localedef() { return run_command("command -v localedef").status == 0; }

std::string one_and_a_half() {
  char text[8];
  snprintf(text, sizeof(text), "%.1f", 1.5);
  return text;
}

class HostLocale : public testing::Test {
 protected:
  void SetUp() override {
    if (!has_localedef()) GTEST_SKIP() << "localedef is missing";
    ASSERT_TRUE(m_locale.set());
    ASSERT_EQ(one_and_a_half(), "1,5");
  }

 private:
  CommaLocale m_locale;
};

/// Digit, comma, digit: a number that no program reads as one.
bool has_comma_number(const std::string& text) {
  for (size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] == ',' && std::isdigit(text[i - 1]) != 0 && std::isdigit(text[i + 1]) != 0) return true;
  }
  return false;
}

TEST_F(HostLocale, LeavesTheNumbersOfARepairAsTheyAre) {
  const CutRecording movie({"", "mp4", false, false}, 300);
  LogCapture log;
  testing::internal::CaptureStdout();
  std::string seen;
  const MovieRepairCallback callback = [](double, int, const char*, void* user) {
    *static_cast<std::string*>(user) += one_and_a_half();
  };
  EXPECT_TRUE(MERU_StartRepair_sync(movie.broken.c_str(), movie.index.c_str(), movie.output.c_str(), callback, &seen));
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("progress:0."), std::string::npos) << printed;
  EXPECT_NE(printed.find("progress:1.000000\n"), std::string::npos) << printed;
  EXPECT_FALSE(has_comma_number(printed)) << printed;
  int summaries = 0;
  for (const auto& line : log.lines()) {
    const bool summary = line.text.find("restored: ") != std::string::npos || line.text.find("执行完成") == 1;
    if (!summary && line.text.find("执行完成") == std::string::npos) continue;
    ++summaries;
    EXPECT_FALSE(has_comma_number(line.text)) << line.text;
  }
  EXPECT_EQ(summaries, 2);
  // The host's own numbers are printed by the host's locale, inside its callbacks too.
  EXPECT_EQ(seen.substr(0, 3), "1,5");
  EXPECT_EQ(one_and_a_half(), "1,5");
}

TEST_F(HostLocale, LeavesTheNumbersOfARefusedPacketAsTheyAre) {
  const CutRecording movie({"", "mp4", false, true}, 10);
  const std::string index = file_text(movie.index);
  const std::string head = index.substr(0, index.rfind("}\n") + 2);
  write_file(movie.index, head + ",48,10,5120,,512,1;\n,,11,-512,,512,;\n" + std::string(2000, 'x'));
  testing::internal::CaptureStdout();
  MERU_StartRepair_sync(movie.broken.c_str(), movie.index.c_str(), movie.output.c_str(), nullptr, nullptr);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("pts_time:0."), std::string::npos) << printed;
}

TEST_F(HostLocale, LeavesTheNumbersOfTheLogFileAsTheyAre) {
  TempDir dir;
  MERU_Log_On(dir.file("log").c_str());
  MERU_Log_Level(5);
  Host host(small_movie(dir.file("a.mp4")));
  host.push_scene(10, kUsecPerSec);
  MERU_write_audio_pcm(host.session(), nullptr, 0, 2 * kUsecPerSec);  // logs seconds
  host.stop();
  const std::string text = file_text(dir.file("log"));
  EXPECT_NE(text.find("[fill silence] ----> pts=0."), std::string::npos) << text;
}

}  // namespace
}  // namespace meru_test

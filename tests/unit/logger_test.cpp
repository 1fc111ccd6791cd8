#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/log_site.h"
#include "meru/log.h"
#include "support/case_name.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

constexpr size_t kTimeLength = 13;  // 1115-12:19:03
constexpr size_t kMostInALine = 510;

std::string local_time(time_t seconds) {
  char text[32] = {};
  tm local{};
  localtime_r(&seconds, &local);
  strftime(text, sizeof(text), "%m%d-%H:%M:%S", &local);
  return text;
}

/// A stream in memory that the log is sent to as long as it lives.
class MemoryLog {
 public:
  MemoryLog() : m_fp(open_memstream(&m_text, &m_size)) { MERU_Log_On2(m_fp); }
  ~MemoryLog() {
    MERU_Log_On2(nullptr);
    fclose(m_fp);
    free(m_text);
  }
  MemoryLog(const MemoryLog&) = delete;
  MemoryLog& operator=(const MemoryLog&) = delete;

  /// What the logger has flushed so far.
  std::string text() const { return {m_text, m_size}; }
  /// The same without the time that each line begins with.
  std::string without_time() const { return text().size() > kTimeLength ? text().substr(kTimeLength) : text(); }

 private:
  char* m_text = nullptr;
  size_t m_size = 0;
  FILE* m_fp;
};

nuv::Logger& logger() { return *nuv::Logger::instance(); }

std::string content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(Logger, DropsLevel4AndPrintsLevel2OnStderrByDefault) {
  testing::internal::CaptureStderr();
  logger().write("bg", 4, "a.cpp", 1, "lifecycle\n");
  logger().write("bg", 3, "a.cpp", 1, "warning\n");
  logger().write("bg", 2, "a.cpp", 1, "failure\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr().substr(kTimeLength), "[E][bg] a.cpp 1   : failure\n");
}

TEST(Logger, HasTheDocumentedDefaults) {
  EXPECT_EQ(logger().m_fp, stderr);
  EXPECT_EQ(logger().m_level, nuv::LOG_ERROR);
  EXPECT_FALSE(logger().m_callback);
}

TEST(Logger, LineBeginsWithTheLocalTime) {
  const MemoryLog log;
  const time_t before = time(nullptr);
  logger().write("bg", 2, "/src/movie_muxer", 57, "text");
  const time_t after = time(nullptr);
  std::set<std::string> possible;
  for (time_t t = before; t <= after; ++t) possible.insert(local_time(t) + "[E][bg] movie_muxer 57  : text");
  EXPECT_EQ(possible.count(log.text()), 1U) << log.text();
}

struct LineCase {
  const char* name;
  int level;
  const char* file;
  int line;
  const char* expected;  // without the time
};

class LogLine : public testing::TestWithParam<LineCase> {};

TEST_P(LogLine, IsPrefixAndMessage) {
  const MemoryLog log;
  MERU_Log_Level(6);
  logger().write("bg", GetParam().level, GetParam().file, GetParam().line, "\"x=%d %s\"\n", 5, "y");
  EXPECT_EQ(log.without_time(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LogLine,
    testing::Values(LineCase{"None", 0, "f", 1, "[-][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Fatal", 1, "f", 1, "[F][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Error", 2, "f", 1, "[E][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Warning", 3, "f", 1, "[W][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Info", 4, "f", 1, "[I][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Debug", 5, "f", 1, "[D][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Trace", 6, "f", 1, "[=][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"BelowTheLevels", -3, "f", 1, "[-][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"AboveTheLevels", 9, "f", 1, "[=][bg] f 1   : \"x=5 y\"\n"},
                    LineCase{"Path", 2, "/a/b/movie_muxer.cpp", 57, "[E][bg] movie_muxer.cpp 57  : \"x=5 y\"\n"},
                    LineCase{"Backslashes", 2, "C:\\a\\b.cpp", 57, "[E][bg] b.cpp 57  : \"x=5 y\"\n"},
                    LineCase{"BothSeparators", 2, "C:\\a/b\\c.cpp", 57, "[E][bg] c.cpp 57  : \"x=5 y\"\n"},
                    LineCase{"SlashLast", 2, "C:\\a\\b/c.cpp", 57, "[E][bg] c.cpp 57  : \"x=5 y\"\n"},
                    LineCase{"EndsInASeparator", 2, "a/b/", 57, "[E][bg]  57  : \"x=5 y\"\n"},
                    LineCase{"NullFile", 2, nullptr, 57, "[E][bg]  57  : \"x=5 y\"\n"},
                    LineCase{"FourDigits", 2, "f", 1234, "[E][bg] f 1234: \"x=5 y\"\n"},
                    LineCase{"FiveDigits", 2, "f", 12345, "[E][bg] f 12345: \"x=5 y\"\n"}),
    meru_test::CaseName());

struct ThresholdCase {
  const char* name;
  int threshold;
  const char* marks;  // of the levels -1..9 that come through
};

class LogThreshold : public testing::TestWithParam<ThresholdCase> {};

TEST_P(LogThreshold, LetsThroughItsLevelAndBelow) {
  const MemoryLog log;
  MERU_Log_Level(GetParam().threshold);
  EXPECT_EQ(logger().m_level, GetParam().threshold);
  for (int level = -1; level <= 9; ++level) logger().write("bg", level, "f", 1, "\n");
  std::string marks;
  std::istringstream lines(log.text());
  for (std::string line; std::getline(lines, line);) marks += line.substr(kTimeLength + 1, 1);
  EXPECT_EQ(marks, GetParam().marks);
}

// The levels -1, 7, 8 and 9 count as 0, 6, 6 and 6.
INSTANTIATE_TEST_SUITE_P(Levels, LogThreshold,
                         testing::Values(ThresholdCase{"Negative", -1, ""}, ThresholdCase{"None", 0, "--"},
                                         ThresholdCase{"Error", 2, "--FE"}, ThresholdCase{"Debug", 5, "--FEWID"},
                                         ThresholdCase{"Trace", 6, "--FEWID===="},
                                         ThresholdCase{"Beyond", 100, "--FEWID===="}),
                         meru_test::CaseName());

TEST(Logger, AddsNoLineFeed) {
  const MemoryLog log;
  logger().write("bg", 2, "f", 1, "no line feed");
  EXPECT_EQ(log.without_time(), "[E][bg] f 1   : no line feed");
}

TEST(Logger, CutsALineAt510CharactersWithThePrefix) {
  const MemoryLog log;
  const std::string message(1000, 'x');
  logger().write("bg", 2, "f", 1, "%s\n", message.c_str());
  EXPECT_EQ(log.text().size(), kMostInALine);
  EXPECT_EQ(log.text().back(), 'x');
}

TEST(Logger, KeepsTheLineFeedOfALineThatJustFits) {
  const MemoryLog log;
  const std::string message(kMostInALine - kTimeLength - strlen("[E][bg] f 1   : ") - 1, 'x');
  logger().write("bg", 2, "f", 1, "%s\n", message.c_str());
  EXPECT_EQ(log.text().size(), kMostInALine);
  EXPECT_EQ(log.text().back(), '\n');
}

TEST(Logger, CutsAPrefixAt127Characters) {
  const MemoryLog log;
  const std::string file(300, 'f');
  logger().write("bg", 2, file.c_str(), 1, "message");
  EXPECT_EQ(log.without_time(), "[E][bg] " + std::string(127 - kTimeLength - 8, 'f') + "message");
}

TEST(Logger, PrintsA64BitConversion) {
  const MemoryLog log;
  logger().write("bg", 2, "f", 1, "pts=%I64d, %d%%\n", 4294967297LL, 3);
  EXPECT_EQ(log.without_time(), "[E][bg] f 1   : pts=4294967297, 3%\n");
}

TEST(Logger, PrefixIsCutToTheSizeGiven) {
  char text[16];
  EXPECT_EQ(logger().make_prefix(text, sizeof(text), "bg", nuv::LOG_INFO, "f", 1), text);
  EXPECT_EQ(std::string(text).substr(kTimeLength), "[I");
}

TEST(Logger, NowFormatsTheLocalTime) {
  const time_t before = time(nullptr);
  const std::string text = nuv::Logger::now("%m%d-%H:%M:%S");
  EXPECT_GE(text, local_time(before));
  EXPECT_LE(text, local_time(time(nullptr)));
}

TEST(LoggerCallback, ReceivesEveryLevelClampedAndWithoutPrefix) {
  struct Call {
    std::string tag, file, msg;
    int level, line;
    bool operator==(const Call& o) const {
      return tag == o.tag && file == o.file && msg == o.msg && level == o.level && line == o.line;
    }
  };
  std::vector<Call> calls;
  MERU_Log_Level(-1);
  logger().m_callback = [&](const char* tag, int level, const char* file, int line, const char* msg) {
    calls.push_back({tag, file, msg, level, line});
  };
  testing::internal::CaptureStderr();
  logger().write("one", -2, "/a/b.cpp", 3, "low %d\n", 1);
  logger().write("two", 5, "/a/b.cpp", 4, "detail %s", "x");
  logger().write("three", 9, nullptr, 5, "high");
  logger().m_callback = nullptr;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  const std::vector<Call> expected = {
      {"one", "/a/b.cpp", "low 1\n", 0, 3}, {"two", "/a/b.cpp", "detail x", 5, 4}, {"three", "", "high", 6, 5}};
  EXPECT_EQ(calls, expected);
}

TEST(LoggerCallback, ReceivesAtMost510Characters) {
  meru_test::LogCapture log;
  logger().write("bg", 5, "f", 1, "%s", std::string(2000, 'x').c_str());
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, std::string(kMostInALine, 'x'));
}

TEST(LoggerInstance, IsAlwaysTheSame) {
  nuv::Logger* first = nuv::Logger::instance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(nuv::Logger::instance(), first);
  EXPECT_EQ(nuv::Logger::instance(nullptr), first);
}

TEST(LoggerInstance, CanBeReplacedByTheHosts) {
  nuv::Logger* first = nuv::Logger::instance();
  nuv::Logger own;
  EXPECT_EQ(nuv::Logger::instance(&own), &own);
  EXPECT_EQ(nuv::Logger::instance(), &own);
  MERU_Log_Level(5);
  EXPECT_EQ(own.m_level, 5);
  EXPECT_EQ(first->m_level, 2);
  EXPECT_EQ(nuv::Logger::instance(first), first);
}

TEST(LogOn, AppendsToTheFileAndFlushesEveryLine) {
  const meru_test::TempDir dir;
  const std::string path = dir.file("log.txt");
  std::ofstream(path) << "earlier\n";
  MERU_Log_On(path.c_str());
  logger().write("bg", 2, "f", 1, "first\n");
  EXPECT_EQ(content(path).substr(8 + kTimeLength), "[E][bg] f 1   : first\n");
  EXPECT_EQ(content(path).substr(0, 8), "earlier\n");
}

struct PathCase {
  const char* name;
  const char* before;
  const char* after;
};

class LogOnPath : public testing::TestWithParam<PathCase> {};

TEST_P(LogOnPath, IsCleanedOfWhatHostsPutAroundIt) {
  const meru_test::TempDir dir;
  const std::string path = dir.file("my log.txt");
  MERU_Log_On((GetParam().before + path + GetParam().after).c_str());
  logger().write("bg", 2, "f", 1, "x");
  EXPECT_EQ(content(path).substr(kTimeLength), "[E][bg] f 1   : x");
}

INSTANTIATE_TEST_SUITE_P(Around, LogOnPath,
                         testing::Values(PathCase{"Nothing", "", ""}, PathCase{"QuotesBlanksLineFeed", "  \"", "\"\n"},
                                         PathCase{"AllSix", "\"\b\t\n\r ", "\"\b\t\n\r "},
                                         PathCase{"CarriageReturn", "", "\r\n"}),
                         meru_test::CaseName());

struct NoFileCase {
  const char* name;
  const char* path;
};

class LogOnWithoutAFile : public testing::TestWithParam<NoFileCase> {};

TEST_P(LogOnWithoutAFile, GoesToStderr) {
  MERU_Log_Off();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  MERU_Log_On(GetParam().path);
  logger().write("bg", 2, "f", 1, "x\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr().substr(kTimeLength), "[E][bg] f 1   : x\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

INSTANTIATE_TEST_SUITE_P(Paths, LogOnWithoutAFile,
                         testing::Values(NoFileCase{"Null", nullptr}, NoFileCase{"Empty", ""},
                                         NoFileCase{"OnlyBlanks", "  "},
                                         NoFileCase{"NoSuchFolder", "/nonexistent-folder/log.txt"}),
                         meru_test::CaseName());

TEST(LogOff, GoesToStdoutAndLeavesFileAndLevelAlone) {
  const meru_test::TempDir dir;
  const std::string path = dir.file("log.txt");
  MERU_Log_On(path.c_str());
  MERU_Log_Level(4);
  logger().write("bg", 4, "f", 1, "to the file\n");
  FILE* file = logger().m_fp;
  testing::internal::CaptureStdout();
  MERU_Log_Off();
  logger().write("bg", 4, "f", 1, "to stdout\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout().substr(kTimeLength), "[I][bg] f 1   : to stdout\n");
  EXPECT_EQ(content(path).substr(kTimeLength), "[I][bg] f 1   : to the file\n");
  EXPECT_EQ(logger().m_level, 4);
  EXPECT_GE(fputs("still open\n", file), 0);
  EXPECT_EQ(fflush(file), 0);
}

TEST(LogOn2, TakesAStreamAndNullMeansStderr) {
  FILE* stream = tmpfile();
  MERU_Log_On2(stream);
  EXPECT_EQ(logger().m_fp, stream);
  MERU_Log_On2(nullptr);
  EXPECT_EQ(logger().m_fp, stderr);
  EXPECT_EQ(fclose(stream), 0);
}

TEST(LogDestructor, ClosesNoStream) {
  FILE* stream = tmpfile();
  {
    nuv::Logger own;
    own.redirect(stream);
    own.write("bg", 2, "f", 1, "x");
  }
  EXPECT_GT(ftell(stream), 0);
  EXPECT_EQ(fclose(stream), 0);
}

TEST(LogSite, PutsQuotesAroundTheMessageAndALineFeedBehindIt) {
  const MemoryLog log;
  MERU_LOG(2, "err=%d\\n", 5);
  const int line = __LINE__ - 1;
  EXPECT_EQ(log.without_time(), "[E][bg] logger_test.cpp " + std::to_string(line) + " : \"err=5\\n\"\n");
}

TEST(LogSite, PrintsA64BitConversion) {
  meru_test::LogCapture log;
  MERU_LOG.i64(5, "pts=%I64d", 4294967297LL);
  EXPECT_EQ(log.count(5, "pts=4294967297"), 1);
}

TEST(LogSite, HandsItsPlaceToTheCallback) {
  std::string tag, file;
  int line = 0;
  logger().m_callback = [&](const char* t, int, const char* f, int l, const char*) {
    tag = t;
    file = f;
    line = l;
  };
  MERU_LOG(5, "x");
  const int expected = __LINE__ - 1;
  logger().m_callback = nullptr;
  EXPECT_EQ(tag, "bg");
  EXPECT_EQ(file, __FILE__);
  EXPECT_EQ(line, expected);
}

TEST(LoggerThreads, LinesStayWhole) {
  constexpr int kThreads = 4;
  constexpr int kLines = 250;
  const meru_test::TempDir dir;
  const std::string path = dir.file("log.txt");
  MERU_Log_On(path.c_str());
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        logger().write("bg", 2, "f", 1, "%s\n", std::string(100, static_cast<char>('a' + t)).c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::map<std::string, int> seen;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) ++seen[line.substr(kTimeLength)];
  ASSERT_EQ(seen.size(), static_cast<size_t>(kThreads));
  for (const auto& [line, count] : seen) {
    EXPECT_EQ(line, "[E][bg] f 1   : " + std::string(100, line.back()));
    EXPECT_EQ(count, kLines);
  }
}

}  // namespace

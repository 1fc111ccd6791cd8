// Broken movies and side indexes that were cut, flipped, replaced or made up: every repair ends with a code that the
// header names or with a playable movie, and within bounded memory.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "support/damage.h"
#include "support/probe.h"

namespace meru_test {
namespace {

/// Random numbers that are the same in every run; the seed is printed, so that a failure can be looked at.
std::mt19937 seeded(unsigned seed) {
  std::cout << "seed " << seed << "\n";
  return std::mt19937(seed);
}

size_t below(std::mt19937& random, size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }

class DamagedMovieTest : public DamageTest {
 protected:
  /// A movie cut anywhere gives back every packet that it still holds whole.
  void expect_cut(size_t length, bool decode) const {
    const Outcome outcome = repair(movie_bytes.substr(0, length), index_bytes);
    ASSERT_EQ(outcome.problem, "") << "cut at " << length;
    ASSERT_EQ(outcome.code, 0) << "cut at " << length;
    ASSERT_EQ(outcome.packets, packets_within(length)) << "cut at " << length;
    if (decode && outcome.packets > 2) {
      EXPECT_EQ(decode_errors(recording.output), "") << "cut at " << length;
    }
  }
};

TEST_F(DamagedMovieTest, CutAtEvery4096thByte) {
  int n = 0;
  for (size_t at = 0; at < movie_bytes.size(); at += 4096) expect_cut(at, ++n % 10 == 0);
}

TEST_F(DamagedMovieTest, CutAtRandomBytes) {
  std::mt19937 random = seeded(1);
  for (int i = 0; i < 200; ++i) expect_cut(below(random, movie_bytes.size()), i % 20 == 0);
}

TEST_F(DamagedMovieTest, CutAroundTheEdgesOfPackets) {
  for (size_t i = 0; i < packets.size(); i += 17) {
    const auto end = static_cast<size_t>(packets[i].pos + packets[i].size);
    for (const size_t at : {end - 1, end, end + 1}) expect_cut(at, false);
  }
}

TEST_F(DamagedMovieTest, BytesOverwrittenKeepEveryPacket) {
  std::mt19937 random = seeded(2);
  for (int i = 0; i < 50; ++i) {
    std::string damaged = movie_bytes;
    for (int n = 0; n < 20; ++n) damaged[below(random, damaged.size())] = static_cast<char>(random());
    const Outcome outcome = repair(damaged, index_bytes);
    ASSERT_EQ(outcome.problem, "") << i;
    ASSERT_EQ(outcome.packets, packets.size()) << i;
  }
}

TEST_F(DamagedMovieTest, NoFileAtAll) {
  EXPECT_EQ(repair_files(recording.file("none.mp4"), recording.index).code, MERU_REPAIR_NO_MOVIE);
  EXPECT_EQ(repair_files(recording.path(), recording.index).code, MERU_REPAIR_NO_MOVIE);
  EXPECT_EQ(repair_files("", recording.index).code, MERU_REPAIR_NO_MOVIE);
  const Outcome empty = repair("", index_bytes);
  EXPECT_EQ(empty.problem, "");
  EXPECT_EQ(empty.packets, 0U);
}

class HugeMovieTest : public DamageTest {
 protected:
  static constexpr int64_t kFar = (int64_t{1} << 32) + 12345;

  /// The recording's packets in a sparse file, all beyond the first four gigabytes.
  std::string sparse_movie() const {
    const std::string path = recording.file("sparse.mp4");
    const auto begin = static_cast<size_t>(packets.front().pos);
    write_file(path, "");
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const auto size = static_cast<ssize_t>(movie_bytes.size() - begin);
    EXPECT_EQ(pwrite(file, movie_bytes.data() + begin, static_cast<size_t>(size), kFar), size);
    close(file);
    return path;
  }
};

TEST_F(HugeMovieTest, PositionsBeyond32BitsAreReached) {
  std::string moved = body();
  const std::string position = std::to_string(packets.front().pos);
  moved.replace(moved.find("," + position + ",") + 1, position.size(), std::to_string(kFar));
  const Outcome outcome = repair_index(sparse_movie(), header() + moved);
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.packets, packets.size());
  EXPECT_EQ(sorted_samples(recording.output), sorted_named_bytes(recording.index, recording.broken));
  EXPECT_EQ(decode_errors(recording.output), "");
}

TEST_F(HugeMovieTest, RecordsFarApartAreReached) {
  const std::string movie = sparse_movie();
  const std::string far = std::to_string(kFar);
  const Outcome outcome =
      repair_index(movie, header() + ",48,100,,,512,1;," + far + ",100,512,,512,;,4294967297,5,512,,512,;\n");
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.packets, 3U);
}

/// Lets the process have only so much more memory than it has.
class MemoryLimit {
 public:
  explicit MemoryLimit(rlim_t more) {
    getrlimit(RLIMIT_AS, &m_before);
    rlimit limit = m_before;
    limit.rlim_cur = static_cast<rlim_t>(virtual_memory_kib()) * 1024 + more;
    EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  }
  ~MemoryLimit() { setrlimit(RLIMIT_AS, &m_before); }
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  rlimit m_before{};
};

TEST_F(HugeMovieTest, PacketTooLargeForTheMemoryCostsItsLine) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers need more address space than there is";
  const std::string movie = sparse_movie();
  ASSERT_EQ(truncate(movie.c_str(), kFar + 100000), 0);
  std::ofstream(movie, std::ios::app) << 'x';  // zeros at the end would be no part of the movie
  const MemoryLimit limit(256 << 20);
  for (const char* size : {"2000000000", "2147483647"}) {
    const Outcome outcome = repair_index(
        movie, header() + ",48,100,,,512,1;\n,," + size + ",512,,512,;,,9,512,,512,;\n" + ",,100,512,,512,;\n");
    EXPECT_EQ(outcome.problem, "") << size;
    EXPECT_EQ(outcome.packets, 2U) << size;
  }
}

class DamagedIndexTest : public DamageTest {
 protected:
  void expect_documented(const std::string& index, const std::string& what) const {
    const Outcome outcome = repair_index(index);
    ASSERT_EQ(outcome.problem, "") << what;
    ASSERT_NE(outcome.code, MERU_REPAIR_NO_MOVIE) << what;
  }
  /// How many records an index holds that was cut. One that lacks nothing but its semicolon counts.
  size_t whole_records(const std::string& cut) const {
    const bool semicolon_alone = index_bytes[cut.size()] == ';' && cut.back() == '1';
    const auto semicolons = std::count(cut.begin() + static_cast<long>(body_at), cut.end(), ';');
    return static_cast<size_t>(semicolons) + (semicolon_alone ? 1 : 0);
  }
  /// Where the records begin, counted in the body.
  std::vector<size_t> record_starts() const {
    std::vector<size_t> starts;
    const std::string text = body();
    for (size_t at = 0; at < text.size(); at = text.find(';', at) + 1) {
      if (text[at] == '\n') ++at;
      if (at < text.size()) starts.push_back(at);
    }
    return starts;
  }
  /// The index with a text in place of one record.
  std::string with_record(size_t number, const std::string& record) const {
    std::string text = body();
    const size_t at = record_starts().at(number);
    text.replace(at, text.find(';', at) + 1 - at, record);
    return header() + text;
  }
};

TEST_F(DamagedIndexTest, CutInItsLastTwoLines) {
  const size_t last = index_bytes.rfind('\n', index_bytes.size() - 2);
  const size_t before = index_bytes.rfind('\n', last - 1);
  ASSERT_GT(before, body_at);
  for (size_t at = before + 1; at <= index_bytes.size(); ++at) {
    const std::string cut = index_bytes.substr(0, at);
    const Outcome outcome = repair_index(cut);
    ASSERT_EQ(outcome.problem, "") << at;
    ASSERT_EQ(outcome.packets, whole_records(cut)) << at;
    if (at % 200 == 0) {
      EXPECT_EQ(decode_errors(recording.output), "") << at;
    }
  }
}

TEST_F(DamagedIndexTest, CutInItsHeader) {
  for (size_t at = 0; at <= body_at; ++at) expect_documented(index_bytes.substr(0, at), std::to_string(at));
  const size_t streams = index_bytes.find('{');
  for (size_t at = 0; at <= streams; ++at) {
    EXPECT_EQ(repair_index(index_bytes.substr(0, at)).code, MERU_REPAIR_NO_INDEX) << at;
  }
}

TEST_F(DamagedIndexTest, CutAtRandomPlaces) {
  std::mt19937 random = seeded(3);
  for (int i = 0; i < 200; ++i) {
    const size_t at = below(random, index_bytes.size());
    expect_documented(index_bytes.substr(0, at), std::to_string(at));
  }
}

TEST_F(DamagedIndexTest, EveryByteOfItsBeginningFlipped) {
  std::mt19937 random = seeded(4);
  for (size_t at = 0; at < 2048; ++at) {
    for (const unsigned mask : {1U << at % 8, 1U + static_cast<unsigned>(below(random, 255))}) {
      std::string flipped = index_bytes;
      flipped[at] = static_cast<char>(static_cast<unsigned char>(flipped[at]) ^ mask);
      expect_documented(flipped, "byte " + std::to_string(at) + " mask " + std::to_string(mask));
    }
  }
}

TEST_F(DamagedIndexTest, RecordsReplacedByGarbage) {
  std::mt19937 random = seeded(5);
  for (int i = 0; i < 300; ++i) {
    std::string garbage(below(random, 60), '\0');
    const std::string letters = "0123456789-,;\n\r xA\xff" + std::string(1, '\0');
    for (char& c : garbage) c = i % 2 == 0 ? static_cast<char>(random()) : letters[below(random, letters.size())];
    const size_t number = below(random, packets.size());
    expect_documented(with_record(number, garbage), "seed 5, round " + std::to_string(i));
  }
}

TEST_F(DamagedIndexTest, RecordsOfRandomNumbers) {
  std::mt19937_64 random(seeded(6)());
  const long long edges[] = {0,       1,         -1,        2,          4,        5,           48,   INT_MAX,
                             INT_MIN, LLONG_MAX, LLONG_MIN, 4294967296, 10000000, -4294967297, 1000, INT_MAX - 1};
  for (int i = 0; i < 300; ++i) {
    std::string record;
    for (int field = 0; field < 7; ++field) {
      const long long value =
          random() % 3 == 0 ? static_cast<long long>(random() >> random() % 64) : edges[random() % std::size(edges)];
      record += std::to_string(value) + (field < 6 ? "," : ";");
    }
    expect_documented(with_record(random() % packets.size(), record), record);
  }
}

/// A record in place of one of the index. "S" stands for the size that the replaced one had.
struct RecordCase {
  const char* name;
  const char* record;
  bool line_only;  ///< it costs the rest of its line, to the packet, and nothing else
};

class StrangeRecord : public DamagedIndexTest, public testing::WithParamInterface<RecordCase> {
 protected:
  std::string record_for(size_t number) const {
    std::string text = GetParam().record;
    const size_t at = text.find('S');
    return at == std::string::npos ? text : text.replace(at, 1, std::to_string(packets[number].size));
  }
  /// The first record behind the line of this one.
  size_t line_end(size_t number) const {
    size_t end = 0;
    for (const std::string& line : IndexReader(index_bytes).body_lines) {
      end += static_cast<size_t>(std::count(line.begin(), line.end(), ';'));
      if (end > number) break;
    }
    return end;
  }
};

TEST_P(StrangeRecord, CostsItselfOrItsLine) {
  for (const size_t number : {size_t{1}, packets.size() / 2, packets.size() - 1}) {
    const Outcome outcome = repair_index(with_record(number, record_for(number)));
    ASSERT_EQ(outcome.problem, "") << number;
    ASSERT_EQ(outcome.code, 0) << number;
    EXPECT_GE(outcome.packets, number) << number;
    EXPECT_EQ(run_command("ffprobe -v quiet -show_streams " + quoted(recording.output)).status, 0) << number;
    if (!GetParam().line_only) continue;
    EXPECT_EQ(outcome.packets, number + packets.size() - line_end(number)) << number;
    const auto restored = sorted_samples(recording.output);
    const auto named = sorted_named_bytes(recording.index, recording.broken);
    EXPECT_TRUE(std::includes(named.begin(), named.end(), restored.begin(), restored.end())) << number;
  }
}

TEST_P(StrangeRecord, MayBeTheFirst) {
  const Outcome outcome = repair_index(with_record(0, record_for(0)));
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.code, 0);
}

INSTANTIATE_TEST_SUITE_P(
    All, StrangeRecord,
    testing::Values(
        RecordCase{"NegativePosition", ",-48,S,512,,512,;", true},
        RecordCase{"PositionThatNoFileHas", ",9223372036854775807,S,512,,512,;", false},
        RecordCase{"HugePosition", ",70368744177664,S,512,,512,;", false},
        RecordCase{"NegativeSize", ",,-100,512,,512,;", false},
        RecordCase{"LowestSize", ",,-2147483648,512,,512,;", false}, RecordCase{"ZeroSize", ",,,512,,512,;", false},
        RecordCase{"HugeSize", ",,2147483647,512,,512,;", false},
        RecordCase{"Overlapping", ",50,3000,512,,512,;", false}, RecordCase{"IndexMinus1", "-1,,S,512,,512,;", true},
        RecordCase{"Index2", "2,,S,512,,512,;", true}, RecordCase{"Index4", "4,,S,512,,512,;", true},
        RecordCase{"Index5", "5,,S,512,,512,;", true}, RecordCase{"IndexHuge", "2147483647,,S,512,,512,;", true},
        RecordCase{"IndexLowest", "-2147483648,,S,512,,512,;", true},
        RecordCase{"TimesHuge", ",,S,9223372036854775807,9223372036854775807,9223372036854775807,;", false},
        RecordCase{"TimesLow", ",,S,-9223372036854775808,-9223372036854775808,-9223372036854775808,;", false}),
    [](const auto& test) { return test.param.name; });

TEST_F(DamagedIndexTest, LinesLongerThan8192Bytes) {
  std::string joined = body();
  joined.erase(std::remove(joined.begin(), joined.end(), '\n'), joined.end());
  const Outcome outcome = repair_index(header() + joined + "\n");
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.code, 0);
  for (const char* unit : {"1", ",", ";", "x", ",,1,1,1,1,;", "{", "#"}) {
    std::string line;
    while (line.size() < 100000) line += unit;
    for (const std::string& text :
         {header() + line, header() + line + "\n" + body(), line + "\n" + header() + body()}) {
      expect_documented(text, unit);
    }
  }
}

class IndexVersionTest : public DamagedIndexTest, public testing::WithParamInterface<const char*> {};

TEST_P(IndexVersionTest, OfAnotherFormatRestoresNothing) {
  std::string other = index_bytes;
  other.replace(other.find("version=2"), 9, std::string("version=") + GetParam());
  const Outcome outcome = repair_index(other);
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.packets, 0U);
}

INSTANTIATE_TEST_SUITE_P(Numbers, IndexVersionTest, testing::Values("0", "3", "-1", "", "99999999999999999999"));

class FirstVersionTest : public DamagedIndexTest {
 protected:
  /// The same packets, every field written.
  std::string first_version() const {
    std::string text = header();
    text.replace(text.find("version=2"), 9, "version=1");
    int64_t end = 0;
    int in_line = 0;
    for (const IndexReader::Record& r : IndexReader(index_bytes).records) {
      const int64_t position = r.pos != 0 ? r.pos : end;
      end = position + r.size;
      for (const int64_t value : {int64_t{r.stream}, position, r.size, r.pts_delta, r.dts_delta, r.duration}) {
        text += std::to_string(value) + ",";
      }
      text += std::to_string(r.key) + (++in_line % 30 == 0 ? ";\n" : ";");
    }
    return text;
  }
};

TEST_F(FirstVersionTest, GivesBackEveryPacket) {
  const Outcome outcome = repair_index(first_version());
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.packets, packets.size());
  EXPECT_EQ(sorted_samples(recording.output), sorted_named_bytes(recording.index, recording.broken));
  EXPECT_EQ(decode_errors(recording.output), "");
}

TEST_F(FirstVersionTest, DamagedLikeTheSecond) {
  std::mt19937 random = seeded(7);
  const std::string text = first_version();
  for (int i = 0; i < 200; ++i) {
    std::string damaged = text;
    damaged[below(random, damaged.size())] = static_cast<char>(random());
    expect_documented(i % 2 == 0 ? damaged : text.substr(0, below(random, text.size())), std::to_string(i));
  }
}

TEST_F(FirstVersionTest, OneVersionsRecordsUnderTheOthersNumber) {
  std::string text = first_version();
  text.replace(text.find("version=1"), 9, "version=2");
  expect_documented(text, "1 as 2");
  text = index_bytes;
  text.replace(text.find("version=2"), 9, "version=1");
  expect_documented(text, "2 as 1");
}

TEST_F(DamagedIndexTest, NoFileAtAll) {
  EXPECT_EQ(repair_index("").code, MERU_REPAIR_NO_INDEX);
  EXPECT_EQ(repair_files(recording.broken, recording.path()).code, MERU_REPAIR_NO_INDEX);
  EXPECT_EQ(repair_files(recording.broken, recording.file("none.idx")).code, MERU_REPAIR_NO_INDEX);
  EXPECT_EQ(repair_files(recording.broken, "").code, MERU_REPAIR_NO_INDEX);
  EXPECT_EQ(repair_files(recording.broken, recording.broken).code, MERU_REPAIR_NO_INDEX);
}

}  // namespace
}  // namespace meru_test

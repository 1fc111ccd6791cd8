#include "MVRepair/restore/packet_record.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace {

using Fields = std::vector<int64_t>;

std::vector<Fields> records_of(const std::string& line, int version) {
  RecordReader reader(line.c_str(), version);
  std::vector<Fields> all;
  PacketRecord r;
  while (reader.next(&r)) {
    all.push_back({r.stream_index, r.position, r.size, r.pts_delta, r.dts_delta, r.duration, r.key_flag});
  }
  return all;
}

struct LineCase {
  const char* name;
  int version;
  std::string line;
  std::vector<Fields> records;
};

class RecordLine : public testing::TestWithParam<LineCase> {};

TEST_P(RecordLine, GivesTheseRecords) {
  EXPECT_EQ(records_of(GetParam().line, GetParam().version), GetParam().records);
}

std::string name_of(const testing::TestParamInfo<LineCase>& info) { return info.param.name; }

// A field of value 0 is nothing at all.
INSTANTIATE_TEST_SUITE_P(
    Version2, RecordLine,
    testing::Values(LineCase{"FirstOfAFile", 2, ",48,1234,,,512,1;", {{0, 48, 1234, 0, 0, 512, 1}}},
                    LineCase{"OnlyASize", 2, ",,77,,,,;", {{0, 0, 77, 0, 0, 0, 0}}},
                    LineCase{"AllZero", 2, ",,,,,,;", {{0, 0, 0, 0, 0, 0, 0}}},
                    LineCase{"ZerosWritten", 2, "0,0,0,0,0,0,0;", {{0, 0, 0, 0, 0, 0, 0}}},
                    LineCase{"Negative", 2, "-1,-2,-3,-4,-5,-6,-7;", {{-1, -2, -3, -4, -5, -6, -7}}},
                    LineCase{
                        "Several", 2, ",48,9,,,,1;1,,8,1024,,,;\n", {{0, 48, 9, 0, 0, 0, 1}, {1, 0, 8, 1024, 0, 0, 0}}},
                    LineCase{"CarriageReturn", 2, ",,9,,,,;\r\n", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"Widest",
                             2,
                             "2147483647,9223372036854775807,2147483647,-9223372036854775808,-9223372036854775808,"
                             "9223372036854775807,-2147483648;",
                             {{INT_MAX, INT64_MAX, INT_MAX, INT64_MIN, INT64_MIN, INT64_MAX, INT_MIN}}}),
    name_of);

// What is no record ends the line, and what stood before it counts.
INSTANTIATE_TEST_SUITE_P(
    Version2Ends, RecordLine,
    testing::Values(LineCase{"Empty", 2, "", {}}, LineCase{"LineFeed", 2, "\n", {}}, LineCase{"Return", 2, "\r\n", {}},
                    LineCase{"FieldBeginsWithEnd", 2, ",,9,,,,;,,8,", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"FieldBeginsWithLineFeed", 2, ",,9,,,,;,,\n5,,,,;", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"FieldBeginsWithReturn", 2, ",,9,,,,;,,\r5,,,,;", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"CutInsideANumber", 2, ",,9,,,,;,,8,1024,,51", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"CutBeforeTheSemicolon", 2, ",,9,,,,1", {{0, 0, 9, 0, 0, 0, 1}}},
                    LineCase{"CutBeforeAnEmptyFlag", 2, ",,9,,,,", {}},
                    LineCase{"CutBeforeTheLineFeed", 2, ",,9,,,,1\n", {{0, 0, 9, 0, 0, 0, 1}}},
                    LineCase{"TooFewFields", 2, ",,9,,,;,,8,,,,;", {}},
                    LineCase{"TooManyFields", 2, ",,9,,,,,;,,8,,,,;", {}},
                    LineCase{"Letters", 2, ",,9,,,,;,,a,,,,;,,7,,,,;", {{0, 0, 9, 0, 0, 0, 0}}},
                    LineCase{"LettersBehindANumber", 2, ",,9a,,,,;", {}},
                    LineCase{"SizeBeyond32Bits", 2, ",,2147483648,,,,;,,9,,,,;", {}},
                    LineCase{"IndexBeyond32Bits", 2, "4294967296,,9,,,,;", {}},
                    LineCase{"FlagBelow32Bits", 2, ",,9,,,,-2147483649;", {}},
                    LineCase{"PositionBeyond64Bits", 2, ",9223372036854775808,9,,,,;", {}}),
    name_of);

// Every field is written; a record counts when at least one field can be read.
INSTANTIATE_TEST_SUITE_P(
    Version1, RecordLine,
    testing::Values(LineCase{"FirstOfAFile", 1, "0,48,1234,0,0,512,1;", {{0, 48, 1234, 0, 0, 512, 1}}},
                    LineCase{"Several",
                             1,
                             "0,48,9,0,0,0,1;1,57,8,1024,1024,0,0;\n",
                             {{0, 48, 9, 0, 0, 0, 1}, {1, 57, 8, 1024, 1024, 0, 0}}},
                    LineCase{"Negative", 1, "0,48,9,-1024,-1024,0,1;", {{0, 48, 9, -1024, -1024, 0, 1}}},
                    LineCase{"Empty", 1, "", {}}, LineCase{"NoNumber", 1, "x;0,1,2,3,4,5,6;", {}},
                    LineCase{"EmptyFirstField", 1, ",48,9,0,0,0,1;", {}},
                    LineCase{
                        "FieldsMissing", 1, "1,48;0,57,9,0,0,0,0;", {{1, 48, 0, 0, 0, 0, 0}, {0, 57, 9, 0, 0, 0, 0}}},
                    LineCase{"EmptyFieldEndsTheRecord",
                             1,
                             "1,,9,5,5,5,1;0,57,9,0,0,0,0;",
                             {{1, 0, 0, 0, 0, 0, 0}, {0, 57, 9, 0, 0, 0, 0}}},
                    LineCase{"CutBehindTheSize", 1, "1,48,9", {{1, 48, 9, 0, 0, 0, 0}}},
                    LineCase{"SizeBeyond32Bits", 1, "1,48,2147483648,0,0,0,0;0,57,9,0,0,0,0;", {}}),
    name_of);

TEST(RecordReader, TellsWhatStandsBehindTheRecord) {
  RecordReader reader(",48,9,,,,1;1,,8,,,,;\n", 2);
  PacketRecord record;
  ASSERT_TRUE(reader.next(&record));
  EXPECT_STREQ(reader.rest(), "1,,8,,,,;\n");
  ASSERT_TRUE(reader.next(&record));
  EXPECT_STREQ(reader.rest(), "\n");
  EXPECT_FALSE(reader.next(&record));
  EXPECT_EQ(reader.damaged(), nullptr);
}

TEST(RecordReader, DoesNotGoOnBehindARecordThatCannotBeRead) {
  RecordReader reader("x;,,9,,,,;", 2);
  PacketRecord record;
  EXPECT_FALSE(reader.next(&record));
  EXPECT_FALSE(reader.next(&record));
  EXPECT_STREQ(reader.damaged(), "x;,,9,,,,;");
}

TEST(RecordReader, KeepsWithinALineCutAnywhere) {
  const std::string line = "1,48,1234,-1024,-1024,1024,1;,,764,,,512,1;";
  for (const int version : {1, 2}) {
    for (size_t length = 0; length <= line.size(); ++length) {
      const auto records = records_of(line.substr(0, length), version);
      const long whole = length + 1 >= line.size() ? 2 : length >= 28 ? 1 : 0;  // the semicolon may be missing
      if (version == 2) {
        EXPECT_EQ(static_cast<long>(records.size()), whole) << length;
      }
      EXPECT_LE(records.size(), 2U) << length;
    }
  }
}

}  // namespace

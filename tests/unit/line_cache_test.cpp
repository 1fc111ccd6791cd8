#include "AVSnapshot/line_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

namespace {

constexpr size_t kMostCharacters = 1023;  // 1024 bytes less the terminator

struct NumberCase {
  long long value;
  const char* expected;
};

class LineCacheNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(LineCacheNumber, IsDecimalAndEmptyForZero) {
  LineCache cache;
  cache.write_int64(GetParam().value, ',');
  EXPECT_STREQ(cache.data(), GetParam().expected);
  EXPECT_EQ(cache.size(), strlen(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(Numbers, LineCacheNumber,
                         testing::Values(NumberCase{0, ","}, NumberCase{1, "1,"}, NumberCase{-1, "-1,"},
                                         NumberCase{48, "48,"}, NumberCase{4294967296LL, "4294967296,"},
                                         NumberCase{std::numeric_limits<long long>::max(), "9223372036854775807,"},
                                         NumberCase{std::numeric_limits<long long>::min(), "-9223372036854775808,"}));

TEST(LineCache, StartsAsAnEmptyText) {
  const LineCache cache;
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_STREQ(cache.data(), "");
}

TEST(LineCache, HoldsARecordOfSevenFields) {
  LineCache cache;
  cache.write_int(0, ',');
  cache.write_int64(48, ',');
  cache.write_int64(1234, ',');
  cache.write_int64(0, ',');
  cache.write_int64(0, ',');
  cache.write_int64(512, ',');
  cache.write_int(1, ';');
  EXPECT_STREQ(cache.data(), ",48,1234,,,512,1;");
  EXPECT_EQ(cache.size(), 17U);
}

TEST(LineCache, WritesTheSmallestInt) {
  LineCache cache;
  cache.write_int(std::numeric_limits<int>::min(), ';');
  EXPECT_STREQ(cache.data(), "-2147483648;");
}

TEST(LineCache, IsEmptyAfterAReset) {
  LineCache cache;
  cache.write_int(5, ',');
  cache.reset();
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_STREQ(cache.data(), "");
  cache.write_int(6, ';');
  EXPECT_STREQ(cache.data(), "6;");
}

TEST(LineCache, NeverHoldsMoreThanItsRoomAndStaysTerminated) {
  for (int filled = 1000; filled <= 1030; ++filled) {
    LineCache cache;
    for (int i = 0; i < filled; ++i) cache.write_int(0, ',');
    EXPECT_EQ(cache.size(), std::min(static_cast<size_t>(filled), kMostCharacters));
    cache.write_int64(std::numeric_limits<long long>::min(), ';');
    EXPECT_LE(cache.size(), kMostCharacters);
    EXPECT_EQ(strlen(cache.data()), cache.size());
  }
}

TEST(LineCache, TakesANumberThatJustFits) {
  LineCache cache;
  for (size_t i = 0; i < kMostCharacters - 5; ++i) cache.write_int(0, ',');
  cache.write_int(1234, ';');
  EXPECT_EQ(cache.size(), kMostCharacters);
  EXPECT_EQ(std::string(cache.data()).substr(kMostCharacters - 5), "1234;");
}

}  // namespace

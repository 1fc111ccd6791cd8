#include "common/printf_i64.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

struct ExpandCase {
  const char* format;
  const char* expected;
  bool has;
};

class ExpandI64 : public testing::TestWithParam<ExpandCase> {};

TEST_P(ExpandI64, ReplacesOnlyTheConversion) {
  EXPECT_EQ(nuv::expand_i64(GetParam().format), GetParam().expected);
  EXPECT_EQ(nuv::has_i64(GetParam().format), GetParam().has);
}

INSTANTIATE_TEST_SUITE_P(Formats, ExpandI64,
                         testing::Values(ExpandCase{"", "", false}, ExpandCase{"%", "%", false},
                                         ExpandCase{"plain", "plain", false}, ExpandCase{"%d %s", "%d %s", false},
                                         ExpandCase{"I64d", "I64d", false}, ExpandCase{"%I64", "%I64", false},
                                         ExpandCase{"%I64u", "%I64u", false}, ExpandCase{"%I64d", "%lld", true},
                                         ExpandCase{"a=%I64d, b=%I64d.", "a=%lld, b=%lld.", true},
                                         ExpandCase{"%I64d%I64d", "%lld%lld", true},
                                         ExpandCase{"%d%I64d%s", "%d%lld%s", true},
                                         ExpandCase{"%%I64d", "%%I64d", true}, ExpandCase{"%%%I64d", "%%%lld", true},
                                         ExpandCase{"%%%%I64d", "%%%%I64d", true}));

TEST(PrintStderr, PrintsValuesThatNeed64Bits) {
  testing::internal::CaptureStderr();
  nuv::print_stderr("%s=%I64d,%I64d %d\n", "pts", std::numeric_limits<long long>::min(), 4294967296LL, 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "pts=-9223372036854775808,4294967296 7\n");
}

TEST(PrintStderr, PrintsAsPrintfDoesWithoutTheConversion) {
  testing::internal::CaptureStderr();
  nuv::print_stderr("[auto] v_bitrate=%d\n", 12);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[auto] v_bitrate=12\n");
}

TEST(PrintStderr, LeavesAnEscapedPercentSignAlone) {
  testing::internal::CaptureStderr();
  nuv::print_stderr("%%I64d %I64d\n", 5LL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "%I64d 5\n");
}

}  // namespace

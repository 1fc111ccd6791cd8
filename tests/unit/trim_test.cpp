#include "common/trim.h"

#include <gtest/gtest.h>

namespace {

struct TrimCase {
  const char* text;
  const char* expected;
};

class Trim : public testing::TestWithParam<TrimCase> {};

TEST_P(Trim, CutsBothEnds) { EXPECT_EQ(nuv::str::trim2(GetParam().text, "\" \n"), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(Texts, Trim,
                         testing::Values(TrimCase{"", ""}, TrimCase{"a", "a"}, TrimCase{" \"a b\"\n", "a b"},
                                         TrimCase{"   ", ""}, TrimCase{" ", ""}, TrimCase{"a ", "a"},
                                         TrimCase{" a", "a"}, TrimCase{"a\nb", "a\nb"}));

TEST(TrimWithoutCharacters, LeavesTheTextAlone) {
  EXPECT_EQ(nuv::str::trim2(" a ", ""), " a ");
  EXPECT_EQ(nuv::str::trim2(" a ", nullptr), " a ");
}

}  // namespace

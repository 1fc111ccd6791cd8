#include "AVSnapshot/tiny_json.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(TinyJsonWriter, WithoutMembersIsTwoBraces) {
  const tiny::TinyJson json;
  EXPECT_EQ(json.WriteJson(), "{}");
  EXPECT_EQ(json.WriteJson(tiny::TinyJson::kArray), "[]");
  EXPECT_EQ(json.WriteJson(tiny::TinyJson::kNone), "");
}

TEST(TinyJsonWriter, QuotesTextsAndNotIntegers) {
  tiny::TinyJson json;
  json["type"] = "video";
  json["index"] = 0;
  json["codec"] = std::string("h264");
  json["tb.den"] = 15360;
  json["qv"] = "";
  EXPECT_EQ(json.WriteJson(), R"({"type":"video","index":0,"codec":"h264","tb.den":15360,"qv":""})");
}

TEST(TinyJsonWriter, WritesTheSmallestAndTheLargestIntegers) {
  tiny::TinyJson json;
  json["a"] = std::numeric_limits<int>::min();
  json["b"] = std::numeric_limits<long long>::max();
  json["c"] = std::numeric_limits<long long>::min();
  EXPECT_EQ(json.WriteJson(), R"({"a":-2147483648,"b":9223372036854775807,"c":-9223372036854775808})");
}

TEST(TinyJsonWriter, PutsTextsAsTheyAreWithoutEscaping) {
  tiny::TinyJson json;
  json["key"] = "a\\b\tc, {d}";
  EXPECT_EQ(json.WriteJson(), "{\"key\":\"a\\b\tc, {d}\"}");
}

TEST(TinyJsonWriter, KeepsTheOrderInWhichMembersWereAdded) {
  tiny::TinyJson json;
  json["z"] = 1;
  json["a"] = 2;
  json["m"] = 3;
  EXPECT_EQ(json.WriteJson(), R"({"z":1,"a":2,"m":3})");
}

TEST(TinyJsonWriter, AddsAMemberForEveryUseOfAKey) {
  tiny::TinyJson json;
  json["key"] = 1;
  json["key"] = 2;
  EXPECT_EQ(json.WriteJson(), R"({"key":1,"key":2})");
}

TEST(TinyJsonWriter, SettingAValueAgainReplacesItsText) {
  tiny::TinyJson json;
  tiny::Value& first = json["key"];
  json["other"] = 5;
  first = 1;
  first = "two";
  EXPECT_EQ(first.text(), R"("key":"two")");
  EXPECT_EQ(json.WriteJson(), R"({"key":"two","other":5})");
}

TEST(TinyJsonWriter, BecomesAnArrayWithAnEmptyKey) {
  tiny::TinyJson json;
  EXPECT_FALSE(json.is_array());
  json[""] = 1;
  json[""] = "two";
  EXPECT_TRUE(json.is_array());
  EXPECT_EQ(json.WriteJson(tiny::TinyJson::kArray), R"([1,"two"])");
}

struct BracketCase {
  int kind;
  const char* expected;
};

class TinyJsonBrackets : public testing::TestWithParam<BracketCase> {};

TEST_P(TinyJsonBrackets, FollowTheKind) {
  tiny::TinyJson json;
  json["a"] = 1;
  json["b"] = "x";
  EXPECT_EQ(json.WriteJson(GetParam().kind), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Kinds, TinyJsonBrackets,
                         testing::Values(BracketCase{0, R"("a":1,"b":"x")"}, BracketCase{1, R"({"a":1,"b":"x"})"},
                                         BracketCase{2, R"(["a":1,"b":"x"])"}));

}  // namespace

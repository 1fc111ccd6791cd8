#include <gtest/gtest.h>

#include "AVSnapshot/tiny_json.h"

namespace {

struct AcceptCase {
  const char* text;
  bool accepted;
};

class ParseJsonAccepts : public testing::TestWithParam<AcceptCase> {};

TEST_P(ParseJsonAccepts, ObjectsAndNothingElse) {
  tiny::TinyJson json;
  EXPECT_EQ(json.ReadJson(GetParam().text), GetParam().accepted) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseJsonAccepts,
    testing::Values(AcceptCase{"{}", true}, AcceptCase{"{ }", true}, AcceptCase{R"({"a":1})", true},
                    AcceptCase{R"( { "a" : 1 , "b" : "x" } )", true},
                    AcceptCase{R"({"a":[1,[2,3]],"b":{"c":"x"}})", true}, AcceptCase{R"({"a":})", false},
                    AcceptCase{R"({"a"})", false}, AcceptCase{R"({a:1})", false}, AcceptCase{R"({"a":1 "b":2})", true},
                    AcceptCase{R"({"a":"x" "b":2})", false}, AcceptCase{R"({"a":"x})", false},
                    AcceptCase{R"({"a":[1})", false}, AcceptCase{"", false}, AcceptCase{"}{", false},
                    AcceptCase{"{", false}, AcceptCase{"\n", false}, AcceptCase{",48,1234,,,512,1;", false}));

TEST(TinyJsonReader, ReadsBackEveryLineThatTheWriterProduces) {
  tiny::TinyJson out;
  out["type"] = "audio";
  out["index"] = 1;
  out["tb.den"] = 48000;
  out["negative"] = -7;
  out["qv"] = "EZA=";
  out["empty"] = "";
  tiny::TinyJson in;
  ASSERT_TRUE(in.ReadJson(out.WriteJson() + "\n"));
  EXPECT_EQ(in.Get<std::string>("type"), "audio");
  EXPECT_EQ(in.Get<int>("index"), 1);
  EXPECT_EQ(in.Get<int>("tb.den"), 48000);
  EXPECT_EQ(in.Get<int>("negative"), -7);
  EXPECT_EQ(in.Get<std::string>("qv"), "EZA=");
  EXPECT_EQ(in.Get<std::string>("empty", "absent"), "");
}

TEST(TinyJsonReader, AbsentAndUnusableMembersGiveTheDefault) {
  tiny::TinyJson in;
  ASSERT_TRUE(in.ReadJson(R"({"text":"abc","huge":99999999999999})"));
  EXPECT_EQ(in.Get<int>("none"), 0);
  EXPECT_EQ(in.Get<int>("none", 5), 5);
  EXPECT_EQ(in.Get<int>("text", 5), 5);
  EXPECT_EQ(in.Get<int>("huge", 5), 5);
  EXPECT_EQ(in.Get<std::string>("none"), "");
}

TEST(TinyJsonReader, TheFirstMemberOfAKeyCounts) {
  tiny::TinyJson in;
  ASSERT_TRUE(in.ReadJson(R"({"a":1,"a":2})"));
  EXPECT_EQ(in.Get<int>("a"), 1);
}

TEST(TinyJsonReader, KnowsTrueAndFalseAndKeepsNestedValuesWhole) {
  tiny::TinyJson in;
  ASSERT_TRUE(in.ReadJson(R"({"t":true,"f":false,"list":[1,[2]],"object":{"a":{"b":1}},"last":3})"));
  EXPECT_EQ(in.Get<int>("t"), 1);
  EXPECT_EQ(in.Get<int>("f", 9), 0);
  EXPECT_EQ(in.Get<std::string>("t"), "true");
  EXPECT_EQ(in.Get<std::string>("list"), "[1,[2]]");
  EXPECT_EQ(in.Get<std::string>("object"), R"({"a":{"b":1}})");
  EXPECT_EQ(in.Get<int>("last"), 3);
}

}  // namespace

#include "AVSnapshot/base64.h"

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/base64.h>
}

namespace {

std::string encoded(const std::string& in) {
  std::string out = "left from before";
  EXPECT_TRUE(Base64::Encode(in, out));
  return out;
}

struct Base64Case {
  std::string plain;
  const char* expected;
};

class Base64Text : public testing::TestWithParam<Base64Case> {};

TEST_P(Base64Text, IsPaddedAndWithoutLineBreaks) {
  EXPECT_EQ(encoded(GetParam().plain), GetParam().expected);
  EXPECT_EQ(Base64::EncodedLength(GetParam().plain.size()), encoded(GetParam().plain).size());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Base64Text,
    testing::Values(Base64Case{"", ""}, Base64Case{"f", "Zg=="}, Base64Case{"fo", "Zm8="}, Base64Case{"foo", "Zm9v"},
                    Base64Case{"foob", "Zm9vYg=="}, Base64Case{"fooba", "Zm9vYmE="}, Base64Case{"foobar", "Zm9vYmFy"},
                    Base64Case{std::string("\x11\x90"), "EZA="}, Base64Case{std::string("\0\0\0\x01g", 5), "AAAAAWc="},
                    Base64Case{std::string("\xff\xff\xff"), "////"}, Base64Case{std::string("\xfb\xef\xbe"), "++++"}));

TEST(Base64Encode, DecodesBackForEveryByteAndLength) {
  std::string plain;
  for (int i = 0; i < 300; ++i) {
    const std::string text = encoded(plain);
    ASSERT_EQ(text.size(), (plain.size() + 2) / 3 * 4);
    ASSERT_EQ(text.find('\n'), std::string::npos);
    std::vector<uint8_t> back(text.size() + 1);
    ASSERT_EQ(av_base64_decode(back.data(), text.c_str(), static_cast<int>(back.size())),
              static_cast<int>(plain.size()));
    ASSERT_EQ(std::string(back.begin(), back.begin() + static_cast<std::ptrdiff_t>(plain.size())), plain);
    plain += static_cast<char>(i);
  }
}

}  // namespace

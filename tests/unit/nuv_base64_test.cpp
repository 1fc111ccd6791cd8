#include "MVRepair/restore/nuv_base64.h"

#include <gtest/gtest.h>

#include <random>

namespace {

TEST(NuvBase64, EmptyStaysEmptyBothWays) {
  EXPECT_EQ(nuv::Base64::encode(""), "");
  EXPECT_EQ(nuv::Base64::decode(""), "");
}

TEST(NuvBase64, DecodesWhatItEncodesAtEveryLength) {
  std::mt19937 random(7);
  for (size_t n = 0; n < 200; ++n) {
    std::string bytes(n, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    const std::string text = nuv::Base64::encode(bytes);
    EXPECT_EQ(text.size(), (n + 2) / 3 * 4);
    EXPECT_EQ(nuv::Base64::decode(text), bytes);
  }
}

TEST(NuvBase64, KnowsThePublishedExamples) {
  EXPECT_EQ(nuv::Base64::encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(nuv::Base64::encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(nuv::Base64::encode("foob"), "Zm9vYg==");
  EXPECT_EQ(nuv::Base64::decode("EZA="), std::string("\x11\x90"));
}

TEST(NuvBase64, InvalidInputGivesNothing) {
  for (const char* text : {"!!!!", "Zm9v!", "\x01"}) EXPECT_EQ(nuv::Base64::decode(text), "") << text;
}

TEST(NuvBase64, DecoderReportsInvalidInputAndKeepsWithinTheBuffer) {
  unsigned char out[4] = {0xee, 0xee, 0xee, 0xee};
  EXPECT_LT(pri_::av_base64_decode(out, "Zm9*", 3), 0);
  EXPECT_EQ(pri_::av_base64_decode(out, "Zm9v", 3), 3);
  EXPECT_EQ(out[3], 0xee);
}

}  // namespace

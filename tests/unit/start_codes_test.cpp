#include "raw_packets/start_codes.h"

#include <gtest/gtest.h>

#include "support/case_name.h"

namespace {

std::string bytes(const char* text, size_t size) { return {text, size}; }
#define BYTES(text) bytes(text, sizeof(text) - 1)

struct StartCodeCase {
  const char* name;
  std::string given, expected;
};
void PrintTo(const StartCodeCase& c, std::ostream* out) { *out << c.name; }

class StartCodes : public testing::TestWithParam<StartCodeCase> {};

TEST_P(StartCodes, HaveFourBytes) { EXPECT_EQ(with_long_start_codes(GetParam().given), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Texts, StartCodes,
    testing::Values(StartCodeCase{"nothing", "", ""}, StartCodeCase{"none", "abc", "abc"},
                    StartCodeCase{"three", BYTES("\0\0\1\x67xy\0\0\1\x68z"), BYTES("\0\0\0\1\x67xy\0\0\0\1\x68z")},
                    StartCodeCase{"four", BYTES("\0\0\0\1\x67xy\0\0\0\1\x68z"), BYTES("\0\0\0\1\x67xy\0\0\0\1\x68z")},
                    StartCodeCase{"mixed", BYTES("\0\0\0\1\x67\0\0\1\x68"), BYTES("\0\0\0\1\x67\0\0\0\1\x68")},
                    StartCodeCase{"last", BYTES("a\0\0\1"), BYTES("a\0\0\0\1")}),
    meru_test::CaseName());

class LengthenedParameters : public testing::Test {
 protected:
  void SetUp() override { m_par = avcodec_parameters_alloc(); }
  void TearDown() override { avcodec_parameters_free(&m_par); }
  void set(AVCodecID codec, const std::string& extradata) {
    m_par->codec_id = codec;
    m_par->extradata = static_cast<uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    m_par->extradata_size = static_cast<int>(extradata.size());
    extradata.copy(reinterpret_cast<char*>(m_par->extradata), extradata.size());
  }
  std::string extradata() const {
    return {reinterpret_cast<const char*>(m_par->extradata), static_cast<size_t>(m_par->extradata_size)};
  }
  AVCodecParameters* m_par = nullptr;
};

TEST_F(LengthenedParameters, OfH264InAnnexB) {
  set(AV_CODEC_ID_H264, BYTES("\0\0\1\x67x\0\0\1\x68y"));
  EXPECT_EQ(lengthen_start_codes(m_par), 0);
  EXPECT_EQ(extradata(), BYTES("\0\0\0\1\x67x\0\0\0\1\x68y"));
  for (int i = 0; i < AV_INPUT_BUFFER_PADDING_SIZE; ++i) EXPECT_EQ(m_par->extradata[m_par->extradata_size + i], 0);
}

TEST_F(LengthenedParameters, NotOfAnythingElse) {
  set(AV_CODEC_ID_HEVC, BYTES("\0\0\1\x67x"));
  EXPECT_EQ(lengthen_start_codes(m_par), 0);
  EXPECT_EQ(extradata(), BYTES("\0\0\1\x67x"));
}

TEST_F(LengthenedParameters, NotOfH264InLengthPrefixedForm) {
  set(AV_CODEC_ID_H264, BYTES("\1\0\0\1\x67x"));
  EXPECT_EQ(lengthen_start_codes(m_par), 0);
  EXPECT_EQ(extradata(), BYTES("\1\0\0\1\x67x"));
}

struct PrefixCase {
  const char* name;
  std::string packet;
  bool prefixed;
};
void PrintTo(const PrefixCase& c, std::ostream* out) { *out << c.name; }

class LengthPrefix : public testing::TestWithParam<PrefixCase> {};

TEST_P(LengthPrefix, IsRecognized) {
  const std::string& packet = GetParam().packet;
  EXPECT_EQ(looks_length_prefixed(reinterpret_cast<const uint8_t*>(packet.data()), packet.size()), GetParam().prefixed);
}

INSTANTIATE_TEST_SUITE_P(Packets, LengthPrefix,
                         testing::Values(PrefixCase{"nothing", "", false}, PrefixCase{"byte", "a", false},
                                         PrefixCase{"one_unit", BYTES("\0\0\0\3\x65xy"), true},
                                         PrefixCase{"two_units", BYTES("\0\0\0\2\x67x\0\0\0\3\x65xy"), true},
                                         PrefixCase{"record", BYTES("\1\x64\0\x1f\xff\xe1\0\1x"), true},
                                         PrefixCase{"start_code", BYTES("\0\0\0\1\x67"), false},
                                         PrefixCase{"short_start_code", BYTES("\0\0\1\x67xy"), false},
                                         PrefixCase{"many_zeros", BYTES("\0\0\0\0\0\1\x67"), false},
                                         PrefixCase{"length_beyond_the_end", BYTES("\0\0\0\4\x65xy"), false},
                                         PrefixCase{"rest", BYTES("\0\0\0\2\x65xyz"), false},
                                         PrefixCase{"no_length", BYTES("\0\0\0\0\x65"), false},
                                         PrefixCase{"huge_length", BYTES("\xff\xff\xff\xff\x65xy"), false},
                                         PrefixCase{"forbidden_bit", BYTES("\0\0\0\3\xe5xy"), false},
                                         PrefixCase{"text", "this is no packet at all", false}),
                         meru_test::CaseName());

}  // namespace

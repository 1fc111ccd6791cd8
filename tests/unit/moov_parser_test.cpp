#include "MVRepair/restore/moov_parser.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "MVRepair/restore/nuv_base64.h"
#include "support/log_capture.h"
#include "support/meru_tool.h"
#include "support/temp_dir.h"

namespace {

using meru_test::LogCapture;
using meru_test::TempDir;

constexpr char kComment[] = "## version=2, example.invalid\n";
constexpr char kVideo[] =
    R"({"type":"video","index":0,"codec":"h264","format":"yuv420p","h":1080,"w":1920,"tb.num":1,"tb.den":15360,)"
    R"("qv":"AAAAAWdkAAystCPQgAAAAwCAAAAeB4oVUAAAAAFo7zyw"})"
    "\n";
constexpr char kAudio[] =
    R"({"type":"audio","index":1,"codec":"aac","format":"fltp","channels":2,"frame_size":1024,"sample_rate":44100,)"
    R"("tb.num":3,"tb.den":48000,"qv":"EZA="})"
    "\n";
constexpr char kRecord[] = ",48,9,,,512,1;";

std::string video_line(const std::string& qv) {
  return R"({"type":"video","index":0,"codec":"h264","qv":")" + qv + "\"}\n";
}
std::string video_line_of(const std::string& extradata) { return video_line(nuv::Base64::encode(extradata)); }

/// A parser and the file that it is given.
class MoovParserTest : public testing::Test {
 protected:
  bool start(const std::string& text) {
    meru_test::write_file(path(), text);
    return parser.start(path().c_str());
  }
  std::string path() const { return dir.file("a.idx"); }
  std::vector<std::string> body() {
    std::vector<std::string> lines;
    while (const char* line = parser.readBody()) lines.emplace_back(line);
    return lines;
  }
  std::string video_extradata() const { return nuv::Base64::decode(parser.get_header().video_extradata.value_or("")); }

  TempDir dir;
  LogCapture log;
  MoovParser parser;
};

TEST_F(MoovParserTest, ReadsEveryMemberOfTheStreamLines) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + kAudio + kRecord));
  const MVHeader& h = parser.get_header();
  EXPECT_EQ(h.version, 2);
  EXPECT_EQ(h.video_index, 0);
  EXPECT_EQ(h.video_codec, "h264");
  EXPECT_EQ(h.pix_fmt, "yuv420p");
  EXPECT_EQ(h.width, 1920);
  EXPECT_EQ(h.height, 1080);
  EXPECT_EQ(h.video_tb_num, 1);
  EXPECT_EQ(h.video_tb_den, 15360);
  EXPECT_EQ(h.audio_index, 1);
  EXPECT_EQ(h.audio_codec, "aac");
  EXPECT_EQ(h.sample_fmt, "fltp");
  EXPECT_EQ(h.channels, 2);
  EXPECT_EQ(h.frame_size, 1024);
  EXPECT_EQ(h.sample_rate, 44100);
  EXPECT_EQ(h.audio_tb_num, 3);
  EXPECT_EQ(h.audio_tb_den, 48000);
  EXPECT_EQ(h.audio_extradata, "EZA=");
}

TEST_F(MoovParserTest, AbsentNumbersAreZeroAndAbsentTextsEmpty) {
  ASSERT_TRUE(start("{\"type\":\"audio\"}\n"));
  const MVHeader& h = parser.get_header();
  EXPECT_EQ(h.version, 0);
  EXPECT_EQ(h.channels + h.sample_rate + h.frame_size + h.audio_tb_num + h.audio_tb_den + h.audio_index, 0);
  EXPECT_EQ(h.audio_codec, "");
  EXPECT_EQ(h.audio_extradata, "");
  EXPECT_FALSE(h.video_extradata);
}

struct VersionCase {
  const char* name;
  const char* before;  ///< what stands before the stream line
  int version;
};

class IndexVersion : public MoovParserTest, public testing::WithParamInterface<VersionCase> {};

TEST_P(IndexVersion, StandsInTheCommentOfTheFirstLine) {
  ASSERT_TRUE(start(std::string(GetParam().before) + kAudio + kRecord));
  EXPECT_EQ(parser.get_header().version, GetParam().version);
  EXPECT_EQ(body(), std::vector<std::string>{kRecord});
}

INSTANTIATE_TEST_SUITE_P(
    Files, IndexVersion,
    testing::Values(VersionCase{"Two", "## version=2, example.invalid\n", 2}, VersionCase{"One", "#version=1\n", 1},
                    VersionCase{"Three", "## version=3, x\n", 3}, VersionCase{"Negative", "# version=-4\n", -4},
                    VersionCase{"NoNumber", "# version=x\n", 0}, VersionCase{"NotNamed", "# example.invalid\n", 0},
                    VersionCase{"NoComment", "", 0}, VersionCase{"OnTheSecondLine", "#\n# version=2\n", 0},
                    VersionCase{"SecondOneIsIgnored", "# version=1\n# version=2\n", 1}),
    [](const auto& test) { return test.param.name; });

TEST_F(MoovParserTest, CommentsMayStandAnywhereBeforeTheBody) {
  ASSERT_TRUE(start(std::string(kComment) + "# a\n" + kVideo + "# b\n" + kAudio + "# c\n" + kRecord + "\n# d\n"));
  EXPECT_EQ(parser.get_header().sample_rate, 44100);
  EXPECT_EQ(body(), (std::vector<std::string>{std::string(kRecord) + "\n", "# d\n"}));
  EXPECT_EQ(parser.line_number(), 8);
}

TEST_F(MoovParserTest, StreamsOfOtherTypesAreCountedAsHeaderLines) {
  const std::string data = "{\"type\":\"data\",\"index\":2}\n";
  ASSERT_TRUE(start(std::string(kComment) + data + kAudio + data + kRecord));
  EXPECT_EQ(body(), std::vector<std::string>{kRecord});
}

TEST_F(MoovParserTest, RepeatedStreamLineIsTolerated) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + kVideo + kRecord));
  EXPECT_EQ(parser.get_header().width, 1920);
  EXPECT_EQ(body(), std::vector<std::string>{kRecord});
}

TEST_F(MoovParserTest, EmptyLineEndsTheHeader) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + "\n" + kAudio + kRecord));
  EXPECT_FALSE(parser.get_header().audio_extradata);
  EXPECT_EQ(body(), (std::vector<std::string>{"\n", kAudio, kRecord}));
}

TEST_F(MoovParserTest, LineThatIsNoObjectEndsTheHeader) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + "{\"type\":\"audio\",\n" + kAudio));
  EXPECT_FALSE(parser.get_header().audio_extradata);
  EXPECT_EQ(body(), (std::vector<std::string>{"{\"type\":\"audio\",\n", kAudio}));
}

TEST_F(MoovParserTest, BodyMayBeEmpty) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + kAudio));
  EXPECT_EQ(parser.readBody(), nullptr);
  EXPECT_DOUBLE_EQ(parser.progress(), 1.0);
}

TEST_F(MoovParserTest, LongLinesComeInPieces) {
  const std::string longest(20000, '7');
  ASSERT_TRUE(start(std::string(kComment) + kAudio + longest + "\n" + kRecord));
  const auto lines = body();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].size(), 8191U);
  EXPECT_EQ(lines[0] + lines[1] + lines[2], longest + "\n");
  EXPECT_EQ(lines[3], kRecord);
}

TEST_F(MoovParserTest, HeaderLineLongerThanTheBufferDoesNotShiftTheBody) {
  const std::string comment = "#" + std::string(9000, 'x') + "\n";
  ASSERT_FALSE(start(comment + kAudio));  // the second piece of the comment is no header line
  ASSERT_TRUE(start(std::string(kAudio) + comment + kRecord));
  const auto lines = body();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], comment.substr(8191));
  EXPECT_EQ(lines[1], kRecord);
}

TEST_F(MoovParserTest, ProgressIsWhereTheLastLineBegan) {
  const std::string header = std::string(kComment) + kAudio;
  ASSERT_TRUE(start(header + ",,1,,,,;\n,,2,,,,;\n"));
  const double size = static_cast<double>(header.size()) + 18;
  EXPECT_DOUBLE_EQ(parser.progress(), 0.0);
  parser.readBody();
  EXPECT_DOUBLE_EQ(parser.progress(), static_cast<double>(header.size()) / size);
  parser.readBody();
  EXPECT_DOUBLE_EQ(parser.progress(), static_cast<double>(header.size() + 9) / size);
  EXPECT_EQ(parser.line_number(), 4);
  EXPECT_EQ(parser.readBody(), nullptr);
  EXPECT_DOUBLE_EQ(parser.progress(), 1.0);
  EXPECT_EQ(parser.line_number(), 4);
}

TEST_F(MoovParserTest, ProgressCanBeOverridden) {
  EXPECT_DOUBLE_EQ(parser.progress(), 0.0);
  parser.set_progress(0.25);
  EXPECT_DOUBLE_EQ(parser.progress(), 0.25);
  parser.set_progress(-1.0);
  EXPECT_DOUBLE_EQ(parser.progress(), 0.0);
}

TEST_F(MoovParserTest, NoBodyBeforeAStartAndAfterAReset) {
  EXPECT_EQ(parser.readBody(), nullptr);
  ASSERT_TRUE(start(std::string(kComment) + kAudio + kRecord));
  parser.reset();
  EXPECT_EQ(parser.readBody(), nullptr);
  EXPECT_EQ(parser.get_header().version, 0);
  EXPECT_FALSE(parser.get_header().audio_extradata);
}

TEST_F(MoovParserTest, StartsAgainWithAnotherFile) {
  ASSERT_TRUE(start(std::string(kComment) + kVideo + kRecord));
  EXPECT_EQ(body().size(), 1U);
  ASSERT_TRUE(start(kAudio));
  EXPECT_FALSE(parser.get_header().video_extradata);
  EXPECT_EQ(parser.get_header().version, 0);
  EXPECT_EQ(parser.readBody(), nullptr);
}

TEST_F(MoovParserTest, BodyOfAFileThatIsGoneIsEmpty) {
  ASSERT_TRUE(start(std::string(kComment) + kAudio + kRecord));
  std::filesystem::remove(path());
  EXPECT_EQ(parser.readBody(), nullptr);
}

TEST_F(MoovParserTest, PathMayStandInQuotesAndWhiteSpace) {
  meru_test::write_file(path(), std::string(kComment) + kAudio + kRecord);
  ASSERT_TRUE(parser.start((" \t\r\n\b\"" + path() + "\" \b\t\r\n").c_str()));
  EXPECT_EQ(body(), std::vector<std::string>{kRecord});
}

TEST_F(MoovParserTest, NullPathFails) {
  EXPECT_FALSE(parser.start(nullptr));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(MoovParserTest, MissingFileIsLogged) {
  EXPECT_FALSE(parser.start("/nowhere/a.idx"));
  EXPECT_EQ(log.count(2, "无法打开moov文件: /nowhere/a.idx"), 1);
}

TEST_F(MoovParserTest, FileWithoutAStreamIsLogged) {
  for (const char* text : {"", "\n", kComment, kRecord, "{\"type\":\"data\"}\n", "{}\n", "{\"type\":\"Audio\"}\n"}) {
    EXPECT_FALSE(start(text)) << text;
    EXPECT_EQ(parser.readBody(), nullptr);
  }
  EXPECT_EQ(log.count(2, "未找到有效的音视频流: " + path()), 7);
}

TEST_F(MoovParserTest, WhatIsNoFileIsLoggedAsMissing) {
  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0666), 0);
  for (const std::string& name : {dir.path(), dir.file("pipe")}) {
    EXPECT_FALSE(parser.start(name.c_str()));
    EXPECT_EQ(log.count(2, "无法打开moov文件: " + name), 1);
  }
}

TEST_F(MoovParserTest, RecordingOfSoundAloneNeedsNoParameterSets) {
  ASSERT_TRUE(start(std::string(kComment) + kAudio));
  EXPECT_EQ(log.count(2, "---> 没有检测到视频流"), 1);
}

TEST_F(MoovParserTest, ParameterSetsBecomeAConfigurationRecord) {
  const std::string sps("\x67\x64\x00\x0c\xac", 5);
  const std::string pps("\x68\xef\x3c", 3);
  const std::string start_code("\0\0\0\1", 4);
  ASSERT_TRUE(start(video_line_of(start_code + sps + start_code + pps)));
  EXPECT_EQ(video_extradata(),
            std::string("\x01\x64\x00\x0c\xff\xe1\x00\x05", 8) + sps + std::string("\x01\x00\x03", 3) + pps);
  EXPECT_EQ(log.count(5, "===> ext_result: 01,64,00,0c,ff,e1,00,05,67,64,00,0c,ac,01,00,03,68,ef,3c,\\n"), 1);
}

TEST_F(MoovParserTest, WhatStandsBeforeTheParameterSetsIsPassedOver) {
  const std::string start_code("\0\0\0\1", 4);
  const std::string sets = start_code +
                           "\x27"
                           "abcd" +
                           start_code +
                           "\x28"
                           "e";
  ASSERT_TRUE(start(video_line_of("junk" + start_code + "\x09\xf0" + sets)));
  EXPECT_EQ(video_extradata(), std::string("\1abc\xff\xe1\0\5\x27"
                                           "abcd\1\0\2\x28"
                                           "e",
                                           18));
}

TEST_F(MoovParserTest, LengthsOfParameterSetsHaveTwoBytes) {
  const std::string start_code("\0\0\0\1", 4);
  const std::string sps = "\x67" + std::string(0x0203 - 1, 's');
  const std::string pps = "\x68" + std::string(0x0104 - 1, 'p');
  ASSERT_TRUE(start(video_line_of(start_code + sps + start_code + pps)));
  EXPECT_EQ(video_extradata().substr(6, 3), "\x02\x03\x67");
  EXPECT_EQ(video_extradata().substr(8 + sps.size(), 4), "\x01\x01\x04\x68");
}

TEST_F(MoovParserTest, MissingParameterSetsAreReplacedByTheUsualOnes) {
  ASSERT_TRUE(start(video_line("")));
  EXPECT_EQ(log.count(2, "--> no global PPS/SPS, generate ..."), 1);
  const std::string sets = nuv::Base64::decode("AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKgAAAAFozg/I");
  const std::string record = video_extradata();
  EXPECT_EQ(record.substr(0, 6), "\x01\x42\xc0\x28\xff\xe1");
  EXPECT_EQ(record.substr(8, 24), sets.substr(4, 24));
  EXPECT_EQ(record.substr(record.size() - 4), sets.substr(sets.size() - 4));
}

class BadParameterSets : public MoovParserTest, public testing::WithParamInterface<std::string> {};

TEST_P(BadParameterSets, AreRefused) {
  EXPECT_FALSE(start(video_line(GetParam())));
  EXPECT_EQ(log.count(2, "no sps/pps"), 1);
  EXPECT_EQ(log.count(2, "未找到extradata"), 1);
  EXPECT_EQ(parser.readBody(), nullptr);
}

std::string units(std::initializer_list<std::string> list, size_t zeros = 3) {
  std::string bytes;
  for (const std::string& unit : list) bytes += std::string(zeros, '\0') + "\1" + unit;
  return nuv::Base64::encode(bytes);
}

INSTANTIATE_TEST_SUITE_P(Texts, BadParameterSets,
                         testing::Values("not Base64!", "AAAA",
                                         units({"\x67"
                                                "abcd"}),
                                         units({"\x68"
                                                "a"}),
                                         units({"\x68"
                                                "a",
                                                "\x67"
                                                "abcd"}),
                                         units({"\x67"
                                                "abcd",
                                                "\x68"
                                                "a"},
                                               2),
                                         units({"\x67"
                                                "ab",
                                                "\x68"
                                                "a"}),
                                         units({"\x67", "\x68"}), units({"", ""})));

TEST_F(MoovParserTest, ParameterSetsTooLongForTheRecordAreRefused) {
  for (const bool long_sps : {true, false}) {
    MVHeader header;
    const std::string bytes(0x10000, 'x');
    header.video_extradata = units({"\x67" + (long_sps ? bytes : "abcd"), "\x68" + (long_sps ? "a" : bytes)});
    EXPECT_FALSE(MoovParser::get_extradata(header));
  }
  EXPECT_EQ(log.count(2, "no sps/pps"), 2);
}

}  // namespace

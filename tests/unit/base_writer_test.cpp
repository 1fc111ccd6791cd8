#include "base/base_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "support/case_name.h"
#include "support/packets.h"
#include "support/temp_dir.h"

namespace {

using meru_test::kAudioStream;
using meru_test::kAudioTimeBase;
using meru_test::kVideoStream;
using meru_test::kVideoTimeBase;
using meru_test::make_packet;
using meru_test::ReadBack;
using meru_test::Streams;
using meru_test::tag;
using meru_test::TempDir;
using meru_test::TestOutput;

struct Printed {
  std::string out, err;
};

template <class Call>
Printed printed_by(Call call) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  call();
  fflush(stdout);
  return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

struct MetaCase {
  const char* name;
  const char* text;
  const char* pairs;    // "key=value|" in the order set
  const char* printed;  // on standard output
};

class MetaInfo : public testing::TestWithParam<MetaCase> {
 protected:
  static std::string pairs_of(const AVDictionary* dict) {
    std::string pairs;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dict, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
      pairs += std::string(entry->key) + "=" + entry->value + "|";
    }
    return pairs;
  }
};

TEST_P(MetaInfo, IsCutIntoPairsAndPrinted) {
  AVDictionary* dict = nullptr;
  const Printed printed = printed_by([&] { BaseWriter::write_metainfo(&dict, GetParam().text); });
  EXPECT_EQ(pairs_of(dict), GetParam().pairs);
  EXPECT_EQ(printed.out, GetParam().printed);
  EXPECT_EQ(printed.err, std::string("== MetaInfo: ") + GetParam().text + "\n\n");
  av_dict_free(&dict);
}

TEST_P(MetaInfo, IsCutInPlaceWithoutTheHeading) {
  AVDictionary* dict = nullptr;
  std::string text = GetParam().text;
  bool result = false;
  const Printed printed = printed_by([&] { result = splite_metaInfo(&dict, text.data()); });
  EXPECT_TRUE(result);
  EXPECT_EQ(pairs_of(dict), GetParam().pairs);
  EXPECT_EQ(printed.out, GetParam().printed);
  EXPECT_EQ(printed.err, "");
  av_dict_free(&dict);
}

INSTANTIATE_TEST_SUITE_P(Texts, MetaInfo,
                         testing::Values(MetaCase{"Empty", "", "", ""}, MetaCase{"OnlySeparators", ";;;", "", ""},
                                         MetaCase{"OnlyColon", ":", "=|", " ---> \n"},
                                         MetaCase{"Example", "title:My film;comment:a:b;junk",
                                                  "title=My film|comment=a:b|",
                                                  "title ---> My film\ncomment ---> a:b\n"},
                                         MetaCase{"EmptyItems", ";;title:x;;;artist:y;", "title=x|artist=y|",
                                                  "title ---> x\nartist ---> y\n"},
                                         MetaCase{"Repeated", "a:1;a:2", "a=2|", "a ---> 1\na ---> 2\n"},
                                         MetaCase{"BlanksAreKept", " a : 1 ", " a = 1 |", " a  --->  1 \n"},
                                         MetaCase{"PercentSigns", "a:%s%n%d", "a=%s%n%d|", "a ---> %s%n%d\n"},
                                         MetaCase{"Utf8", "title:影片", "title=影片|", "title ---> 影片\n"}),
                         meru_test::CaseName());

TEST(MetaInfoText, NullDoesNothing) {
  AVDictionary* dict = nullptr;
  const Printed printed = printed_by([&] { BaseWriter::write_metainfo(&dict, nullptr); });
  EXPECT_EQ(dict, nullptr);
  EXPECT_EQ(printed.out + printed.err, "");
}

TEST(MetaInfoText, IsLeftAsItWas) {
  AVDictionary* dict = nullptr;
  const std::string text = "a:1;b:2";
  const std::string copy = text;
  printed_by([&] { BaseWriter::write_metainfo(&dict, text.c_str()); });
  EXPECT_EQ(text, copy);
  av_dict_free(&dict);
}

TEST(MetaInfoText, AnEmptyValueIsKept) {
  AVDictionary* dict = nullptr;
  printed_by([&] { BaseWriter::write_metainfo(&dict, "a:"); });
  EXPECT_EQ(tag(dict, "a"), "");
  av_dict_free(&dict);
}

TEST(BaseWriterTest, IsEmptyAfterConstruction) {
  const BaseWriter writer;
  EXPECT_EQ(writer.m_status_cb, nullptr);
  EXPECT_EQ(writer.m_status_user, nullptr);
  EXPECT_EQ(writer.m_fmt_ctx, nullptr);
  EXPECT_EQ(writer.m_last_time, 0.0);
  EXPECT_EQ(writer.m_prev_writer, nullptr);
  EXPECT_EQ(writer.m_next_writer, nullptr);
  EXPECT_TRUE(std::has_virtual_destructor_v<BaseWriter>);
}

TEST(BaseWriterTest, WritesAFileOnTheCallingThread) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"), Streams::kVideoAndAudio);
  BaseWriter writer;
  writer.create_other_writers(nullptr);
  ASSERT_GE(writer.writeHeader(output.get(), "title:My film;comment:a:b;junk"), 0);
  EXPECT_EQ(writer.m_fmt_ctx, output.get());
  writer.start();
  for (int i = 0; i < 10; ++i) {
    AVPacket video = make_packet(kVideoStream, i, 100 + i);
    EXPECT_EQ(writer.writePacket(&kVideoTimeBase, &video, false), 0);
    EXPECT_EQ(video.data, nullptr) << "consumed";
    AVPacket audio = make_packet(kAudioStream, i * 1920);
    EXPECT_EQ(writer.writePacket(&kAudioTimeBase, &audio, true), 0);
  }
  EXPECT_EQ(writer.writeTailer(), 0);
  writer.stop();
  output.close();

  const ReadBack file(dir.file("a.mkv"));
  EXPECT_EQ(file.packets(kVideoStream), 10U);
  EXPECT_EQ(file.packets(kAudioStream), 10U);
  EXPECT_EQ(file.sizes, (std::vector<int>{100, 101, 102, 103, 104, 105, 106, 107, 108, 109}));
  EXPECT_TRUE(file.has_duration) << "the trailer is there";
}

TEST(BaseWriterTest, HandsThePairsToTheContainer) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  BaseWriter writer;
  ASSERT_GE(writer.writeHeader(output.get(), "title:My film;comment:a:b;junk"), 0);
  AVPacket packet = make_packet(kVideoStream, 0);
  ASSERT_EQ(writer.writePacket(&kVideoTimeBase, &packet, false), 0);
  ASSERT_EQ(writer.writeTailer(), 0);
  output.close();

  AVFormatContext* input = nullptr;
  ASSERT_GE(avformat_open_input(&input, dir.file("a.mkv").c_str(), nullptr, nullptr), 0);
  EXPECT_EQ(tag(input->metadata, "title"), "My film");
  EXPECT_EQ(tag(input->metadata, "COMMENT"), "a:b");
  EXPECT_EQ(tag(input->metadata, "junk"), "unset");
  avformat_close_input(&input);
}

TEST(BaseWriterTest, AKeyThatIsAMuxerOptionIsConsumedAsOne) {
  const TempDir dir;
  const std::string path = dir.file("a.mp4");
  TestOutput output("mov", path);
  BaseWriter writer;
  ASSERT_GE(writer.writeHeader(output.get(), "movflags:+faststart+frag_keyframe+empty_moov;title:x"), 0);
  EXPECT_EQ(tag(output.get()->metadata, "movflags"), "unset");
  EXPECT_EQ(tag(output.get()->metadata, "title"), "x");
  avio_flush(output.get()->pb);
  char moov[4096] = {};
  FILE* file = fopen(path.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  const size_t n = fread(moov, 1, sizeof(moov), file);
  fclose(file);
  EXPECT_NE(std::string(moov, n).find("mvex"), std::string::npos) << "the header of a fragmented movie";
  writer.writeTailer();
}

TEST(BaseWriterTest, AWrongValueOfAMuxerOptionFailsTheHeader) {
  const TempDir dir;
  TestOutput output("mov", dir.file("a.mov"));
  BaseWriter writer;
  EXPECT_LT(writer.writeHeader(output.get(), "movflags:nonsense"), 0);
}

TEST(BaseWriterTest, ANullPacketTouchesNothing) {
  BaseWriter writer;
  EXPECT_EQ(writer.writePacket(&kVideoTimeBase, nullptr, true), 0);
  EXPECT_EQ(writer.m_last_time, 0.0);
}

TEST(BaseWriterTest, KeepsTheTimeOfTheLatestPacketInSeconds) {
  const TempDir dir;
  TestOutput output("matroska", dir.file("a.mkv"));
  BaseWriter writer;
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  ASSERT_EQ(av_cmp_q(output.get()->streams[0]->time_base, AVRational{1, 1000}), 0);
  AVPacket packet = make_packet(kVideoStream, 50);
  ASSERT_EQ(writer.writePacket(&kVideoTimeBase, &packet, false), 0);
  EXPECT_DOUBLE_EQ(writer.m_last_time, 2.0);
  writer.writeTailer();
  output.close();
  EXPECT_EQ(ReadBack(dir.file("a.mkv")).seconds, std::vector<std::vector<double>>{{2.0}});
}

TEST(BaseWriterTest, PassesOnWhatTheMuxerSays) {
  TestOutput output("nut", "/dev/full");
  ASSERT_NE(output.get()->pb, nullptr);
  BaseWriter writer;
  ASSERT_GE(writer.writeHeader(output.get(), nullptr), 0);
  // The muxer holds packets back for interleaving, so the failure may show a few packets later.
  int result = 0;
  for (int i = 0; i < 5 && result == 0; ++i) {
    AVPacket packet = make_packet(kVideoStream, i, 100000);
    result = writer.writePacket(&kVideoTimeBase, &packet, false);
  }
  EXPECT_EQ(result, AVERROR(ENOSPC));
  EXPECT_EQ(writer.writeTailer(), AVERROR(ENOSPC));
}

}  // namespace

// What a repair makes of the records, sound and damaged.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "support/repair_bench.h"

namespace meru_test {
namespace {

using Data = std::vector<std::string>;

class RepairRecords : public RepairBench {
 protected:
  bool run_body(const std::string& body, int version = 2) { return run(index_header(version) + body); }
  /// The packets of one stream of the repaired movie.
  std::vector<MoviePacket> stream(int number) const {
    std::vector<MoviePacket> found;
    for (const MoviePacket& packet : demuxed_packets(output)) {
      if (packet.stream == number) found.push_back(packet);
    }
    return found;
  }
  /// The progress at a line of the body.
  static double progress_at(const std::string& before, const std::string& body) {
    const auto header = static_cast<double>(index_header().size());
    return (header + static_cast<double>(before.size())) / (header + static_cast<double>(body.size()));
  }
};

TEST_F(RepairRecords, PositionsAndSizesNameTheBytes) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;1,,20,,,1024,1;,100,30,512,,512,;1,,7,1024,,,1;\n"));
  EXPECT_EQ(stream(0).at(0).data, bytes(48, 10));
  EXPECT_EQ(stream(1).at(0).data, bytes(58, 20));
  EXPECT_EQ(stream(0).at(1).data, bytes(100, 30));
  EXPECT_EQ(stream(1).at(1).data, bytes(130, 7));
  EXPECT_EQ(log.count(5, "packet数据 seek fpos=48"), 1);
  EXPECT_EQ(log.count(5, "packet数据 seek fpos=100"), 1);
  EXPECT_EQ(begins(5, "packet数据 seek fpos="), 2);
}

TEST_F(RepairRecords, TimesContinueWithinEachKind) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;1,,10,,,,1;,,10,512,,512,;1,,10,1024,,,;1,,10,1024,,,;\n,,10,1024,,512,1;\n"));
  const auto video = stream(0);
  const auto audio = stream(1);
  ASSERT_EQ(video.size(), 3U);
  ASSERT_EQ(audio.size(), 3U);
  const int64_t video_pts[] = {0, 512, 1536};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(video[i].pts, video_pts[i]);
    EXPECT_EQ(video[i].dts, video_pts[i]);
    EXPECT_EQ(audio[i].pts, static_cast<int64_t>(i) * 1024);
  }
  EXPECT_TRUE(video[0].key);
  EXPECT_FALSE(video[1].key);
  EXPECT_TRUE(video[2].key);
}

TEST_F(RepairRecords, AnEmptyDecodingTimeIsThePresentationTime) {
  // Decoding deltas of their own continue from the last decoding time; an empty one takes the new presentation time.
  ASSERT_TRUE(run_body(",48,10,1024,512,512,1;,,10,1536,512,512,;,,10,-1024,512,512,;,,10,1024,,512,;\n"));
  const auto video = stream(0);
  ASSERT_EQ(video.size(), 4U);
  const int64_t pts[] = {1024, 2560, 1536, 2560};
  const int64_t dts[] = {512, 1024, 1536, 2560};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(video[i].pts - video[0].pts, pts[i] - pts[0]) << i;
    EXPECT_EQ(video[i].dts - video[0].dts, dts[i] - dts[0]) << i;
  }
}

TEST_F(RepairRecords, SoundWithoutADurationTakesTheFrameSize) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;1,,10,,,,1;1,,10,1024,,,1;\n"));
  EXPECT_EQ(stream(1).at(1).duration, 1024);
  EXPECT_EQ(log.count(4, text_of("restored: packets=3, bytes=30, duration=%.6f", 2048 / 48000.0)), 1);
  ASSERT_TRUE(run_body(",48,10,,,512,1;1,,10,,,,1;1,,10,1024,,300,1;\n"));  // times begin anew in every repair
  EXPECT_EQ(stream(1).at(1).pts, 1024);
  EXPECT_EQ(stream(1).at(1).duration, 300);
}

// What the writer omits is a duration that equals the audio's frame size, of any frame.
TEST_F(RepairRecords, FramesWithoutADurationLastAsLongAsTheOneBefore) {
  struct Case {
    const char* body;
    int64_t duration;  ///< of the last frame
  };
  for (const Case& c : {Case{",48,10,,,512,1;,,10,640,,,;\n", 640}, Case{",48,10,,,512,1;\n,,10,512,,,;\n", 512},
                        Case{",48,10,12800,,,1;\n", 1024}, Case{",48,10,,,,1;1,,10,,,,1;\n", 1024},
                        Case{",48,10,,,512,1;99,,10,,,,;,,10,640,,,;\n,,10,640,,,;\n", 640}}) {
    ASSERT_TRUE(run_body(c.body));
    EXPECT_EQ(stream(0).back().duration, c.duration) << c.body;
  }
  ASSERT_TRUE(run("# version=2\n" + std::string(kIndexVideo) + ",48,10,,,,1;"));
  EXPECT_EQ(log.count(4, "restored: packets=1, bytes=10, duration=0.000000"), 1);
}

TEST_F(RepairRecords, FrameDurationsOfHostileTimesDoNotStopTheRepair) {
  std::string body = ",48,10,,,512,1;\n";
  for (const char* delta : {"9223372036854775807", "-9223372036854775808", "-1", "1"}) {
    body += std::string(",,1,") + delta + "," + delta + ",,;\n,,1,1," + delta + ",,;\n";
  }
  EXPECT_TRUE(run_body(body));
  EXPECT_EQ(restored().at(0), bytes(48, 10));
}

TEST_F(RepairRecords, TimesAreConvertedToTheNewMoviesTimeBase) {
  output = dir.file("whole.flv");  // counts milliseconds
  ASSERT_TRUE(run_body(",48,10,,,512,1;1,,10,,,,1;,,10,512,,512,;1,,10,1024,,,1;\n"));
  EXPECT_EQ(stream(0).at(1).pts - stream(0).at(0).pts, 40);
  EXPECT_EQ(stream(1).at(1).pts - stream(1).at(0).pts, 21);
}

TEST_F(RepairRecords, FirstVersionWritesEveryField) {
  ASSERT_TRUE(run_body("0,48,10,0,0,512,1;1,58,20,0,0,0,1;0,78,30,512,512,512,0;\n1,108,7,1024,1024,0,1;", 1));
  ASSERT_EQ(stream(0).size(), 2U);
  ASSERT_EQ(stream(1).size(), 2U);
  EXPECT_EQ(stream(0)[1].data, bytes(78, 30));
  EXPECT_EQ(stream(0)[1].pts, 512);
  EXPECT_EQ(stream(1)[1].data, bytes(108, 7));
  EXPECT_EQ(stream(1)[1].pts, 1024);
}

TEST_F(RepairRecords, SoundAloneIsTheFirstStream) {
  std::string audio = kIndexAudio;
  audio.replace(audio.find("\"index\":1"), 9, "\"index\":0");
  ASSERT_TRUE(run("# version=2\n" + audio + ",48,10,,,,1;,,20,1024,,,1;"));
  ASSERT_EQ(stream(0).size(), 2U);
  EXPECT_EQ(stream(0)[1].data, bytes(58, 20));
  EXPECT_EQ(stream(0)[1].pts, 1024);
  EXPECT_EQ(stream(0)[1].duration, 1024);
}

TEST_F(RepairRecords, PicturesAloneAreNotTakenForSound) {
  ASSERT_TRUE(run("# version=2\n" + std::string(kIndexVideo) + ",48,10,,,512,1;,,20,512,,512,;"));
  ASSERT_EQ(stream(0).size(), 2U);
  EXPECT_EQ(stream(0)[1].pts, 512);
}

class StrangeStream : public RepairRecords, public testing::WithParamInterface<int> {};

TEST_P(StrangeStream, CostsTheRestOfItsLineAndNoMore) {
  const std::string first = ",48,10,,,512,1;\n";
  const std::string bad = ",,11,512,,512,;" + std::to_string(GetParam()) + ",,12,1,,,;,,13,512,,512,;\n";
  const std::string last = ",,14,512,,512,;\n";
  ASSERT_TRUE(run_body(first + bad + last));
  EXPECT_EQ(restored(), (Data{bytes(48, 10), bytes(58, 11), bytes(94, 14)}));
  const double progress = progress_at(first, first + bad + last);
  EXPECT_EQ(
      log.count(2, text_of("===> stream.idx=%d 不合法，moov已处理 5 行(%.6f)：%s", GetParam(), progress, bad.c_str())),
      1);
}

INSTANTIATE_TEST_SUITE_P(Indexes, StrangeStream, testing::Values(-1, 2, 3, 4, 5, INT_MAX, INT_MIN));

TEST_F(RepairRecords, MovieThatEndsBeforeItsIndexGivesWhatItHas) {
  write_file(broken, made_bytes(100));
  const std::string body = ",48,30,,,512,1;,,30,512,,512,;,,5,512,,512,;\n,,1,512,,512,;\n,,1,512,,512,;\n";
  ASSERT_TRUE(run_body(body));
  EXPECT_EQ(restored(), Data{bytes(48, 30)});
  EXPECT_EQ(log.count(2, "读取packet数据 22 < 30(需求)，该行索引处理结束 (eof=1, fpos=100) err_code=0"), 1);
  EXPECT_EQ(log.count(2, ">> 损坏视频已经读取到末尾了,第一个忽略行 ========> ,,1,512,,512,;\n"), 1);
  EXPECT_EQ(begins(2, ">> 损坏视频已经读取到末尾了"), 1);
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [1 ~ 3) 共2行）"), 1);
  EXPECT_EQ(reports(), (std::vector<RepairReport>{{1.0, 0, ""}}));
}

// What a loss of power leaves: the size is there, the data is not.
TEST_F(RepairRecords, ZerosAtTheEndAreNotTheMovie) {
  const std::string body = ",48,30,,,512,1;,,30,512,,512,;,,5,512,,512,;\n,,1,512,,512,;\n,,1,512,,512,;\n";
  int repairs = 0;
  for (const size_t zeros : {1U, 8U, 4095U, 4096U, 300000U}) {
    ++repairs;
    write_file(broken, made_bytes(100) + std::string(zeros, '\0'));
    ASSERT_TRUE(run_body(body));
    EXPECT_EQ(restored(), Data{bytes(48, 30)});
    EXPECT_EQ(log.count(2, "读取packet数据 22 < 30(需求)，该行索引处理结束 (eof=1, fpos=100) err_code=0"), repairs);
    EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [1 ~ 3) 共2行）"), repairs) << zeros;
  }
}

TEST_F(RepairRecords, PacketMayEndBeforeTheZeros) {
  write_file(broken, made_bytes(78) + std::string(1000, '\0'));
  ASSERT_TRUE(run_body(",48,30,,,512,1;\n"));
  EXPECT_EQ(restored(), Data{bytes(48, 30)});
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [0 ~ 0) 共0行）"), 1);
}

TEST_F(RepairRecords, ZerosBeforeTheEndAreContent) {
  write_file(broken, made_bytes(48) + std::string(30, '\0') + "x");
  ASSERT_TRUE(run_body(",48,30,,,512,1;\n"));
  EXPECT_EQ(restored(), Data{std::string(30, '\0')});
}

TEST_F(RepairRecords, MovieOfZerosGivesAnEmptyMovie) {
  write_file(broken, std::string(5000, '\0'));
  ASSERT_TRUE(run_body(",48,30,,,512,1;\n,,30,512,,512,;\n"));
  EXPECT_EQ(restored().size(), 0U);
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [1 ~ 2) 共1行）"), 1);
}

// A silent recording is one of zeros.
TEST_F(RepairRecords, SilenceInPcmIsContent) {
  const std::string pcm =
      R"({"type":"audio","index":0,"codec":"pcm_s16le","format":"s16","channels":2,"frame_size":0,"sample_rate":48000,)"
      R"("tb.num":1,"tb.den":48000,"qv":""})";
  write_file(broken, made_bytes(44) + std::string(8000, '\0'));
  output = dir.file("whole.wav");
  ASSERT_TRUE(run("# version=2\n" + pcm + "\n,44,4000,,,1000,1;,,4000,1000,,1000,1;\n"));
  EXPECT_EQ(log.count(4, text_of("restored: packets=2, bytes=8000, duration=%.6f", 2000 / 48000.0)), 1);
}

TEST_F(RepairRecords, ZerosAtTheEndOfTheIndexAreNoRecords) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;,,20,51" + std::string(20000, '\0')));
  EXPECT_EQ(restored(), Data{bytes(48, 10)});
}

TEST_F(RepairRecords, LinesBeyondTheEndOfTheMovieAreAllPassedOver) {
  write_file(broken, made_bytes(48));
  std::string body = ",48,30,,,512,1;\n";
  for (int i = 1; i < 30; ++i) body += ",,30,512,,512,;\n";
  ASSERT_TRUE(run_body(body));
  EXPECT_EQ(restored().size(), 0U);
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [1 ~ 30) 共29行）"), 1);
  EXPECT_EQ(reports(), (std::vector<RepairReport>{{1.0, 0, ""}}));
}

TEST_F(RepairRecords, EmptyMovieGivesAnEmptyMovie) {
  write_file(broken, "");
  ASSERT_TRUE(run_body(",48,30,,,512,1;\n"));
  EXPECT_EQ(restored().size(), 0U);
}

TEST_F(RepairRecords, PacketMayEndWithTheMovie) {
  write_file(broken, made_bytes(78));
  ASSERT_TRUE(run_body(",48,30,,,512,1;\n"));
  EXPECT_EQ(restored(), Data{bytes(48, 30)});
  EXPECT_EQ(log.count(2, ">> 执行完成 1.000000, （忽略索引: [0 ~ 0) 共0行）"), 1);
}

TEST_F(RepairRecords, SizesAndPositionsThatCannotBeCostTheRestOfTheLine) {
  const std::string strange[] = {",,-5,512,,512,;", ",-7,5,512,,512,;", "-1,-7,5,512,,512,;"};
  for (const std::string& record : strange) {
    ASSERT_TRUE(run_body(",48,10,,,512,1;\n" + record + ",,20,512,,512,;\n,200,30,512,,512,;\n")) << record;
    EXPECT_EQ(restored(), (Data{bytes(48, 10), bytes(200, 30)})) << record;
  }
  EXPECT_EQ(log.count(2, "no packet can have -5 bytes"), 1);
  EXPECT_EQ(log.count(2, "no packet can be at -7 of the movie"), 1);
}

TEST_F(RepairRecords, HugeSizesReadNoMoreThanTheMovieHolds) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;\n,,2147483647,512,,512,;\n"));
  EXPECT_EQ(log.count(2, "读取packet数据 4942 < 2147483647(需求)，该行索引处理结束 (eof=1, fpos=5000) err_code=0"), 1);
  EXPECT_EQ(restored(), Data{bytes(48, 10)});
}

TEST_F(RepairRecords, PositionBeyondTheMovieIsItsEnd) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;\n,6000,1,512,,512,;\n,48,10,512,,512,;\n"));
  EXPECT_EQ(log.count(2, "读取packet数据 0 < 1(需求)，该行索引处理结束 (eof=1, fpos=6000) err_code=0"), 1);
  EXPECT_EQ(restored(), Data{bytes(48, 10)});
}

TEST_F(RepairRecords, PositionThatNoFileHasIsItsEndToo) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;\n,9223372036854775807,1,512,,512,;\n,48,10,512,,512,;\n"));
  EXPECT_EQ(begins(2, "读取packet数据 0 < 1(需求)，该行索引处理结束 (eof=1, "), 1);
  EXPECT_EQ(restored(), Data{bytes(48, 10)});
}

TEST_F(RepairRecords, OverlappingPacketsAreRestoredAsTheyAre) {
  ASSERT_TRUE(run_body(",48,100,,,512,1;,50,100,512,,512,;,49,1,512,,512,;\n"));
  EXPECT_EQ(restored(), (Data{bytes(48, 100), bytes(50, 100), bytes(49, 1)}));
}

TEST_F(RepairRecords, EmptyPacketsAreNotInTheMovie) {
  ASSERT_TRUE(run_body(",48,,,,512,1;,,10,512,,512,;\n"));
  EXPECT_EQ(restored(), Data{bytes(48, 10)});
}

TEST_F(RepairRecords, PacketThatIsRefusedCostsTheRestOfItsLine) {
  const std::string first = ",48,10,5120,,512,1;\n";
  // A decoding time that goes back.
  const std::string bad = ",,11,-512,,512,;,,12,1024,,512,;\n";
  std::string last = ",,13,512,,512,;\n";
  ASSERT_TRUE(run_body(first + bad + last));
  EXPECT_EQ(restored(), (Data{bytes(48, 10), bytes(81, 13)}));
  EXPECT_EQ(stream(0)[1].pts - stream(0)[0].pts, 1024);  // the passed packets' times count
  const std::string error = AvError(AVERROR(EINVAL)).text;
  const double progress = progress_at(first, first + bad + last);
  const std::string packet =
      "pts:4608 pts_time:0.36 dts:4608 dts_time:0.36 duration:512 duration_time:0.04 stream_index:0\n";
  EXPECT_EQ(log.count(2, text_of("@@ moov已处理 5 行(%.6f); write frame err: %s, next=,,12,1024,,512,;\n", progress,
                                 error.c_str())),
            1);
  const std::string early = text_of("error:ret=%d,msg=%s\n", AVERROR(EINVAL), error.c_str());
  EXPECT_EQ(printed, packet + (progress < 0.9 ? early : "") + progress_lines());
}

TEST_F(RepairRecords, LateRefusalsAreNoErrorLines) {
  for (const size_t tail : {10U, 1000U}) {
    ASSERT_TRUE(run_body(",48,10,5120,,512,1;\n,,11,-512,,512,;\n" + std::string(tail, 'x')));
    EXPECT_EQ(printed.find("error:ret=") == std::string::npos, tail == 10U) << printed;
  }
}

TEST_F(RepairRecords, TimeThatIsNoneIsPrintedSo) {
  ASSERT_TRUE(run_body(",48,10,5120,,512,1;\n,,11,9223372036854770688,-1,512,;\n"));
  EXPECT_NE(printed.find("pts:-9223372036854775808 pts_time:NOPTS"), std::string::npos) << printed;
}

TEST_F(RepairRecords, TimesThatOverflowDoNotStopTheRepair) {
  std::string body = ",48,10,,,512,1;\n";
  for (const char* delta : {"9223372036854775807", "-9223372036854775808"}) {
    for (int i = 0; i < 3; ++i) body += std::string(",,1,") + delta + "," + delta + "," + delta + ",;\n";
    for (int i = 0; i < 3; ++i) body += std::string("1,,1,") + delta + ",," + delta + ",;\n";
  }
  EXPECT_TRUE(run_body(body));
  EXPECT_EQ(restored().at(0), bytes(48, 10));
}

TEST_F(RepairRecords, GarbageCostsTheRestOfItsLine) {
  ASSERT_TRUE(run_body(",48,10,,,512,1;garbage;,,20,512,,512,;\n\n\r\n;;;;\n,,30,512,,512,;\n"));
  EXPECT_EQ(restored(), (Data{bytes(48, 10), bytes(58, 30)}));
}

TEST_F(RepairRecords, LineLongerThanTheBufferGoesOnInPieces) {
  std::string line = ",48,1,,,512,1;";
  for (int i = 0; i < 1000; ++i) line += ",,1,512,,512,;";
  ASSERT_TRUE(run_body(line + "\n"));
  const auto found = restored();
  EXPECT_GE(found.size(), 8191 / 14U);
  for (size_t i = 0; i < 8191 / 14; ++i) ASSERT_EQ(found[i], bytes(48 + i, 1)) << i;
}

}  // namespace
}  // namespace meru_test

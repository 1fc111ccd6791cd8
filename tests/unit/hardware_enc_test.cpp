#include "base/hardware_enc.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "common/ffmpeg_handles.h"
#include "support/case_name.h"
#include "support/log_capture.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace {

using meru_test::LogCapture;

constexpr AVPixelFormat kNv12 = AV_PIX_FMT_NV12;

TEST(HardwareProbe, AnEncoderThatOpensIsUsable) {
  LogCapture log;
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, kNv12));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.count(2, "=== 硬件编码器 'libx264' enable = 1"), 1);
}

TEST(HardwareProbe, APixelFormatThatIsNotListedBecomesTheFirstListed) {
  LogCapture log;
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, AV_PIX_FMT_PAL8));
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(HardwareProbe, AnEncoderWithoutAListIsTriedWithTheFormatAskedFor) {
  EXPECT_TRUE(isHardwareEnable("rawvideo", 64, 48, AV_PIX_FMT_PAL8));
}

TEST(HardwareProbe, AnUnknownNameIsLoggedAndAnswersForTheSize) {
  LogCapture log;
  EXPECT_FALSE(isHardwareEnable("no_such_encoder", 64, 48, kNv12));
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].text, "\"--- 没有找到 'no_such_encoder' 编码器\"\n");
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(log.lines()[1].text, "\"=== 硬件编码器 'no_such_encoder' enable = 0\"\n");
  EXPECT_EQ(log.lines()[1].level, 2);

  EXPECT_FALSE(isHardwareEnable("libx264", 64, 48, kNv12));
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(HardwareProbe, AnEncoderThatDoesNotOpenIsLoggedWithTheReason) {
  LogCapture log;
  EXPECT_FALSE(isHardwareEnable("dvvideo", 64, 48, AV_PIX_FMT_YUV420P));  // takes a few sizes only
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].text, "\"--- 打开编码器 'dvvideo' 出错: Invalid argument\"\n");
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(log.lines()[1].text, "\"=== 硬件编码器 'dvvideo' enable = 0\"\n");
}

TEST(HardwareProbe, AContextThatCannotBeMadeIsLogged) {
  LogCapture log;
  av_max_alloc(64);  // less than a context
  EXPECT_FALSE(isHardwareEnable("libx264", 64, 48, kNv12));
  av_max_alloc(1 << 30);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].text, "\"--- 准备编码器'libx264' 出错\"\n");
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(log.lines()[1].text, "\"=== 硬件编码器 'libx264' enable = 0\"\n");
  EXPECT_FALSE(isHardwareEnable("libx264", 64, 48, kNv12));
  EXPECT_EQ(log.lines().size(), 2U);
}

/// Whatever the machine has: the answer, the log and the reason agree.
TEST(HardwareProbe, AHardwareEncoderIsTriedAndTheAnswerLogged) {
  LogCapture log;
  const bool known = avcodec_find_encoder_by_name("h264_nvenc") != nullptr;
  const bool usable = isHardwareEnable("h264_nvenc", 640, 480, kNv12);
  EXPECT_EQ(log.count(2, "=== 硬件编码器 'h264_nvenc' enable = " + std::to_string(usable ? 1 : 0)), 1);
  if (usable) {
    EXPECT_TRUE(known);
    EXPECT_EQ(log.lines().size(), 1U);
    return;
  }
  ASSERT_EQ(log.lines().size(), 2U);
  const std::string reason = log.lines()[0].text;
  if (known) {
    EXPECT_EQ(reason.rfind("\"--- 打开编码器 'h264_nvenc' 出错: ", 0), 0U) << reason;
  } else {
    EXPECT_EQ(reason, "\"--- 没有找到 'h264_nvenc' 编码器\"\n");
  }
}

TEST(HardwareProbe, TheFirstAnswerStandsForEveryName) {
  LogCapture log;
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, kNv12));
  EXPECT_TRUE(isHardwareEnable("no_such_encoder", 64, 48, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, kNv12));
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(HardwareProbe, EachSizeAndFormatIsTriedOnItsOwn) {
  LogCapture log;
  EXPECT_FALSE(isHardwareEnable("no_such_encoder", 64, 48, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 66, 48, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 50, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 48, 64, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, AV_PIX_FMT_YUV420P));
  EXPECT_FALSE(isHardwareEnable("libx264", 64, 48, kNv12));
  EXPECT_EQ(log.count(2, "=== 硬件编码器 'libx264' enable = 1"), 4);
}

struct RefusedCase {
  const char* name;
  const char* encoder;
  int width, height;
};

class RefusedProbe : public testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedProbe, IsNeitherTriedNorRemembered) {
  LogCapture log;
  EXPECT_FALSE(isHardwareEnable(GetParam().encoder, GetParam().width, GetParam().height, kNv12));
  EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Arguments, RefusedProbe,
                         testing::Values(RefusedCase{"NullName", nullptr, 64, 48},
                                         RefusedCase{"Narrow", "libx264", 2, 1080},
                                         RefusedCase{"NarrowByOne", "libx264", 3, 1080},
                                         RefusedCase{"Flat", "libx264", 1920, 3}, RefusedCase{"Zero", "libx264", 0, 0},
                                         RefusedCase{"Negative", "libx264", -64, -48}),
                         meru_test::CaseName());

TEST(HardwareProbe, ANullNameLeavesTheSizeToBeTried) {
  EXPECT_FALSE(isHardwareEnable(nullptr, 64, 48, kNv12));
  EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, kNv12));
}

TEST(HardwareProbe, TheSmallestPictureIsTried) {
  LogCapture log;
  isHardwareEnable("libx264", 4, 4, AV_PIX_FMT_YUV420P);
  EXPECT_FALSE(log.lines().empty());
}

TEST(HardwareProbe, ConcurrentCallsMakeOneTrial) {
  LogCapture log;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] { EXPECT_TRUE(isHardwareEnable("libx264", 64, 48, kNv12)); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.lines().size(), 1U);
}

struct HashCase {
  HWIndex index;
  size_t expected;
};

class HwIndexHash : public testing::TestWithParam<HashCase> {};

TEST_P(HwIndexHash, IsTheAreaAndTheFormatIn32Bits) {
  EXPECT_EQ(HWIndexHasher()(GetParam().index), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Keys, HwIndexHash,
                         testing::Values(HashCase{{1920, 1080, 23}, 2073623}, HashCase{{4, 4, 0}, 16},
                                         HashCase{{4, 4, -1}, 15}, HashCase{{65536, 65536, 5}, 5},
                                         HashCase{{4, 4, -20}, static_cast<size_t>(-4)},
                                         HashCase{{65536, 32768, 0}, static_cast<size_t>(-2147483648LL)}));

TEST(HwIndexKey, IsEqualWhenAllThreeAre) {
  const HWIndex key{64, 48, 23};
  EXPECT_TRUE((key == HWIndex{64, 48, 23}));
  EXPECT_FALSE((key == HWIndex{48, 64, 23}));
  EXPECT_FALSE((key == HWIndex{64, 50, 23}));
  EXPECT_FALSE((key == HWIndex{64, 48, 0}));
}

}  // namespace

// Buffers and stamps that make no sense: refused or left out, and the recording goes on.

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <thread>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr long long kFrame = 40000;

class BadPushTest : public testing::Test {
 protected:
  BadPushTest() : m_path(m_dir.file("movie.mp4")), m_host(small_movie(m_path)) {}

  void SetUp() override { ASSERT_TRUE(m_host.started()); }

  int push_image(void* image, int nbytes, long long pts, int linesize) {
    return MERU_write_video_bgra(m_host.session(), image, nbytes, pts, linesize);
  }
  int push_pcm(void* pcm, int nbytes, long long pts) {
    return MERU_write_audio_pcm(m_host.session(), pcm, nbytes, pts);
  }
  /// Stops, and expects a sound movie with this many pictures.
  void expect_movie(int images) {
    m_host.stop();
    EXPECT_EQ(m_host.status().entries().size(), 1U);
    EXPECT_EQ(decode_errors(m_path), "");
    EXPECT_EQ(count_frames(m_path), images);
  }

  TempDir m_dir;
  std::string m_path;
  Host m_host;
  std::vector<uint8_t> m_image = moving_image(64, 48, 0);
  int m_nbytes = 64 * 48 * 4;
  int m_linesize = 64 * 4;
};

TEST_F(BadPushTest, ImagesThatCannotBeReadAreRefused) {
  EXPECT_EQ(push_image(nullptr, m_nbytes, kUsecPerSec, m_linesize), 0);
  EXPECT_EQ(push_image(m_image.data(), m_nbytes, kUsecPerSec, m_linesize - 1), 0);
  EXPECT_EQ(push_image(m_image.data(), m_nbytes, kUsecPerSec, 0), 0);
  EXPECT_EQ(push_image(m_image.data(), m_nbytes, kUsecPerSec, -m_linesize), 0);
  EXPECT_EQ(push_image(m_image.data(), m_nbytes, kUsecPerSec, INT_MIN), 0);
  EXPECT_NE(push_image(m_image.data(), m_nbytes, kUsecPerSec, m_linesize), 0);
  expect_movie(1);
}

TEST_F(BadPushTest, SizeOfAnImageIsOnlyLogged) {
  int index = 0;
  for (const int nbytes : {0, -1, 1, INT_MIN, INT_MAX}) {
    EXPECT_NE(push_image(m_image.data(), nbytes, kUsecPerSec + index++ * kFrame, m_linesize), 0) << nbytes;
  }
  expect_movie(index);
}

TEST_F(BadPushTest, RowsMayBeFurtherApart) {
  std::vector<uint8_t> padded(static_cast<size_t>(48) * 512, 7);
  EXPECT_NE(push_image(padded.data(), static_cast<int>(padded.size()), kUsecPerSec, 512), 0);
  EXPECT_NE(push_image(m_image.data(), m_nbytes, kUsecPerSec + kFrame, m_linesize), 0);
  expect_movie(2);
}

TEST_F(BadPushTest, SamplesOfAnySizeAreTaken) {
  std::vector<uint8_t> pcm(48000 * 4, 1);
  EXPECT_EQ(push_pcm(pcm.data(), 0, kUsecPerSec), 0);
  EXPECT_EQ(push_pcm(pcm.data(), 3, kUsecPerSec), 0);
  EXPECT_EQ(push_pcm(pcm.data(), -4, kUsecPerSec), 0);
  EXPECT_EQ(push_pcm(pcm.data(), INT_MIN, kUsecPerSec), 0);
  // One incomplete sample at the end is ignored.
  EXPECT_NE(push_pcm(pcm.data(), 48000 * 4 - 1, kUsecPerSec), 0);
  EXPECT_NE(m_host.push_image(kUsecPerSec), 0);
  expect_movie(1);
  EXPECT_NEAR(static_cast<double>(decoded_sound(m_path).size()), 48000, 2 * 1024);
}

TEST_F(BadPushTest, SilenceBackwardsOrForNoTimeAddsNothing) {
  m_host.push_samples(480, kUsecPerSec);
  EXPECT_EQ(push_pcm(nullptr, 0, kUsecPerSec), 0);
  EXPECT_EQ(push_pcm(nullptr, 0, 0), 0);
  EXPECT_EQ(push_pcm(nullptr, 0, 0), 0);
  m_host.push_image(kUsecPerSec);
  for (int i = 1; i < 20; ++i) m_host.push_samples(480, kUsecPerSec + i * 10000);
  expect_movie(1);
  EXPECT_NEAR(static_cast<double>(decoded_sound(m_path).size()), 20 * 480, 2 * 1024);
}

TEST_F(BadPushTest, StampsThatDoNotRiseAreLeftOut) {
  for (const long long at : {0LL, 1LL, 2LL, 2LL, 1LL, -50LL, 2LL, 3LL}) {
    EXPECT_NE(m_host.push_image(kUsecPerSec + at * kFrame), 0) << at;
  }
  expect_movie(4);
}

TEST_F(BadPushTest, ExtremeStampsDoNoHarm) {
  m_host.push_image(kUsecPerSec);
  for (const long long at : {LLONG_MIN, LLONG_MIN + 1, -1LL, LLONG_MIN / 2}) {
    m_host.push_image(at);
    m_host.push_samples(4800, at);
  }
  m_host.push_image(kUsecPerSec + kFrame);
  m_host.stop();
  EXPECT_EQ(count_frames(m_path), 2);
}

TEST_F(BadPushTest, SilenceOfYearsIsNotMade) {
  m_host.push_image(kUsecPerSec);
  m_host.push_samples(4800, kUsecPerSec);
  EXPECT_EQ(push_pcm(nullptr, 0, LLONG_MAX), 0);
  EXPECT_EQ(push_pcm(nullptr, 0, LLONG_MIN), 0);
  EXPECT_EQ(push_pcm(nullptr, 0, LLONG_MAX), 0);
  for (int i = 1; i < 20; ++i) m_host.push_samples(480, kUsecPerSec + 90000 + i * 10000);
  expect_movie(1);
  EXPECT_NEAR(static_cast<double>(decoded_sound(m_path).size()), 4800 + 19 * 480, 2 * 1024);
}

TEST(ExtremeFirstStampTest, DoesNoHarm) {
  for (const long long at : {LLONG_MAX, LLONG_MIN, -1LL, 0LL}) {
    const TempDir dir;
    Host host(small_movie(dir.file("movie.mp4")));
    ASSERT_TRUE(host.started());
    host.push_image(at);
    host.push_samples(4800, at);
    host.push_image(kUsecPerSec);
    host.push_samples(4800, kUsecPerSec);
    host.stop();
    EXPECT_EQ(host.status().entries().size(), 1U) << at;
  }
}

TEST(SourceFormatTest, PlanarAndPackedImagesAreConverted) {
  struct Case {
    int pix_fmt, linesize, nbytes;
  };
  // YUV420P, RGB24, GRAY8, NV12, RGBA: the values of FFmpeg's enumeration.
  for (const Case& c : {Case{0, 64, 64 * 48 * 3 / 2}, Case{2, 192, 192 * 48}, Case{8, 64, 64 * 48},
                        Case{23, 64, 64 * 48 * 3 / 2}, Case{26, 256, 256 * 48}}) {
    const TempDir dir;
    const std::string path = dir.file("movie.mp4");
    MovieInfo info = small_movie(path);
    info.pix_fmt_src = c.pix_fmt;
    info.no_audio = true;
    Host host(info);
    ASSERT_TRUE(host.started());
    std::vector<uint8_t> image(static_cast<size_t>(c.nbytes), 128);
    for (int i = 0; i < 5; ++i) {
      EXPECT_NE(MERU_write_video_bgra(host.session(), image.data(), c.nbytes, kUsecPerSec + i * kFrame, c.linesize), 0);
    }
    host.stop();
    EXPECT_EQ(decode_errors(path), "") << c.pix_fmt;
    EXPECT_EQ(count_frames(path), 5) << c.pix_fmt;
  }
}

TEST(TwoThreadsTest, FirstFramesMayComeAtTheSameMoment) {
  for (int round = 0; round < 10; ++round) {
    const TempDir dir;
    const std::string path = dir.file("movie.mp4");
    Host host(small_movie(path));
    ASSERT_TRUE(host.started());
    void* const session = host.session();
    std::thread sound([session] {
      std::vector<int16_t> pcm(960);
      for (int i = 0; i < 100; ++i) MERU_write_audio_pcm(session, pcm.data(), 1920, kUsecPerSec + i * 10000);
    });
    for (int i = 0; i < 25; ++i) EXPECT_NE(host.push_image(kUsecPerSec + i * kFrame), 0);
    sound.join();
    host.stop();
    EXPECT_EQ(count_frames(path), 25);
  }
}

}  // namespace
}  // namespace meru_test

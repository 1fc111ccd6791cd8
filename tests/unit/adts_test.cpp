#include "raw_packets/adts.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/// A frame of AAC-LC at 48 kHz in stereo, of so many bytes.
std::string frame(size_t size) {
  std::string bytes(size, 'x');
  const unsigned char header[] = {0xff,
                                  0xf1,
                                  0x4c,
                                  static_cast<unsigned char>(0x80 | size >> 11),
                                  static_cast<unsigned char>(size >> 3),
                                  static_cast<unsigned char>(size << 5 | 0x1f),
                                  0xfc};
  for (size_t i = 0; i < sizeof(header); ++i) bytes[i] = static_cast<char>(header[i]);
  return bytes;
}

class AdtsGuardTest : public testing::Test {
 protected:
  std::string checked(std::string bytes) {
    m_guard.check(reinterpret_cast<uint8_t*>(bytes.data()), bytes.size());
    return bytes;
  }
  void push_good(int count) {
    for (int i = 0; i < count; ++i) EXPECT_EQ(checked(frame(100)), frame(100));
  }
  AdtsGuard m_guard;
};

TEST_F(AdtsGuardTest, FrameSizeIsThatOfTheHeader) {
  for (const size_t size : {7U, 8U, 255U, 2048U, 8191U}) {
    const std::string bytes = frame(size);
    EXPECT_TRUE(is_adts_header(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    EXPECT_EQ(adts_frame_size(reinterpret_cast<const uint8_t*>(bytes.data())), static_cast<int>(size));
  }
}

TEST_F(AdtsGuardTest, DamagedFrameIsWipedOut) {
  push_good(3);
  for (const size_t size : {50U, 99U, 101U, 8191U}) {  // the header says so, the push has 100
    std::string bytes = frame(size);
    bytes.resize(100, 'x');
    EXPECT_EQ(checked(bytes), std::string(100, '\0'));
  }
  EXPECT_EQ(checked(std::string(100, 'x')), std::string(100, '\0'));
  push_good(1);
}

TEST_F(AdtsGuardTest, FramesBeforeTheDamageStay) {
  push_good(3);
  EXPECT_EQ(checked(frame(100) + frame(60) + frame(50).substr(0, 20)), frame(100) + frame(60) + std::string(20, '\0'));
}

TEST_F(AdtsGuardTest, PartsOfFramesAreLeftAlone) {
  const std::string stream = frame(100) + frame(100);
  EXPECT_EQ(checked(stream.substr(0, 70)), stream.substr(0, 70));
  EXPECT_EQ(checked(stream.substr(70, 70)), stream.substr(70, 70));
  EXPECT_EQ(checked(stream.substr(140)), stream.substr(140));
  push_good(5);
  EXPECT_EQ(checked(stream.substr(0, 70)), stream.substr(0, 70));
}

TEST_F(AdtsGuardTest, ShortPushes) {
  push_good(3);
  for (size_t size = 1; size < 7; ++size) EXPECT_EQ(checked(frame(100).substr(0, size)), std::string(size, '\0'));
}

}  // namespace

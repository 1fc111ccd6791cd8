#include "raw_packets/beginning.h"

#include <gtest/gtest.h>

#include <string>

#include "support/raw_media.h"

namespace {

using meru_test::RawPackets;

void read(Beginning* beginning, const std::string& bytes) {
  beginning->read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

class BeginningTest : public testing::Test {
 protected:
  static std::string unit(int type) { return std::string("\0\0\1", 3) + static_cast<char>(0x60 | type) + "data"; }

  meru_test::TempDir m_dir;
  Beginning m_pictures{"h264"};
  Beginning m_sound{"aac"};
};

TEST_F(BeginningTest, OfWhatIsKnownIsComplete) { EXPECT_TRUE(Beginning().is_complete()); }

TEST_F(BeginningTest, OfAnotherFormatIsNeverComplete) {
  Beginning other("flv");
  read(&other, unit(7) + unit(8) + unit(5));
  EXPECT_FALSE(other.is_complete());
}

TEST_F(BeginningTest, APictureBehindItsParameterSets) {
  for (const int type : {5, 1}) {
    Beginning pictures("h264");
    for (const int before : {9, 7, 6, 8, 6}) {
      read(&pictures, unit(before));
      EXPECT_FALSE(pictures.is_complete()) << before;
    }
    read(&pictures, unit(type));
    EXPECT_TRUE(pictures.is_complete());
  }
}

TEST_F(BeginningTest, PicturesBeforeTheParameterSetsTellNothing) {
  read(&m_pictures, unit(5) + unit(1) + unit(7) + unit(1) + unit(8));
  EXPECT_FALSE(m_pictures.is_complete());
  read(&m_pictures, unit(1));
  EXPECT_TRUE(m_pictures.is_complete());
}

TEST_F(BeginningTest, StartCodesLieAcrossReads) {
  const std::string bytes = unit(7) + unit(8) + unit(5);
  const size_t picture = bytes.rfind(std::string("\0\0\1", 3)) + 3;
  for (size_t i = 0; i < bytes.size(); ++i) {
    read(&m_pictures, bytes.substr(i, 1));
    EXPECT_EQ(m_pictures.is_complete(), i >= picture) << i;
  }
}

TEST_F(BeginningTest, APacketOfAnEncoder) {
  read(&m_pictures, meru_test::make_video(m_dir, {1}).packets[0].data);
  EXPECT_TRUE(m_pictures.is_complete());
}

TEST_F(BeginningTest, AFrameOfSound) {
  read(&m_sound, "");
  read(&m_sound, std::string(100, 'x'));
  EXPECT_FALSE(m_sound.is_complete());
  const std::string frame = meru_test::make_audio(m_dir, 0.1).packets[0].data;
  std::string header = frame.substr(0, 7);
  header[2] = static_cast<char>(header[2] | 0x3c);  // a sample rate that does not exist
  read(&m_sound, header);
  EXPECT_FALSE(m_sound.is_complete());
  read(&m_sound, frame.substr(0, 6));
  EXPECT_FALSE(m_sound.is_complete());
  read(&m_sound, "x" + frame);
  EXPECT_TRUE(m_sound.is_complete());
}

}  // namespace

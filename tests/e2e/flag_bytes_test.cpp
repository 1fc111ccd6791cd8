// The flags of a record are bytes of a host that may be written in any language.

#include <gtest/gtest.h>

#include <cstring>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

struct Flags {
  unsigned char no_audio, no_video, use_hardware;
};

class FlagBytes : public testing::TestWithParam<int> {
 protected:
  /// Records with these bytes. @return the bytes of the library's copy
  static Flags record(const std::string& path, Flags flags) {
    MovieInfo info = small_movie(path);
    std::memcpy(&info.no_audio, &flags.no_audio, 1);
    std::memcpy(&info.no_video, &flags.no_video, 1);
    std::memcpy(&info.use_hardware, &flags.use_hardware, 1);
    StatusLog status;
    void* session = MERU_start(info, &StatusLog::callback, &status, nullptr, false);
    MovieInfo own{};
    EXPECT_TRUE(MERU_get_mInfo(session, &own));
    const std::vector<uint8_t> image = moving_image(64, 48, 0);
    std::vector<int16_t> samples(2 * 1920);
    for (int i = 0; i < 25; ++i) {
      const long long at = kUsecPerSec + i * 40000;
      MERU_write_video_bgra(session, const_cast<uint8_t*>(image.data()), static_cast<int>(image.size()), at, 256);
      MERU_write_audio_pcm(session, samples.data(), static_cast<int>(samples.size() * 2), at);
    }
    MERU_stop(&session);
    Flags seen{};
    std::memcpy(&seen.no_audio, &own.no_audio, 1);
    std::memcpy(&seen.no_video, &own.no_video, 1);
    std::memcpy(&seen.use_hardware, &own.use_hardware, 1);
    return seen;
  }

  TempDir m_dir;
};

TEST_P(FlagBytes, OtherThanZeroAreTrue) {
  const auto byte = static_cast<unsigned char>(GetParam());
  const Flags no_audio = record(m_dir.file("video.mp4"), {byte, 0, byte});
  EXPECT_EQ(no_audio.no_audio, 1);
  EXPECT_EQ(no_audio.no_video, 0);
  EXPECT_LE(no_audio.use_hardware, 1);
  EXPECT_TRUE(probe_stream(m_dir.file("video.mp4"), "audio").is_null());
  EXPECT_EQ(count_frames(m_dir.file("video.mp4")), 25);
  const Flags no_video = record(m_dir.file("audio.mp4"), {0, byte, 0});
  EXPECT_EQ(no_video.no_video, 1);
  EXPECT_TRUE(probe_stream(m_dir.file("audio.mp4"), "video").is_null());
  EXPECT_EQ(decode_errors(m_dir.file("audio.mp4")), "");
}

INSTANTIATE_TEST_SUITE_P(Values, FlagBytes, testing::Values(1, 2, 3, 0x80, 0xfe, 0xff));

}  // namespace
}  // namespace meru_test

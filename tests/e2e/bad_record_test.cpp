// Records that no encoder can take: a documented outcome, never a crash, never a hang.

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <ostream>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

enum class Outcome {
  kRecords,         ///< started, and the movie decodes
  kStarts,          ///< started; what is pushed may be refused
  kSilent,          ///< an encoder refused its settings: not started, nothing reported
  kReported,        ///< not started, and the host was told why
  kEndsTheProcess,  ///< exit status 1, as documented
};

struct BadRecord {
  const char* name;
  std::function<void(MovieInfo*)> spoil;
  Outcome outcome;
};
void PrintTo(const BadRecord& c, std::ostream* out) { *out << c.name; }

/// Pushes buffers of a sane size, whatever the record says of them.
/// @return how many were taken
int push_a_little(void* session, const MovieInfo& info) {
  std::vector<uint8_t> image(64 * 64 * 4);
  std::vector<int16_t> pcm(2 * 4800);
  const bool image_fits = info.width_src <= 64 && info.height_src <= 64;
  int taken = 0;
  for (int i = 0; i < 5; ++i) {
    const long long at = kUsecPerSec + i * 100000;
    const int nbytes = static_cast<int>(image.size());
    if (image_fits && MERU_write_video_bgra(session, image.data(), nbytes, at, 64 * 4) != 0) ++taken;
    if (MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size() * 2), at) != 0) ++taken;
  }
  return taken;
}

class BadRecordTest : public testing::TestWithParam<BadRecord> {
 protected:
  /// The whole life of a recording. @return what came of it; a process exit does not return
  Outcome record(const MovieInfo& info) {
    StatusLog status;
    void* session = MERU_start(info, &StatusLog::callback, &status, nullptr, false);
    MovieInfo effective;
    const bool started = MERU_get_mInfo(session, &effective);
    m_taken = push_a_little(session, info);
    MERU_stop(&session);
    const auto entries = status.entries();
    if (started) return m_taken > 0 ? Outcome::kRecords : Outcome::kStarts;
    return entries.empty() ? Outcome::kSilent : Outcome::kReported;
  }
  int m_taken = 0;
};

TEST_P(BadRecordTest, EndsAsDocumented) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  GetParam().spoil(&info);
  if (GetParam().outcome == Outcome::kEndsTheProcess) {
    EXPECT_EXIT(
        {
          record(info);
          _Exit(0);
        },
        testing::ExitedWithCode(1), "");
    return;
  }
  ASSERT_EQ(record(info), GetParam().outcome);
  if (GetParam().outcome == Outcome::kRecords) {
    EXPECT_EQ(decode_errors(path), "");
  }
}

std::vector<BadRecord> pictures() {
  return {
      {"OddSize", [](MovieInfo* m) { m->width = m->height = m->width_src = m->height_src = 47; }, Outcome::kSilent},
      {"WidthZero", [](MovieInfo* m) { m->width = 0; }, Outcome::kSilent},
      {"HeightZero", [](MovieInfo* m) { m->height = 0; }, Outcome::kSilent},
      {"WidthNegative", [](MovieInfo* m) { m->width = -64; }, Outcome::kSilent},
      {"HeightNegative", [](MovieInfo* m) { m->height = -48; }, Outcome::kSilent},
      {"WidthHuge", [](MovieInfo* m) { m->width = 100000; }, Outcome::kSilent},
      {"SizeHuge", [](MovieInfo* m) { m->width = m->height = INT_MAX; }, Outcome::kSilent},
      {"SourceWidthZero", [](MovieInfo* m) { m->width_src = 0; }, Outcome::kRecords},
      {"SourceNegative", [](MovieInfo* m) { m->width_src = m->height_src = -5; }, Outcome::kRecords},
      {"SourceHeightZero", [](MovieInfo* m) { m->height_src = 0; }, Outcome::kRecords},
      {"SourceHuge", [](MovieInfo* m) { m->width_src = m->height_src = 100000; }, Outcome::kRecords},
      {"SourceOdd", [](MovieInfo* m) { m->width_src = 63, m->height_src = 47; }, Outcome::kRecords},
      {"SourceFormatUnknown", [](MovieInfo* m) { m->pix_fmt_src = 99999; }, Outcome::kRecords},
      {"SourceFormatNegative", [](MovieInfo* m) { m->pix_fmt_src = -7; }, Outcome::kRecords},
      {"FormatUnknown", [](MovieInfo* m) { m->pix_fmt = 99999; }, Outcome::kRecords},
      {"FormatNegative", [](MovieInfo* m) { m->pix_fmt = INT_MIN; }, Outcome::kRecords},
      {"FpsZero", [](MovieInfo* m) { m->fps = 0; }, Outcome::kSilent},
      {"FpsNegative", [](MovieInfo* m) { m->fps = -25; }, Outcome::kSilent},
      {"FpsHuge", [](MovieInfo* m) { m->fps = INT_MAX; }, Outcome::kRecords},
      {"GopNegative", [](MovieInfo* m) { m->gop_size = -1; }, Outcome::kRecords},
      {"GopHuge", [](MovieInfo* m) { m->gop_size = INT_MAX; }, Outcome::kRecords},
      {"BitrateNegative", [](MovieInfo* m) { m->v_bitrate = -1; }, Outcome::kSilent},
      {"BitrateHuge", [](MovieInfo* m) { m->v_bitrate = INT_MAX; }, Outcome::kRecords},
      {"BitrateHugeConstant", [](MovieInfo* m) { m->v_bitrate = INT_MAX, m->rate_control = 1; }, Outcome::kRecords},
      {"RateControlUnknown", [](MovieInfo* m) { m->rate_control = 77; }, Outcome::kRecords},
      {"ColoursUnknown", [](MovieInfo* m) { m->color_primaries = m->color_trc = m->colorspace = m->color_range = 250; },
       Outcome::kRecords},
      {"PresetsOutOfTable", [](MovieInfo* m) { m->preset = 11, m->profile = 7, m->tune = 9; }, Outcome::kRecords},
      {"PresetsNegative", [](MovieInfo* m) { m->preset = m->profile = m->tune = INT_MIN; }, Outcome::kRecords},
      {"TimeoutNegative", [](MovieInfo* m) { m->timeout_sec = INT_MIN; }, Outcome::kRecords},
  };
}

std::vector<BadRecord> sounds() {
  return {
      {"SourceRateZero", [](MovieInfo* m) { m->sample_rate_src = 0; }, Outcome::kRecords},
      {"SourceRateNegative", [](MovieInfo* m) { m->sample_rate_src = -1; }, Outcome::kRecords},
      {"SourceRateHuge", [](MovieInfo* m) { m->sample_rate_src = 2000000000; }, Outcome::kRecords},
      {"RateZero", [](MovieInfo* m) { m->sample_rate_dst = 0; }, Outcome::kRecords},
      {"RateHuge", [](MovieInfo* m) { m->sample_rate_dst = INT_MAX; }, Outcome::kRecords},
      {"ChannelsZero", [](MovieInfo* m) { m->channels = 0; }, Outcome::kRecords},
      {"ChannelsNegative", [](MovieInfo* m) { m->channels = -2; }, Outcome::kRecords},
      {"ChannelsMany", [](MovieInfo* m) { m->channels = 64; }, Outcome::kRecords},
      {"ChannelsHuge", [](MovieInfo* m) { m->channels = INT_MAX; }, Outcome::kReported},
      {"SampleFormatUnknown", [](MovieInfo* m) { m->sample_fmt = 99; }, Outcome::kRecords},
      {"SampleFormatNegative", [](MovieInfo* m) { m->sample_fmt = -1; }, Outcome::kRecords},
      {"BitrateZero", [](MovieInfo* m) { m->a_bitrate = 0; }, Outcome::kRecords},
      {"BitrateNegative", [](MovieInfo* m) { m->a_bitrate = -1; }, Outcome::kEndsTheProcess},
      {"BitrateHuge", [](MovieInfo* m) { m->a_bitrate = INT_MAX; }, Outcome::kRecords},
  };
}

std::string name_of(const testing::TestParamInfo<BadRecord>& test) { return test.param.name; }

INSTANTIATE_TEST_SUITE_P(Pictures, BadRecordTest, testing::ValuesIn(pictures()), name_of);
INSTANTIATE_TEST_SUITE_P(Sounds, BadRecordTest, testing::ValuesIn(sounds()), name_of);

}  // namespace
}  // namespace meru_test

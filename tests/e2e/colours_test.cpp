// The decoded colours are those that were pushed, whatever the record says of the colour space.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ostream>

#include "support/host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

using Bgr = std::array<int, 3>;

constexpr int kPatch = 32;
const std::vector<Bgr> kPatches = {{0, 0, 0},   {255, 255, 255}, {128, 128, 128}, {0, 0, 220},
                                   {0, 220, 0}, {220, 0, 0},     {40, 200, 230},  {200, 60, 120}};

struct ColourCase {
  const char* name;
  int colorspace, primaries, trc, range;
  const char* tagged_space;  ///< what the movie must say; "-" for nothing
  const char* tagged_range;
  const char* true_matrix;   ///< the matrix the pixels must be in
  const char* other_matrix;  ///< one that they must not be in
};
void PrintTo(const ColourCase& c, std::ostream* out) { *out << c.name; }

class ColourTest : public testing::TestWithParam<ColourCase> {
 protected:
  /// Records a row of patches.
  void record(const std::string& path) {
    const ColourCase& c = GetParam();
    MovieInfo info = small_movie(path);
    info.width = info.width_src = kPatch * static_cast<int>(kPatches.size());
    info.height = info.height_src = kPatch;
    info.no_audio = true;
    info.rate_control = RATE_CONTROL_CQP;
    info.qp = 4;
    info.colorspace = c.colorspace;
    info.color_primaries = c.primaries;
    info.color_trc = c.trc;
    info.color_range = c.range;
    std::vector<uint8_t> image(static_cast<size_t>(info.width * info.height * 4), 255);
    for (size_t i = 0; i < image.size(); ++i) {
      const size_t patch = i / 4 % static_cast<size_t>(info.width) / kPatch;
      if (i % 4 != 3) image[i] = static_cast<uint8_t>(kPatches[patch][i % 4]);
    }
    Host host(info);
    ASSERT_TRUE(host.started());
    for (int i = 0; i < 3; ++i) {
      const int nbytes = static_cast<int>(image.size());
      EXPECT_NE(MERU_write_video_bgra(host.session(), image.data(), nbytes, 1 + i * 40000, info.width * 4), 0);
    }
  }

  /// The largest difference of a patch's centre from what was pushed.
  /// @param scale  options of the scale filter that overrule the movie's tags
  static int worst_difference(const std::string& path, const std::string& scale) {
    const std::string pixels = decoded(
        path, "-frames:v 1 -vf scale=" + scale + "flags=accurate_rnd+full_chroma_int -pix_fmt bgra -f rawvideo");
    const size_t row = kPatch * kPatches.size() * 4;
    int worst = 0;
    for (size_t patch = 0; patch < kPatches.size(); ++patch) {
      const size_t at = kPatch / 2 * row + (patch * kPatch + kPatch / 2) * 4;
      for (size_t i = 0; i < 3; ++i) {
        worst = std::max(worst, std::abs(static_cast<uint8_t>(pixels.at(at + i)) - kPatches[patch][i]));
      }
    }
    return worst;
  }
};

TEST_P(ColourTest, DecodedColoursAreThosePushed) {
  const ColourCase& c = GetParam();
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  record(path);
  const auto stream = probe_stream(path, "video");
  EXPECT_EQ(stream.value("color_space", "-"), c.tagged_space);
  EXPECT_EQ(stream.value("color_range", "-"), c.tagged_range);
  // As a player decodes it, and with the matrix said outright: the tags are right, not only consistent.
  EXPECT_LE(worst_difference(path, ""), 6);
  EXPECT_LE(worst_difference(path, std::string("in_color_matrix=") + c.true_matrix + ":"), 6);
  EXPECT_GE(worst_difference(path, std::string("in_color_matrix=") + c.other_matrix + ":"), 12);
}

INSTANTIATE_TEST_SUITE_P(All, ColourTest,
                         testing::Values(ColourCase{"Plain", 2, 0, 0, 0, "-", "-", "bt601", "bt709"},
                                         ColourCase{"Bt709", 1, 1, 1, 0, "bt709", "tv", "bt709", "bt601"},
                                         ColourCase{"Bt709Limited", 1, 1, 1, 1, "bt709", "tv", "bt709", "bt601"},
                                         ColourCase{"Bt709Full", 1, 1, 1, 2, "bt709", "pc", "bt709", "bt601"},
                                         ColourCase{"PlainFull", 2, 0, 0, 2, "-", "pc", "bt601", "bt709"},
                                         ColourCase{"Bt2020", 9, 9, 14, 1, "bt2020nc", "tv", "bt2020", "bt601"}),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace meru_test

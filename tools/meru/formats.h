#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace meru_tool {

/// A value of an option that is given by its name.
struct Named {
  const char* name;
  int value;
};

extern const std::vector<Named> kPresets;
extern const std::vector<Named> kProfiles;
extern const std::vector<Named> kTunes;
extern const std::vector<Named> kRateControls;
extern const std::vector<Named> kColorRanges;

/// The value called `name`. Throws a UsageError that lists the names when there is none.
int value_of(const std::vector<Named>& table, const std::string& option, const std::string& name);
/// The names, as a help text shows them.
std::string names_of(const std::vector<Named>& table);

/// A pixel format that images can be pushed in.
struct PixelFormat {
  const char* name;
  int value;          ///< MovieInfo_::pix_fmt_src
  int row_bytes;      ///< bytes per pixel in the rows of the first plane
  int chroma_width;   ///< divisor of the width in the other planes, 0 when there are none
  int chroma_height;  ///< divisor of their height
  int chroma_bytes;   ///< bytes per chroma position, all chroma planes together

  int linesize(int width) const { return width * row_bytes; }
  /// Bytes of one image whose planes follow each other without gaps.
  size_t image_bytes(int width, int height) const;
};

const PixelFormat& pixel_format(std::string_view option, std::string_view name);
/// The format of that number, which must be in the table.
const PixelFormat& pixel_format_of(int value);
std::string pixel_format_names();

/// A sample format of interleaved PCM.
struct SampleFormat {
  const char* name;
  int value;  ///< MovieInfo_::sample_fmt
  int bytes;
};

const SampleFormat& sample_format(std::string_view option, std::string_view name);
std::string sample_format_names();

/// The colour description of a picture: matrix, primaries and transfer curve that belong together.
struct ColorSpace {
  const char* name;
  int colorspace, primaries, trc;
};

const ColorSpace& color_space(std::string_view option, std::string_view name);
std::string color_space_names();

}  // namespace meru_tool

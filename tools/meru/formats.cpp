#include "formats.h"

#include <algorithm>

#include "failure.h"
#include "meru/movie_info.h"

namespace meru_tool {

const std::vector<Named> kPresets = {{"ultrafast", QUALITY_ULTRAFAST},
                                     {"superfast", QUALITY_SUPERFAST},
                                     {"veryfast", QUALITY_VERYFAST},
                                     {"faster", QUALITY_FASTER},
                                     {"fast", QUALITY_FAST},
                                     {"medium", QUALITY_MEDIUM},
                                     {"slow", QUALITY_SLOW},
                                     {"slower", QUALITY_SLOWER},
                                     {"veryslow", QUALITY_VERYSLOW},
                                     {"placebo", QUALITY_PLACEBO},
                                     {"none", QUALITY_NONE}};

const std::vector<Named> kProfiles = {
    {"baseline", PROFILE_BASELINE}, {"main", PROFILE_MAIN},       {"high", PROFILE_HIGH}, {"high10", PROFILE_HIGH10},
    {"high422", PROFILE_HIGH422},   {"high444", PROFILE_HIGH444}, {"none", PROFILE_NONE}};

const std::vector<Named> kTunes = {{"film", TUNE_FILM},
                                   {"animation", TUNE_ANIMATION},
                                   {"grain", TUNE_GRAIN},
                                   {"stillimage", TUNE_STILLIMAGE},
                                   {"psnr", TUNE_PSNR},
                                   {"ssim", TUNE_SSIM},
                                   {"fastdecode", TUNE_FASTDECODE},
                                   {"zerolatency", TUNE_ZEROLATENCY},
                                   {"none", TUNE_NONE}};

const std::vector<Named> kRateControls = {
    {"abr", RATE_CONTROL_ABR}, {"cbr", RATE_CONTROL_CBR}, {"cqp", RATE_CONTROL_CQP}, {"vbr", RATE_CONTROL_VBR}};

const std::vector<Named> kColorRanges = {{"limited", 1}, {"full", 2}, {"none", 0}};

namespace {

const std::vector<PixelFormat> kPixelFormats = {
    {"bgra", 28, 4, 0, 0, 0},   {"rgba", 26, 4, 0, 0, 0},  {"argb", 25, 4, 0, 0, 0},   {"abgr", 27, 4, 0, 0, 0},
    {"bgr24", 3, 3, 0, 0, 0},   {"rgb24", 2, 3, 0, 0, 0},  {"yuv420p", 0, 1, 2, 2, 2}, {"nv12", 23, 1, 2, 2, 2},
    {"yuv422p", 4, 1, 2, 1, 2}, {"yuv444p", 5, 1, 1, 1, 2}};

const std::vector<SampleFormat> kSampleFormats = {
    {"u8", 0, 1}, {"s16", 1, 2}, {"s32", 2, 4}, {"flt", 3, 4}, {"dbl", 4, 8}};

const std::vector<ColorSpace> kColorSpaces = {
    {"none", 2, 0, 0}, {"bt709", 1, 1, 1}, {"bt601", 6, 6, 6}, {"bt470bg", 5, 5, 5}, {"bt2020", 9, 9, 14}};

template <class T>
std::string list(const std::vector<T>& table) {
  std::string text;
  for (const T& entry : table) text.append(text.empty() ? "" : ", ").append(entry.name);
  return text;
}

template <class T>
const T& find(const std::vector<T>& table, std::string_view option, std::string_view name) {
  for (const T& entry : table) {
    if (name == entry.name) return entry;
  }
  throw UsageError(std::string(option) + ": '" + std::string(name) + "' is not one of " + list(table));
}

}  // namespace

int value_of(const std::vector<Named>& table, const std::string& option, const std::string& name) {
  return find(table, option, name).value;
}

std::string names_of(const std::vector<Named>& table) { return list(table); }

size_t PixelFormat::image_bytes(int width, int height) const {
  const size_t first = static_cast<size_t>(linesize(width)) * static_cast<size_t>(height);
  if (chroma_width == 0) return first;
  const auto columns = static_cast<size_t>((width + chroma_width - 1) / chroma_width);
  const auto rows = static_cast<size_t>((height + chroma_height - 1) / chroma_height);
  return first + columns * rows * static_cast<size_t>(chroma_bytes);
}

const PixelFormat& pixel_format(std::string_view option, std::string_view name) {
  return find(kPixelFormats, option, name);
}

const PixelFormat& pixel_format_of(int value) {
  return *std::find_if(kPixelFormats.begin(), kPixelFormats.end(), [&](const auto& f) { return f.value == value; });
}

std::string pixel_format_names() { return list(kPixelFormats); }

const SampleFormat& sample_format(std::string_view option, std::string_view name) {
  return find(kSampleFormats, option, name);
}
std::string sample_format_names() { return list(kSampleFormats); }

const ColorSpace& color_space(std::string_view option, std::string_view name) {
  return find(kColorSpaces, option, name);
}
std::string color_space_names() { return list(kColorSpaces); }

}  // namespace meru_tool

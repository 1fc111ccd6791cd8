#pragma once

#include <cstring>
#include <string>

#include "meru/movie_info.h"

namespace meru_test {

/// Puts a text into one of the record's fixed fields.
template <size_t N>
void set_text(char (&field)[N], const std::string& text) {
  std::strncpy(field, text.c_str(), N - 1);
}

/// A record of a small movie: 64 by 48 BGRA images at 25 a second, 48 kHz stereo sound in 16 bit, H.264 without delay.
inline MovieInfo small_movie(const std::string& url) {
  MovieInfo info{};
  set_text(info.url, url);
  info.a_bitrate = 64;
  info.sample_rate_src = info.sample_rate_dst = 48000;
  info.channels = 2;
  info.sample_fmt = 1;  // signed 16 bit, interleaved
  info.rate_control = RATE_CONTROL_ABR;
  info.v_bitrate = 200;
  info.width = info.width_src = 64;
  info.height = info.height_src = 48;
  info.fps = 25;
  info.gop_size = 10;
  info.pix_fmt_src = 28;  // BGRA
  info.pix_fmt = 0;       // YUV420P
  info.colorspace = 2;    // not said
  info.preset = QUALITY_ULTRAFAST;
  info.profile = PROFILE_BASELINE;
  info.tune = TUNE_ZEROLATENCY;
  return info;
}

}  // namespace meru_test

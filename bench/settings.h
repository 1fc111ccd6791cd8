#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "support/host.h"

namespace meru_bench {

constexpr int kGopSize = 60;
constexpr const char* kPreset = "ultrafast";

/// What is recorded, as the command line says it.
struct Settings {
  int width = 1920, height = 1080;
  int fps = 60;

  void add_options(CLI::App* app) {
    app->add_option_function<std::string>(
           "--size", [this](const std::string& text) { set_size(text); }, "Size of the images (" + size() + ")")
        ->type_name("WxH");
    app->add_option("--fps", fps, "Images per second")->check(CLI::Range(1, 1000))->capture_default_str();
  }

  std::string size() const { return std::to_string(width) + "x" + std::to_string(height); }

  /// A recording of the images alone: constant quality, no B-frames, kPreset, a key frame every kGopSize images.
  MovieInfo movie(const std::string& url, int pix_fmt_src) const {
    MovieInfo info = meru_test::small_movie(url);
    info.no_audio = true;
    info.v_bitrate = 0;
    info.width = info.width_src = width;
    info.height = info.height_src = height;
    info.fps = fps;
    info.gop_size = kGopSize;
    info.pix_fmt_src = pix_fmt_src;
    return info;
  }

 private:
  void set_size(const std::string& text) {
    char rest = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &rest) != 2 || width < 16 || height < 16) {
      throw CLI::ValidationError("--size", "not a size: " + text);
    }
  }
};

}  // namespace meru_bench

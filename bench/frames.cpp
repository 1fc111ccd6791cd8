// Encodes YUV420P images as fast as it can, through the library or with FFmpeg's encoder and muxer alone.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "bare_encoder.h"
#include "program.h"
#include "settings.h"
#include "yuv_file.h"

namespace {

using namespace meru_bench;

void encode_bare(YuvFile* images, const std::string& output, const Settings& settings) {
  BareEncoder encoder(output, settings);
  while (const AVFrame* image = images->next()) encoder.push(image);
  encoder.finish();
}

void encode_recorded(YuvFile* images, const std::string& output, const Settings& settings) {
  meru_test::Host host(settings.movie(output, meru_test::kPixelsYuv420p));
  if (!host.started()) throw std::runtime_error("the recording did not start");
  const AVRational time_base{1, settings.fps};
  while (AVFrame* image = images->next()) {
    if (MERU_write_video_frame(host.session(), image, time_base) == 0) throw std::runtime_error("an image was dropped");
  }
}

int run(int argc, char** argv) {
  CLI::App app("Encodes a file of YUV420P images.");
  Settings settings;
  std::string way, input, output;
  app.add_option("WAY", way, "meru: through the library; bare: with FFmpeg alone")
      ->required()
      ->check(CLI::IsMember({"meru", "bare"}));
  app.add_option("--input", input, "The images")->required();
  app.add_option("-o,--output", output, "The movie")->required();
  settings.add_options(&app);
  CLI11_PARSE(app, argc, argv);
  YuvFile images(input, settings.width, settings.height);
  (way == "meru" ? encode_recorded : encode_bare)(&images, output, settings);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return run_program("frames", [=] { return run(argc, argv); });
}

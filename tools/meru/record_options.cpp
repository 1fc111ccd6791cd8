#include "record_options.h"

#include "failure.h"
#include "formats.h"

namespace meru_tool {

namespace {

const char* const kDescription =
    "Records images and sound into a movie file or a live stream.\n"
    "p or SIGUSR1 pauses and resumes. q, Ctrl-C or SIGTERM ends the recording and completes the movie; another one, a\n"
    "second later, ends at once. The exit status is 0 only when every output was completed and every source was read "
    "whole, 2 for\n"
    "a mistake in the command line, else 1.";

void add_sources(CLI::App* cmd, RecordOptions* o) {
  const char* group = "Sources";
  cmd->add_flag("--test", o->test, "The library's test picture and tone, for what no other source gives")->group(group);
  cmd->add_option("--video-raw", o->video_raw, "Raw images one after another: a file, or - for standard input")
      ->type_name("FILE")
      ->group(group);
  cmd->add_option("--size", o->size, "Size of the raw images or of the test picture (test: 1280x720)")
      ->type_name("WxH")
      ->group(group);
  cmd->add_option("--fps", o->fps, "Images per second, raw and test")
      ->type_name("N")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--pix-fmt", o->pix_fmt,
                  "Pixel format of the raw images, bgra when not given: " + pixel_format_names())
      ->type_name("NAME")
      ->group(group);
  cmd->add_option("--y4m", o->y4m, "YUV4MPEG2 images (4:2:0, 4:2:2 or 4:4:4, 8 bit): a file, or -")
      ->type_name("FILE")
      ->group(group);
  cmd->add_option("--audio-raw", o->audio_raw, "Interleaved PCM: a file, or -")->type_name("FILE")->group(group);
  cmd->add_option("--rate", o->rate, "Sample rate of the sound in Hz")
      ->type_name("HZ")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--channels", o->channels, "Channels of the PCM")
      ->type_name("N")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--sample-fmt", o->sample_fmt, "Sample format of the PCM: " + sample_format_names())
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_flag("--no-video", o->no_video, "Record no images")->group(group);
  cmd->add_flag("--no-audio", o->no_audio, "Record no sound")->group(group);
  cmd->add_flag("--realtime", o->realtime,
                "Take the sources as live, at the pace of the clock; what they give during a pause is left out")
      ->group(group);
}

void check_sources(const RecordOptions& o) {
  if (!o.video_raw.empty() && !o.y4m.empty()) throw UsageError("--video-raw and --y4m are both given: one is enough");
  if (!o.test && o.video_raw.empty() && o.y4m.empty() && o.audio_raw.empty()) {
    throw UsageError("no source is given: --test, --video-raw, --y4m or --audio-raw");
  }
  if (!o.wants_video() && !o.wants_audio()) throw UsageError("nothing is left to record");
  const bool video_stdin = o.wants_video() && (o.video_raw == "-" || o.y4m == "-");
  if (video_stdin && o.wants_audio() && o.audio_raw == "-") {
    throw UsageError("--audio-raw: standard input is already the source of the images");
  }
  if (!o.video_raw.empty() && o.wants_video() && o.size.empty()) {
    throw UsageError("--video-raw needs the size of its images: --size WxH");
  }
  // The test picture is drawn in a format that suits the encoder, the test tone as 16-bit stereo.
  if (!o.pix_fmt.empty()) pixel_format("--pix-fmt", o.pix_fmt);
  sample_format("--sample-fmt", o.sample_fmt);
  if (o.test_audio() && (o.channels != 2 || o.sample_fmt != "s16")) {
    throw UsageError("--test: the test tone is stereo s16; --channels and --sample-fmt are for --audio-raw");
  }
}

}  // namespace

CLI::App* add_record_command(CLI::App* app, RecordOptions* options) {
  CLI::App* cmd = app->add_subcommand("record", kDescription);
  add_sources(cmd, options);
  add_output_options(cmd, options);
  add_encoder_options(cmd, options);
  add_running_options(cmd, options);
  return cmd;
}

void check_options(const CLI::App& cmd, const RecordOptions& options) {
  check_sources(options);
  check_movie_options(cmd, options, {options.video_raw, options.y4m, options.audio_raw});
}

}  // namespace meru_tool

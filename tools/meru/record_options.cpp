#include "record_options.h"

#include "failure.h"
#include "formats.h"

namespace meru_tool {

namespace {

const char* const kDescription =
    "Records images and sound into a movie file or a live stream.\n"
    "p or SIGUSR1 pauses and resumes. Ctrl-C or SIGTERM ends the recording and completes the movie; another one, a\n"
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
}

void add_outputs(CLI::App* cmd, RecordOptions* o) {
  const char* group = "Outputs";
  cmd->add_option("-o,--output", o->output,
                  "The movie: a file (replaced; its extension says the container), rtmp:// or rtsp://")
      ->type_name("OUT")
      ->required()
      ->group(group);
  cmd->add_option("--index", o->index, "Side index, from which a movie that was cut short can be repaired")
      ->type_name("FILE")
      ->group(group);
  cmd->add_option("--also", o->also, "Further output of the same recording; up to four times")
      ->type_name("URL")
      ->expected(1)
      ->take_all()
      ->group(group);
  cmd->add_option("--metadata", o->metadata, "Tags of the movie: \"title:...;comment:...\"")
      ->type_name("TEXT")
      ->group(group);
  cmd->add_option("--timeout", o->timeout_sec, "Network outputs: seconds to wait for the server, 0 for ever")
      ->type_name("SEC")
      ->capture_default_str()
      ->group(group);
}

void add_encoders(CLI::App* cmd, RecordOptions* o) {
  const char* group = "Encoders";
  cmd->add_option("--preset", o->preset, "Speed: " + names_of(kPresets))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--profile", o->profile, "H.264 profile: " + names_of(kProfiles))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--tune", o->tune, "Tuning: " + names_of(kTunes))
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--rate-control", o->rate_control,
                  names_of(kRateControls) + "; abr when not given, cbr with --crf, cqp with --qp")
      ->type_name("NAME")
      ->group(group);
  cmd->add_option("--v-bitrate", o->v_bitrate, "Video kbit/s; 0 leaves the choice to the encoder (constant quality)")
      ->type_name("KBIT")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--a-bitrate", o->a_bitrate, "Audio kbit/s")->type_name("KBIT")->capture_default_str()->group(group);
  cmd->add_option("--crf", o->crf, "Constant quality, 1 (best) to 51, with --rate-control cbr")
      ->type_name("N")
      ->group(group);
  cmd->add_option("--qp", o->qp, "Constant quantizer, 1 (best) to 51, with --rate-control cqp")
      ->type_name("N")
      ->group(group);
  cmd->add_option("--gop", o->gop, "Images from one key frame to the next (two seconds)")->type_name("N")->group(group);
  cmd->add_option("--out-size", o->out_size, "Size of the movie, when not that of the source")
      ->type_name("WxH")
      ->group(group);
  cmd->add_option("--color-space", o->color_space, "Colours of the movie: " + color_space_names())
      ->type_name("NAME")
      ->capture_default_str()
      ->group(group);
  cmd->add_option("--color-range", o->color_range, names_of(kColorRanges) + "; none when the source does not say")
      ->type_name("NAME")
      ->group(group);
  cmd->add_flag("--hardware", o->hardware, "Use a hardware encoder when one is usable")->group(group);
}

void add_running(CLI::App* cmd, RecordOptions* o) {
  const char* group = "Running";
  cmd->add_option("--seconds", o->seconds, "Stop after this much recorded time; else at the end of the sources")
      ->type_name("SEC")
      ->group(group);
  cmd->add_flag("--realtime", o->realtime,
                "Take the sources as live, at the pace of the clock; what they give during a pause is left out")
      ->group(group);
  cmd->add_option("--progress", o->progress_ms, "Milliseconds from one line of progress to the next (1000)")
      ->type_name("MS")
      ->check(CLI::Range(1, 3600000).description(""))
      ->group(group);
  cmd->add_option("--log", o->log, "Append the diagnostics of the library and of the encoders to this file")
      ->type_name("FILE")
      ->group(group);
  cmd->add_flag("--verbose", o->verbose, "Show the diagnostics, or write more of them to the log")->group(group);
}

}  // namespace

CLI::App* add_record_command(CLI::App* app, RecordOptions* options) {
  CLI::App* cmd = app->add_subcommand("record", kDescription);
  add_sources(cmd, options);
  add_outputs(cmd, options);
  add_encoders(cmd, options);
  add_running(cmd, options);
  return cmd;
}

}  // namespace meru_tool

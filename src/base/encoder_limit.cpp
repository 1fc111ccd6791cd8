#include "base/encoder_limit.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include "base/presets.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace {

/// The frames that libx264 looks ahead, by preset; the last one is that of no preset.
constexpr int kLookahead[] = {0, 0, 10, 20, 30, 40, 50, 60, 60, 60, 40};
static_assert(std::size(kLookahead) == QUALITY_NONE + 1);

std::string option(const AVCodecContext* enc, const char* name) {
  uint8_t* text = nullptr;
  if (av_opt_get(enc->priv_data, name, AV_OPT_ALLOW_NULL, &text) < 0 || text == nullptr) return {};
  std::string value(reinterpret_cast<const char*>(text));
  av_free(text);
  return value;
}

int lookahead_of(const AVCodecContext* enc) {
  if (option(enc, "tune") == tune_to_str(TUNE_ZEROLATENCY)) return 0;
  const std::string preset = option(enc, "preset");
  return kLookahead[preset.empty() ? QUALITY_NONE : preset_from_str(preset.c_str())];
}

/// One frame is held so that the duration of the one before is known, unless a constant frame rate is declared. The
/// first frame of look-ahead is worth more to the rate control than that.
void limit_x264(AVCodecContext* enc, int frames) {
  const bool declare_constant_rate = frames < 2;
  const int lookahead = std::min(declare_constant_rate ? frames : frames - 1, lookahead_of(enc));
  enc->thread_type = FF_THREAD_SLICE;
  av_opt_set_int(enc->priv_data, "rc-lookahead", lookahead, 0);
  av_opt_set(enc->priv_data, "x264-params", declare_constant_rate ? "sync-lookahead=0:force-cfr=1" : "sync-lookahead=0",
             0);
}

}  // namespace

int frames_within(int64_t limit_usec, AVRational frame_rate) {
  if (frame_rate.num <= 0 || frame_rate.den <= 0) return 0;
  const int64_t frames = av_rescale_rnd(limit_usec, frame_rate.num, int64_t{1000000} * frame_rate.den, AV_ROUND_DOWN);
  return static_cast<int>(std::clamp<int64_t>(frames - 1, 0, INT16_MAX));
}

void limit_held_frames(AVCodecContext* enc, int frames) {
  enc->max_b_frames = std::min(enc->max_b_frames, frames);
  if (std::strcmp(enc->codec->name, "libx264") == 0) limit_x264(enc, frames);
}

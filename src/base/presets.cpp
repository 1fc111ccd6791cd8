#include "base/presets.h"

#include <cstring>
#include <initializer_list>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace {

/// One row; a row's value is its index. The last row's empty text means that nothing is asked for.
struct Pair {
  int value;
  const char* text;
};

constexpr Pair g_qm[] = {{0, "ultrafast"}, {1, "superfast"}, {2, "veryfast"}, {3, "faster"},
                         {4, "fast"},      {5, "medium"},    {6, "slow"},     {7, "slower"},
                         {8, "veryslow"},  {9, "placebo"},   {10, ""}};
constexpr Pair g_profiles[] = {{0, "baseline"}, {1, "main"},    {2, "high"}, {3, "high10"},
                               {4, "high422"},  {5, "high444"}, {6, ""}};
constexpr Pair g_tunes[] = {{0, "film"},       {1, "animation"},   {2, "grain"},
                            {3, "stillimage"}, {4, "psnr"},        {5, "ssim"},
                            {6, "fastdecode"}, {7, "zerolatency"}, {8, ""}};

template <size_t N>
const char* text_of(const Pair (&table)[N], int value) {
  return value >= 0 && value < static_cast<int>(N) ? table[value].text : "";
}

template <size_t N>
int value_of(const Pair (&table)[N], const char* text, int fallback) {
  for (const Pair& pair : table) {
    if (*pair.text != '\0' && text != nullptr && strcmp(pair.text, text) == 0) return pair.value;
  }
  return fallback;
}

}  // namespace

const char* preset_to_str(Quality_Level q) { return text_of(g_qm, q); }
const char* profile_to_str(Profile_Level p) { return text_of(g_profiles, p); }
const char* tune_to_str(Tune_Level t) { return text_of(g_tunes, t); }

Quality_Level preset_from_str(const char* text) {
  return static_cast<Quality_Level>(value_of(g_qm, text, QUALITY_VERYFAST));
}
Profile_Level profile_from_str(const char* text) {
  return static_cast<Profile_Level>(value_of(g_profiles, text, PROFILE_BASELINE));
}
Tune_Level tune_from_str(const char* text) {
  return static_cast<Tune_Level>(value_of(g_tunes, text, TUNE_ZEROLATENCY));
}

int fastRealTime(AVCodecContext* ctx, Quality_Level q, Profile_Level p, Tune_Level t) {
  if (ctx->priv_data == nullptr || ctx->codec == nullptr || ctx->codec->priv_class == nullptr) {
    return AVERROR_OPTION_NOT_FOUND;
  }
  av_opt_set(ctx->priv_data, "preset", preset_to_str(q), 0);
  av_opt_set(ctx->priv_data, "profile", profile_to_str(p), 0);
  return av_opt_set(ctx->priv_data, "tune", tune_to_str(t), 0);
}

void unset_empty_presets(AVCodecContext* ctx) {
  if (ctx->priv_data == nullptr || ctx->codec == nullptr || ctx->codec->priv_class == nullptr) return;
  for (const char* name : {"preset", "profile", "tune"}) {
    const AVOption* option = av_opt_find(ctx->priv_data, name, nullptr, 0, 0);
    if (option == nullptr || option->type != AV_OPT_TYPE_STRING) continue;
    uint8_t* text = nullptr;
    if (av_opt_get(ctx->priv_data, name, AV_OPT_ALLOW_NULL, &text) >= 0 && text != nullptr && *text == '\0') {
      av_opt_set(ctx->priv_data, name, nullptr, 0);
    }
    av_free(text);
  }
}

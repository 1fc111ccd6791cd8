#include "base/hardware_enc.h"

#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"
#include "common/log_site.h"

namespace {

constexpr int kSmallestSide = 4;

AVPixelFormat choose_pix_fmt(const AVCodec* codec, AVPixelFormat wanted) {
  const AVPixelFormat* list = meru_compat::supported_pix_fmts(codec);
  if (list == nullptr || *list == AV_PIX_FMT_NONE) return wanted;
  for (const AVPixelFormat* fmt = list; *fmt != AV_PIX_FMT_NONE; ++fmt) {
    if (*fmt == wanted) return wanted;
  }
  return *list;
}

bool try_encoder(const char* name, int width, int height, AVPixelFormat pix_fmt) {
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (codec == nullptr) {
    MERU_LOG(2, "--- 没有找到 '%s' 编码器", name);
    return false;
  }
  const CodecContextPtr ctx(avcodec_alloc_context3(codec));
  if (ctx == nullptr) {
    MERU_LOG(2, "--- 准备编码器'%s' 出错", name);
    return false;
  }
  ctx->width = width;
  ctx->height = height;
  ctx->codec_type = codec->type;
  ctx->time_base = {1, 25};
  ctx->framerate = {25, 1};
  ctx->sample_aspect_ratio = {1, 1};
  ctx->pix_fmt = choose_pix_fmt(codec, pix_fmt);
  ctx->bit_rate = 2000000;
  const int ret = avcodec_open2(ctx.get(), codec, nullptr);
  if (ret < 0) MERU_LOG(2, "--- 打开编码器 '%s' 出错: %s", name, AvError(ret).text);
  return ret >= 0;
}

}  // namespace

size_t HWIndexHasher::operator()(const HWIndex& index) const {
  // In 32 bits, which may wrap, and widened with its sign.
  const uint32_t product = static_cast<uint32_t>(index.height) * static_cast<uint32_t>(index.width);
  return static_cast<size_t>(static_cast<int32_t>(product + static_cast<uint32_t>(index.pix_fmt)));
}

bool isHardwareEnable(const char* name, int width, int height, AVPixelFormat pix_fmt) {
  if (name == nullptr || width < kSmallestSide || height < kSmallestSide) return false;

  static std::mutex mutex;
  static std::unordered_map<HWIndex, bool, HWIndexHasher> s_supported;  // guarded by mutex
  const std::lock_guard<std::mutex> lock(mutex);
  const HWIndex key{width, height, pix_fmt};
  if (const auto known = s_supported.find(key); known != s_supported.end()) return known->second;
  const bool usable = try_encoder(name, width, height, pix_fmt);
  MERU_LOG(2, "=== 硬件编码器 '%s' enable = %d", name, usable ? 1 : 0);
  s_supported.emplace(key, usable);
  return usable;
}

#include "common/scaler.h"

#include <algorithm>
#include <utility>

#include "common/ffmpeg_compat.h"
#include "common/shared_work.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace {

bool is_yuv(int format) {
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  return desc != nullptr && (desc->flags & AV_PIX_FMT_FLAG_RGB) == 0 && desc->nb_components >= 3;
}

bool is_known(const ImageFormat& image, int (*supported)(AVPixelFormat)) {
  return image.width > 0 && image.height > 0 && supported(static_cast<AVPixelFormat>(image.format)) > 0;
}

void use_named_colours(SwsContext* sws, const ImageFormat& src, int colorspace, int color_range) {
  const bool matrix_named = colorspace != AVCOL_SPC_UNSPECIFIED && colorspace != AVCOL_SPC_RGB;
  const int* dst_matrix = sws_getCoefficients(matrix_named ? colorspace : SWS_CS_DEFAULT);
  const int dst_full = color_range == AVCOL_RANGE_JPEG ? 1 : 0;
  const bool src_yuv = is_yuv(src.format);
  sws_setColorspaceDetails(sws, src_yuv ? dst_matrix : sws_getCoefficients(SWS_CS_DEFAULT), src_yuv ? dst_full : 1,
                           dst_matrix, dst_full, 0, 1 << 16, 1 << 16);
}

int64_t pixels_of(const ImageFormat& image) { return static_cast<int64_t>(image.width) * image.height; }

/// Threads that take turns at small images cost more than they save. Each does one slice of the image, and a slice
/// whose thread has to wait for a processor holds up the image, so there are more of them than processors.
int threads_for(const ImageFormat& src, const ImageFormat& dst) {
  constexpr ImageFormat kWorthThreads{640, 360, AV_PIX_FMT_NONE};
  const int processors = SharedWork::usual_threads();
  const int64_t most = std::max(pixels_of(src), pixels_of(dst));
  return most >= pixels_of(kWorthThreads) && processors > 1 ? 2 * processors : 1;
}

SwsPtr make_context(const ImageFormat& src, const ImageFormat& dst, int threads) {
  SwsPtr sws(sws_alloc_context());
  if (sws == nullptr) return nullptr;
  const std::pair<const char*, int> options[] = {
      {"srcw", src.width},  {"srch", src.height},       {"src_format", src.format}, {"dstw", dst.width},
      {"dsth", dst.height}, {"dst_format", dst.format}, {"sws_flags", SWS_BICUBIC}};
  for (const auto& [name, value] : options) {
    if (av_opt_set_int(sws.get(), name, value, 0) < 0) return nullptr;
  }
  if (threads > 1) av_opt_set_int(sws.get(), "threads", threads, 0);  // unknown to FFmpeg 4
  return sws_init_context(sws.get(), nullptr, nullptr) >= 0 ? std::move(sws) : nullptr;
}

}  // namespace

SwsPtr make_scaler(const ImageFormat& src, const ImageFormat& dst, int colorspace, int color_range) {
  // libswscale asserts on numbers that are no pixel format, so they are kept away from it.
  if (!is_known(src, sws_isSupportedInput) || !is_known(dst, sws_isSupportedOutput)) return nullptr;
  SwsPtr sws = make_context(src, dst, threads_for(src, dst));
  if (sws == nullptr) sws = make_context(src, dst, 1);  // the system may give no threads
  const bool named = (colorspace != AVCOL_SPC_UNSPECIFIED && colorspace != AVCOL_SPC_RGB) || color_range != 0;
  if (sws != nullptr && named && is_yuv(dst.format)) use_named_colours(sws.get(), src, colorspace, color_range);
  return sws;
}

bool make_buffers_free(AVFrame* frame, int* sharers) {
  if (frame->buf[0] == nullptr || av_buffer_get_ref_count(frame->buf[0]) <= *sharers) return true;
  FramePtr fresh(av_frame_alloc());
  if (fresh == nullptr) return false;
  fresh->format = frame->format;
  fresh->width = frame->width;
  fresh->height = frame->height;
  fresh->nb_samples = frame->nb_samples;
  meru_compat::copy_layout(fresh.get(), frame);
  if (av_frame_get_buffer(fresh.get(), 0) < 0 || av_frame_copy_props(fresh.get(), frame) < 0) return false;
  fresh->sample_rate = frame->sample_rate;
  av_frame_unref(frame);
  av_frame_move_ref(frame, fresh.get());
  *sharers = 1;
  return true;
}

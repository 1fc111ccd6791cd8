#include "output/cloned_context.h"

#include <cstdio>

#include "base/stream_url.h"

namespace MR {

namespace {

/// The time base that the encoder worked in: the muxer of `src` may have replaced it in the stream.
AVRational encoder_time_base(const AVStream* st) {
  const AVCodecParameters* par = st->codecpar;
  if (par->codec_type == AVMEDIA_TYPE_AUDIO && par->sample_rate > 0) return {1, par->sample_rate};
  if (par->codec_type == AVMEDIA_TYPE_VIDEO && st->avg_frame_rate.num > 0) return av_inv_q(st->avg_frame_rate);
  return st->time_base;
}

int copy_streams(const AVFormatContext* src, AVFormatContext* dst) {
  for (unsigned i = 0; i < src->nb_streams; ++i) {
    const AVStream* from = src->streams[i];
    AVStream* to = avformat_new_stream(dst, nullptr);
    if (to == nullptr) {
      fprintf(stderr, "failed create output stream...\n");
      return -1;
    }
    const int ret = avcodec_parameters_copy(to->codecpar, from->codecpar);
    if (ret < 0) {
      fprintf(stderr, "failed to copy context...\n");
      return ret;
    }
    to->codecpar->codec_tag = 0;
    to->time_base = encoder_time_base(from);
    to->avg_frame_rate = from->avg_frame_rate;
  }
  return 0;
}

int make_context(const AVFormatContext* src, const char* url, ClonedContext* out) {
  const AVOutputFormat* format = further_format(url);
  if (format == nullptr) {
    if (isRtmpStream(url)) return -1;
    fprintf(stderr, "Could not create output context...\n");
    return AVERROR(EINVAL);  // what FFmpeg says to an address that tells no format
  }
  out->format = std::make_unique<meru_compat::OutputFormatCopy>(format);
  AVOutputFormat* own = out->format->get();
  own->video_codec = isRtmpStream(url) ? AV_CODEC_ID_H264 : src->oformat->video_codec;
  own->audio_codec = isRtmpStream(url) ? AV_CODEC_ID_AAC : src->oformat->audio_codec;
  AVFormatContext* ctx = nullptr;
  const int ret = avformat_alloc_output_context2(&ctx, own, nullptr, url);
  out->context.reset(ctx);
  return ret;
}

}  // namespace

int clone_context(const AVFormatContext* src, const char* url, int timeout_sec, AVIOInterruptCB interrupt,
                  ClonedContext* out) {
  int ret = make_context(src, url, out);
  if (ret >= 0) {
    out->context->interrupt_callback = interrupt;
    if (isRtspStream(url)) set_rtsp_options(out->context.get(), timeout_sec);
    ret = copy_streams(src, out->context.get());
  }
  if (ret >= 0) {
    av_dump_format(out->context.get(), 0, public_url(url).c_str(), 1);
    return 0;
  }
  out->context.reset();
  out->format.reset();
  return ret;
}

int open_io(AVFormatContext* ctx, const char* url, int timeout_sec) {
  if ((ctx->oformat->flags & AVFMT_NOFILE) != 0) return 0;
  AVDictionary* options = io_options(url, timeout_sec).release();
  const int ret = avio_open2(&ctx->pb, url, AVIO_FLAG_WRITE, &ctx->interrupt_callback, &options);
  av_dict_free(&options);
  return ret;
}

}  // namespace MR

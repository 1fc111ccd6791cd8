#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/movie_muxer.h"
#include "common/ffmpeg_compat.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace meru_test {

/// A record that asks for nothing out of the ordinary.
inline MovieInfo usual_record() {
  MovieInfo info{};
  std::strcpy(info.url, "movie.mp4");
  info.a_bitrate = 128;
  info.sample_rate_src = info.sample_rate_dst = 48000;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_S16;
  info.rate_control = RATE_CONTROL_ABR;
  info.v_bitrate = 1000;
  info.width = info.width_src = 1920;
  info.height = info.height_src = 1080;
  info.fps = 30;
  info.gop_size = 12;
  info.pix_fmt_src = AV_PIX_FMT_BGRA;
  info.pix_fmt = AV_PIX_FMT_YUV420P;
  info.colorspace = AVCOL_SPC_UNSPECIFIED;
  info.preset = QUALITY_ULTRAFAST;
  info.profile = PROFILE_BASELINE;
  info.tune = TUNE_ZEROLATENCY;
  return info;
}

/// One stream set up from a record, in a container that nothing is written to.
class StreamSetup {
 public:
  explicit StreamSetup(const char* container = "matroska") {
    av_log_set_level(AV_LOG_QUIET);  // FFmpeg's own lines share standard error with those looked at
    AVFormatContext* ctx = nullptr;
    avformat_alloc_output_context2(&ctx, nullptr, container, nullptr);
    m_oc.reset(ctx);
  }

  /// @return what was printed on standard error
  std::string add(AVCodecID codec_id, MovieInfo* info) {
    testing::internal::CaptureStderr();
    add_uncaptured(codec_id, info);
    return testing::internal::GetCapturedStderr();
  }
  void add_uncaptured(AVCodecID codec_id, MovieInfo* info) {
    m_muxer.add_stream(&m_stream, m_oc.get(), &m_codec, codec_id, info);
  }

  MovieMuxer* muxer() { return &m_muxer; }
  AVCodecContext* enc() const { return m_stream.enc.get(); }
  const AVCodec* codec() const { return m_codec; }
  AVStream* stream() const { return m_stream.st; }
  AVFormatContext* context() const { return m_oc.get(); }
  /// The value of a private option of the encoder.
  std::string option(const char* name) const {
    uint8_t* text = nullptr;
    if (av_opt_get(enc()->priv_data, name, AV_OPT_ALLOW_NULL, &text) < 0) return "no such option";
    const std::string value = text != nullptr ? reinterpret_cast<const char*>(text) : "unset";
    av_free(text);
    return value;
  }

 private:
  FormatContextPtr m_oc;
  MovieMuxer m_muxer{nullptr};
  OutputStream m_stream;
  const AVCodec* m_codec = nullptr;
};

}  // namespace meru_test

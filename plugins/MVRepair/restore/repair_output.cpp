#include "MVRepair/restore/repair_output.h"

#include <cstring>

#include "MVRepair/restore/nuv_base64.h"
#include "common/extradata.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "output/local_file.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace {

constexpr int64_t kVideoBitRate = 800000;
constexpr int64_t kAudioBitRate = 64000;

int set_codec(AVCodecParameters* par, const std::string& name) {
  const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(name.c_str());
  if (descriptor == nullptr) {
    MERU_LOG(2, "---> 找不到编码器：%s", name.c_str());
    return -1;
  }
  par->codec_id = descriptor->id;
  par->codec_tag = 0;
  return 0;
}

/// The new stream keeps the index's time base where the container allows it. Muxers divide by it and by the rates.
int set_time_base(AVStream* st, int num, int den) {
  if (num <= 0 || den <= 0) return AVERROR_INVALIDDATA;
  st->time_base = {num, den};
  return 0;
}

AVStream* new_stream(AVFormatContext* oc) {
  AVStream* st = avformat_new_stream(oc, nullptr);
  if (st == nullptr) fprintf(stderr, "Failed allocating output stream\n");
  return st;
}

int add_video(AVFormatContext* oc, const MVHeader& header) {
  AVStream* st = new_stream(oc);
  if (st == nullptr) return AVERROR_UNKNOWN;
  AVCodecParameters* par = st->codecpar;
  par->codec_type = AVMEDIA_TYPE_VIDEO;
  par->width = header.width;
  par->height = header.height;
  const AVPixelFormat format = av_get_pix_fmt(header.pix_fmt.c_str());
  par->format = format != AV_PIX_FMT_NONE ? format : AV_PIX_FMT_YUV420P;
  par->bit_rate = kVideoBitRate;
  int ret = set_time_base(st, header.video_tb_num, header.video_tb_den);
  if (ret >= 0) ret = set_codec(par, header.video_codec);
  if (ret >= 0) ret = set_extradata(par, nuv::Base64::decode(*header.video_extradata));
  return ret;
}

int add_audio(AVFormatContext* oc, const MVHeader& header) {
  AVStream* st = new_stream(oc);
  if (st == nullptr) return AVERROR_UNKNOWN;
  if (header.channels < 0 || header.sample_rate <= 0 || header.frame_size < 0) return AVERROR_INVALIDDATA;
  AVCodecParameters* par = st->codecpar;
  par->codec_type = AVMEDIA_TYPE_AUDIO;
  meru_compat::set_channels(par, header.channels);
  par->sample_rate = header.sample_rate;
  par->bit_rate = kAudioBitRate;
  const AVSampleFormat format = av_get_sample_fmt(header.sample_fmt.c_str());
  par->format = format != AV_SAMPLE_FMT_NONE ? format : AV_SAMPLE_FMT_FLTP;
  par->frame_size = header.frame_size;
  int ret = set_time_base(st, header.audio_tb_num, header.audio_tb_den);
  if (ret >= 0) ret = set_codec(par, header.audio_codec);
  std::string extradata = nuv::Base64::decode(*header.audio_extradata);
  if (ret >= 0 && extradata.empty() && par->codec_id == AV_CODEC_ID_AAC) {
    extradata = aac_config(header.sample_rate, header.channels);
  }
  if (ret >= 0) ret = set_extradata(par, extradata);
  return ret;
}

bool has_file(const AVFormatContext* oc) { return (oc->oformat->flags & AVFMT_NOFILE) == 0; }

/// Whether FFmpeg would write to files named inside the output's name: what is repaired could be among them, under a
/// spelling that is not seen here.
bool writes_elsewhere(const char* output) {
  const char* protocol = avio_find_protocol_name(output);
  return protocol != nullptr && (strcmp(protocol, "md5") == 0 || strcmp(protocol, "tee") == 0);
}

int open_file(AVFormatContext* oc, const char* output, const std::string& broken, const std::string& moov) {
  const std::string path = MR::local_path(output);
  const bool refused = MR::same_file(path, broken) || MR::same_file(path, moov) || writes_elsewhere(output);
  int ret = refused ? AVERROR(EINVAL) : 0;
  if (!refused && has_file(oc)) ret = avio_open(&oc->pb, output, AVIO_FLAG_WRITE);
  if (ret < 0) fprintf(stderr, "Could not open output file '%s'", output);
  return ret;
}

int add_streams(AVFormatContext* oc, const MVHeader& header) {
  if (header.video_extradata) {
    const int ret = add_video(oc, header);
    if (ret < 0) return ret;
  }
  return header.audio_extradata ? add_audio(oc, header) : 0;
}

}  // namespace

void CloseOutput::operator()(AVFormatContext* oc) const noexcept {
  if (has_file(oc)) avio_closep(&oc->pb);
  avformat_free_context(oc);
}

int open_repair_output(const char* output, const std::string& broken, const std::string& moov, const MVHeader& header,
                       OutputPtr* out) {
  AVFormatContext* oc = nullptr;
  avformat_alloc_output_context2(&oc, nullptr, nullptr, output);
  if (oc == nullptr) {
    fprintf(stderr, "Could not create output context\n");
    return AVERROR_UNKNOWN;
  }
  out->reset(oc);
  int ret = add_streams(oc, header);
  if (ret < 0) return ret;
  av_dump_format(oc, 0, output, 1);
  ret = open_file(oc, output, broken, moov);
  if (ret < 0) return ret;
  ret = avformat_write_header(oc, nullptr);
  if (ret < 0) fprintf(stderr, "Error occurred when opening output file\n");
  return ret;
}

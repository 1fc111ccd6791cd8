#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "base/encoder_limit.h"
#include "base/hardware_enc.h"
#include "base/movie_muxer.h"
#include "base/presets.h"
#include "base/stream_url.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "common/printf_i64.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

namespace {

constexpr int64_t kVbrFloorKbit = 210;
constexpr int kMaxQuantizer = 51;

/// The encoder to use, and whether it counts as a hardware one.
struct EncoderChoice {
  const AVCodec* codec = nullptr;
  bool hardware = false;
};

EncoderChoice choose_encoder(AVCodecID codec_id, MovieInfo* info) {
  EncoderChoice choice;
  if (codec_id == AV_CODEC_ID_H264 && info->use_hardware) {
    info->use_hardware = false;
    for (const char* name : {"h264_nvenc", "h264_amf", "h264_qsv"}) {
      if (!isHardwareEnable(name, info->width, info->height, AV_PIX_FMT_NV12)) continue;
      choice.codec = avcodec_find_encoder_by_name(name);
      choice.hardware = choice.codec != nullptr;
      info->pix_fmt = AV_PIX_FMT_NV12;
      info->use_hardware = true;
      break;
    }
  }
  if (choice.codec == nullptr) choice.codec = avcodec_find_encoder(codec_id);
  return choice;
}

/// `wanted` when the list holds it, the list's first entry (or `end`) when not, `wanted` when there is no list.
template <class T>
T choose(const T* list, T end, T wanted) {
  if (list == nullptr) return wanted;
  for (const T* entry = list; *entry != end; ++entry) {
    if (*entry == wanted) return wanted;
  }
  return *list;
}

int64_t video_bit_rate(const EncoderChoice& choice, const MovieInfo& info) {
  if (info.v_bitrate != 0) return static_cast<int64_t>(info.v_bitrate) * 1000;
  int rate = 0;
  if (choice.hardware || choice.codec->id != AV_CODEC_ID_H264) {
    // Sizes that make no sense wrap here; the encoder refuses them when it is opened.
    const auto of = [](int value) { return static_cast<uint64_t>(static_cast<int64_t>(value)); };
    const auto bits = static_cast<int64_t>(of(info.width) * of(info.height) * of(info.fps) * 32);
    rate = static_cast<int>(static_cast<int64_t>(static_cast<double>(bits) * 0.003));
  }
  nuv::print_stderr("[auto] v_bitrate=%d\n", rate);
  return rate;
}

/// Sets a quantizer option when its value is within the encoder's range.
void set_quantizer(AVCodecContext* enc, const char* mode, const char* option, int value) {
  if (value < 1 || value > kMaxQuantizer) return;
  nuv::print_stderr("%s,  %s=%d\n", mode, option, value);
  if (enc->codec->priv_class != nullptr) av_opt_set(enc->priv_data, option, std::to_string(value).c_str(), 0);
}

/// Encoders that refuse a maximum rate without a buffer size, and do not choose one themselves.
bool needs_buffer_size(AVCodecID id) {
  return id == AV_CODEC_ID_FLV1 || id == AV_CODEC_ID_H263 || id == AV_CODEC_ID_MSMPEG4V3;
}

bool fills_up_to_minimum(AVCodecID id) {
  static constexpr AVCodecID kIds[] = {
      AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MPEG4,     AV_CODEC_ID_FLV1,      AV_CODEC_ID_H261,
      AV_CODEC_ID_H263,       AV_CODEC_ID_H263P,      AV_CODEC_ID_MSMPEG4V2, AV_CODEC_ID_MSMPEG4V3, AV_CODEC_ID_WMV1,
      AV_CODEC_ID_WMV2,       AV_CODEC_ID_RV10,       AV_CODEC_ID_RV20};
  return std::find(std::begin(kIds), std::end(kIds), id) != std::end(kIds);
}

void set_constant_rate(AVCodecContext* enc, int64_t rate) {
  enc->bit_rate = enc->rc_min_rate = enc->rc_max_rate = rate;
  enc->bit_rate_tolerance = enc->rc_buffer_size = static_cast<int>(rate);
  enc->rc_initial_buffer_occupancy = static_cast<int>(rate * 3 / 4);
  // Better plain pictures below the rate than none at all; the buffer still holds the rate down.
  if (needs_buffer_size(enc->codec_id) && meru_compat::minimum_rate_loses_pictures()) enc->rc_min_rate = 0;
}

void set_variable_rate(AVCodecContext* enc, int64_t rate) {
  const int64_t kbit = rate / 1000;
  enc->flags |= AV_CODEC_FLAG_QSCALE;
  enc->rc_min_rate = (kbit > kVbrFloorKbit ? kbit : kVbrFloorKbit) * 1000 - 200000;
  enc->rc_max_rate = kbit * 1000 + 10000;
  enc->bit_rate = kbit * 1000;
  // These fill frames up to the minimum, and where that is too much they fail, or end the process.
  if (fills_up_to_minimum(enc->codec_id)) enc->rc_min_rate = 0;
  // A second of the maximum rate, the same as with a constant rate: otherwise the recording would never start.
  if (needs_buffer_size(enc->codec_id)) enc->rc_buffer_size = static_cast<int>(enc->rc_max_rate);
}

void set_rate_control(AVCodecContext* enc, const MovieInfo& info, int64_t rate) {
  switch (info.rate_control) {
    case RATE_CONTROL_ABR:
      nuv::print_stderr("ABR\n");
      enc->bit_rate = rate;
      break;
    case RATE_CONTROL_CBR:
      nuv::print_stderr("CBR\n");
      set_constant_rate(enc, rate);
      set_quantizer(enc, "CBR", "crf", info.crf);
      break;
    case RATE_CONTROL_CQP:
      nuv::print_stderr("CQP\n");
      enc->bit_rate = rate;
      set_quantizer(enc, "CQP", "qp", info.qp);
      break;
    default:
      nuv::print_stderr("VBR\n");
      set_variable_rate(enc, rate);
  }
}

void set_colours(AVCodecContext* enc, const MovieInfo& info) {
  // Numbers that FFmpeg gives no meaning to are left out: no encoder or container knows what to do with them.
  const auto named = [](int value, int end) { return value >= 0 && value < end; };
  if (info.color_primaries != 0 && named(info.color_primaries, AVCOL_PRI_NB)) {
    enc->color_primaries = static_cast<AVColorPrimaries>(info.color_primaries);
  }
  if (info.color_trc != 0 && named(info.color_trc, AVCOL_TRC_NB)) {
    enc->color_trc = static_cast<AVColorTransferCharacteristic>(info.color_trc);
  }
  if (info.colorspace != AVCOL_SPC_UNSPECIFIED && named(info.colorspace, AVCOL_SPC_NB)) {
    enc->colorspace = static_cast<AVColorSpace>(info.colorspace);
  }
  if (info.color_range != 0 && named(info.color_range, AVCOL_RANGE_NB)) {
    enc->color_range = static_cast<AVColorRange>(info.color_range);
  }
}

void set_frame_rate(OutputStream* ost, MovieInfo* info) {
  AVCodecContext* enc = ost->enc.get();
  enc->framerate = {info->fps, 1};
  if (const AVRational* rates = meru_compat::supported_frame_rates(enc->codec); rates != nullptr) {
    enc->framerate = rates[av_find_nearest_q_idx(enc->framerate, rates)];
    if (enc->framerate.num != info->fps) {
      MERU_LOG(2, "-->reset fps: %d --> %d", info->fps, enc->framerate.num);
      info->fps = enc->framerate.num;
    }
  }
  enc->time_base = ost->st->time_base = {1, info->fps};
  if (info->fps > 0) ost->st->avg_frame_rate = {info->fps, 1};
}

void set_up_video(OutputStream* ost, const EncoderChoice& choice, MovieInfo* info) {
  AVCodecContext* enc = ost->enc.get();
  set_rate_control(enc, *info, video_bit_rate(choice, *info));
  enc->width = info->width;
  enc->height = info->height;
  set_colours(enc, *info);
  set_frame_rate(ost, info);
  enc->gop_size = info->gop_size;
  enc->pix_fmt =
      choose(meru_compat::supported_pix_fmts(choice.codec), AV_PIX_FMT_NONE, static_cast<AVPixelFormat>(info->pix_fmt));
  enc->max_b_frames = choice.codec->id == AV_CODEC_ID_MPEG2VIDEO ? 2 : 0;
  if (choice.codec->id == AV_CODEC_ID_MPEG1VIDEO) enc->mb_decision = 2;
}

bool is_flv_file(const char* url) {
  const size_t length = strnlen(url, sizeof(MovieInfo::url));
  return length >= 4 && strncasecmp(url + length - 4, ".flv", 4) == 0;
}

void set_up_audio(OutputStream* ost, const AVCodec* codec, MovieInfo* info) {
  AVCodecContext* enc = ost->enc.get();
  enc->sample_fmt = choose(meru_compat::supported_sample_fmts(codec), AV_SAMPLE_FMT_NONE,
                           static_cast<AVSampleFormat>(info->sample_fmt));
  enc->bit_rate = static_cast<int64_t>(info->a_bitrate) * 1000;

  const int* rates = meru_compat::supported_sample_rates(codec);
  enc->sample_rate = choose(rates, 0, info->sample_rate_dst);
  if (rates != nullptr && is_flv_file(info->url)) enc->sample_rate = *rates;
  if (enc->sample_rate != info->sample_rate_dst) {
    MERU_LOG(2, "-->reset sample_rate_dst: %d --> %d", info->sample_rate_dst, enc->sample_rate);
    info->sample_rate_dst = enc->sample_rate;
  }

  const uint64_t layout = meru_compat::choose_layout(codec, AV_CH_LAYOUT_STEREO);
  nuv::print_stderr("layout = %lld\n", static_cast<long long>(layout));
  meru_compat::set_layout(enc, layout);
  enc->time_base = ost->st->time_base = {1, enc->sample_rate};
}

/// The further outputs get the same packets: what one of them needs to be described by must be there from the
/// beginning.
bool wants_global_header(const AVFormatContext* oc, const MovieInfo& info) {
  if ((oc->oformat->flags & AVFMT_GLOBALHEADER) != 0) return true;
  for (const char* url : info.other_urls) {
    if (url == nullptr) break;
    const AVOutputFormat* format = MR::further_format(url);
    if (format != nullptr && (format->flags & AVFMT_GLOBALHEADER) != 0) return true;
  }
  return false;
}

}  // namespace

void MovieMuxer::add_stream(OutputStream* ost, AVFormatContext* oc, const AVCodec** codec, AVCodecID codec_id,
                            MovieInfo* info) {
  const EncoderChoice choice = choose_encoder(codec_id, info);
  if (choice.codec == nullptr) {
    MERU_LOG(2, "Could not find encoder for '%s'", avcodec_get_name(codec_id));
    exit(1);
  }
  *codec = choice.codec;
  ost->st = avformat_new_stream(oc, nullptr);
  ost->enc.reset(avcodec_alloc_context3(choice.codec));
  if (ost->st == nullptr || ost->enc == nullptr) {
    MERU_LOG(2, "Could not allocate stream");
    exit(1);
  }
  ost->st->id = static_cast<int>(oc->nb_streams) - 1;

  if (choice.codec->type == AVMEDIA_TYPE_VIDEO) set_up_video(ost, choice, info);
  if (choice.codec->type == AVMEDIA_TYPE_AUDIO) set_up_audio(ost, choice.codec, info);
  if (wants_global_header(oc, *info)) ost->enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  fastRealTime(ost->enc.get(), static_cast<Quality_Level>(info->preset), static_cast<Profile_Level>(info->profile),
               static_cast<Tune_Level>(info->tune));
  if (m_delay_limit_usec > 0 && has_side_index(*info) && choice.codec->type == AVMEDIA_TYPE_VIDEO) {
    limit_held_frames(ost->enc.get(), frames_within(m_delay_limit_usec, ost->enc->framerate));
  }
}

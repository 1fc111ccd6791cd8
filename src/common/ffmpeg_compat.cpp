#include "common/ffmpeg_compat.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>

#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavutil/opt.h>
}

#if LIBAVFORMAT_VERSION_MAJOR >= 60
#include <dlfcn.h>
#endif

#define MERU_NEW_LAYOUTS (LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 28, 100))
#define MERU_CONFIG_LISTS (LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100))

namespace meru_compat {

void register_all() {
#if LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(58, 9, 100)
  av_register_all();
#endif
}

#if MERU_NEW_LAYOUTS

namespace {

AVChannelLayout from_mask(uint64_t mask) {
  AVChannelLayout layout{};
  av_channel_layout_from_mask(&layout, mask);
  return layout;
}

/// A layout of the host may be "unspecified order"; its usual mask for that many channels then stands in.
uint64_t to_mask(const AVChannelLayout& layout) {
  return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : default_layout(layout.nb_channels);
}

}  // namespace

uint64_t default_layout(int channels) {
  if (channels <= 0) return 0;
  AVChannelLayout layout{};
  av_channel_layout_default(&layout, channels);
  return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
}

int layout_channels(uint64_t layout) { return from_mask(layout).nb_channels; }

void set_layout(AVFrame* frame, uint64_t layout) { frame->ch_layout = from_mask(layout); }

void set_layout(AVCodecContext* ctx, uint64_t layout) { ctx->ch_layout = from_mask(layout); }

void copy_layout(AVFrame* dst, const AVFrame* src) { av_channel_layout_copy(&dst->ch_layout, &src->ch_layout); }

uint64_t layout_of(const AVFrame* frame) { return to_mask(frame->ch_layout); }

uint64_t layout_of(const AVCodecContext* ctx) { return to_mask(ctx->ch_layout); }

int channels_of(const AVFrame* frame) { return frame->ch_layout.nb_channels; }

int channels_of(const AVCodecContext* ctx) { return ctx->ch_layout.nb_channels; }

int channels_of(const AVCodecParameters* par) { return par->ch_layout.nb_channels; }
void set_channels(AVCodecParameters* par, int channels) { av_channel_layout_default(&par->ch_layout, channels); }

int set_resampler_layout(SwrContext* swr, char side, uint64_t layout) {
  const AVChannelLayout value = from_mask(layout);
  return av_opt_set_chlayout(swr, side == 'i' ? "ichl" : "ochl", &value, 0);
}

#else

uint64_t default_layout(int channels) {
  return channels > 0 ? static_cast<uint64_t>(av_get_default_channel_layout(channels)) : 0;
}

int layout_channels(uint64_t layout) { return av_get_channel_layout_nb_channels(layout); }

void set_layout(AVFrame* frame, uint64_t layout) {
  frame->channel_layout = layout;
  frame->channels = layout_channels(layout);
}

void set_layout(AVCodecContext* ctx, uint64_t layout) {
  ctx->channel_layout = layout;
  ctx->channels = layout_channels(layout);
}

void copy_layout(AVFrame* dst, const AVFrame* src) {
  dst->channel_layout = src->channel_layout;
  dst->channels = src->channels;
}

uint64_t layout_of(const AVFrame* frame) {
  return frame->channel_layout != 0 ? frame->channel_layout : default_layout(frame->channels);
}

uint64_t layout_of(const AVCodecContext* ctx) { return ctx->channel_layout; }

int channels_of(const AVFrame* frame) {
  return frame->channels > 0 ? frame->channels : layout_channels(frame->channel_layout);
}

int channels_of(const AVCodecContext* ctx) { return ctx->channels; }

int channels_of(const AVCodecParameters* par) { return par->channels; }
void set_channels(AVCodecParameters* par, int channels) {
  par->channels = channels;
  par->channel_layout = default_layout(channels);
}

int set_resampler_layout(SwrContext* swr, char side, uint64_t layout) {
  return av_opt_set_int(swr, side == 'i' ? "icl" : "ocl", static_cast<int64_t>(layout), 0);
}

#endif

#if MERU_CONFIG_LISTS

namespace {

const void* supported(const AVCodec* codec, AVCodecConfig what) {
  const void* list = nullptr;
  return avcodec_get_supported_config(nullptr, codec, what, 0, &list, nullptr) < 0 ? nullptr : list;
}

}  // namespace

const AVRational* supported_frame_rates(const AVCodec* codec) {
  return static_cast<const AVRational*>(supported(codec, AV_CODEC_CONFIG_FRAME_RATE));
}
const AVPixelFormat* supported_pix_fmts(const AVCodec* codec) {
  return static_cast<const AVPixelFormat*>(supported(codec, AV_CODEC_CONFIG_PIX_FORMAT));
}
const AVSampleFormat* supported_sample_fmts(const AVCodec* codec) {
  return static_cast<const AVSampleFormat*>(supported(codec, AV_CODEC_CONFIG_SAMPLE_FORMAT));
}
const int* supported_sample_rates(const AVCodec* codec) {
  return static_cast<const int*>(supported(codec, AV_CODEC_CONFIG_SAMPLE_RATE));
}

#else

const AVRational* supported_frame_rates(const AVCodec* codec) { return codec->supported_framerates; }
const AVPixelFormat* supported_pix_fmts(const AVCodec* codec) { return codec->pix_fmts; }
const AVSampleFormat* supported_sample_fmts(const AVCodec* codec) { return codec->sample_fmts; }
const int* supported_sample_rates(const AVCodec* codec) { return codec->supported_samplerates; }

#endif

uint64_t unplaced_layout(int channels) {
  constexpr int kBits = 64;
  return channels < 1 || channels > kBits ? 0 : ~uint64_t{0} >> (kBits - channels);
}

uint64_t choose_layout(const AVCodec* codec, uint64_t wanted) {
#if MERU_NEW_LAYOUTS
#if MERU_CONFIG_LISTS
  const auto* list = static_cast<const AVChannelLayout*>(supported(codec, AV_CODEC_CONFIG_CHANNEL_LAYOUT));
#else
  const AVChannelLayout* list = codec->ch_layouts;
#endif
  if (list == nullptr) return wanted;
  for (const AVChannelLayout* l = list; l->nb_channels != 0; ++l) {
    if (to_mask(*l) == wanted) return wanted;
  }
  return to_mask(*list);
#else
  const uint64_t* list = codec->channel_layouts;
  if (list == nullptr) return wanted;
  for (const uint64_t* l = list; *l != 0; ++l) {
    if (*l == wanted) return wanted;
  }
  return *list;
#endif
}

#if LIBSWSCALE_VERSION_MAJOR >= 6
namespace {

/// Scaling whole frames is what runs on threads. It would copy a frame that holds no buffer, as if its pixels could go
/// away meanwhile; any buffer will do.
bool scale_on_threads(SwsContext* sws, const AVFrame* src, AVFrame* dst) {
  const FramePtr view(av_frame_alloc());
  if (view == nullptr) return false;
  std::copy(std::begin(src->data), std::end(src->data), view->data);
  std::copy(std::begin(src->linesize), std::end(src->linesize), view->linesize);
  view->width = src->width;
  view->height = src->height;
  view->format = src->format;
  view->buf[0] = av_buffer_alloc(1);
  return view->buf[0] != nullptr && sws_scale_frame(sws, dst, view.get()) >= 0;
}

}  // namespace
#endif

void scale(SwsContext* sws, const AVFrame* src, AVFrame* dst) {
#if LIBSWSCALE_VERSION_MAJOR >= 6
  int64_t threads = 1;
  av_opt_get_int(sws, "threads", 0, &threads);
  if (threads > 1 && scale_on_threads(sws, src, dst)) return;
#endif
  sws_scale(sws, src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
}

void init_packet(AVPacket* packet) {
  *packet = AVPacket{};
  packet->pts = AV_NOPTS_VALUE;
  packet->dts = AV_NOPTS_VALUE;
  packet->pos = -1;
#if LIBAVCODEC_VERSION_MAJOR >= 59
  packet->time_base = {0, 1};
#endif
}

void complete_duration(const AVStream* st, AVPacket* packet) {
  if (packet->duration != 0 || st->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) return;
  if (st->avg_frame_rate.num <= 0 || st->avg_frame_rate.den <= 0) return;
  packet->duration = av_rescale_q(1, av_inv_q(st->avg_frame_rate), st->time_base);
}

FILE* fopen_utf8(const char* path, const char* mode) {
#if LIBAVUTIL_VERSION_INT < AV_VERSION_INT(57, 0, 100)
  // It refuses any letter but those of the standard that change something on every platform: "t" is not among them.
  std::string known = mode;
  known.erase(std::remove(known.begin(), known.end(), 't'), known.end());
  return av_fopen_utf8(path, known.c_str());  // sets close-on-exec by itself
#else
  // The platforms of the newer versions take UTF-8 paths as they are.
  return fopen(path, (std::string(mode) + "e").c_str());
#endif
}

bool minimum_rate_loses_pictures() { return LIBAVCODEC_VERSION_MAJOR < 59; }

const char* rtsp_timeout_option() {
#if LIBAVFORMAT_VERSION_MAJOR >= 59
  return "timeout";
#else
  return "stimeout";
#endif
}

// Up to libavformat 59 the entry points are members of the public structure. In 61 they moved into a private structure
// that begins with the public one; what is known of it is repeated here and checked before anything is replaced.
#if LIBAVFORMAT_VERSION_MAJOR < 60

namespace {

using WholeFormat = AVOutputFormat;

bool layout_is_known(const WholeFormat&) { return true; }

}  // namespace

#else

namespace {

struct WholeFormat : AVOutputFormat {
  int priv_data_size;
  int flags_internal;
  WriteHeader write_header;
  WritePacket write_packet;
  int (*write_trailer)(AVFormatContext*);
  int (*interleave_packet)(AVFormatContext*, AVPacket*, int, int);
  int (*query_codec)(enum AVCodecID, int);
  void (*get_output_timestamp)(AVFormatContext*, int, int64_t*, int64_t*);
  int (*control_message)(AVFormatContext*, int, void*, size_t);
  int (*write_uncoded_frame)(AVFormatContext*, int, AVFrame**, unsigned);
  int (*get_device_list)(AVFormatContext*, void*);
  int (*init)(AVFormatContext*);
  void (*deinit)(AVFormatContext*);
  int (*check_bitstream)(AVFormatContext*, AVStream*, const AVPacket*);
};

const void* library_of(const void* address) {
  Dl_info info{};
  return address != nullptr && dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

bool layout_is_known(const WholeFormat& format) {
  if (LIBAVFORMAT_VERSION_MAJOR != 61 || avformat_version() >> 16 != 61) return false;
  const void* libavformat = library_of(reinterpret_cast<const void*>(&avformat_version));
  const void* own[] = {reinterpret_cast<const void*>(format.write_header),
                       reinterpret_cast<const void*>(format.write_packet)};
  return std::all_of(std::begin(own), std::end(own),
                     [&](const void* entry) { return entry != nullptr && library_of(entry) == libavformat; });
}

}  // namespace

#endif

struct OutputFormatCopy::Block {
  WholeFormat format;  // first: a pointer to the format is a pointer to the block
  MuxerEntry original;
};

namespace {

std::mutex g_copies_mutex;
// Guarded by g_copies_mutex. Never destroyed: recordings may end while the process does.
std::unordered_set<const AVOutputFormat*>& copies() {
  static auto* const set = new std::unordered_set<const AVOutputFormat*>;
  return *set;
}

}  // namespace

OutputFormatCopy::OutputFormatCopy(const AVOutputFormat* format) : m_block(new Block{}) {
  std::memcpy(static_cast<void*>(&m_block->format), static_cast<const void*>(format), sizeof(WholeFormat));
  m_block->original = {m_block->format.write_header, m_block->format.write_packet};
  const std::lock_guard<std::mutex> lock(g_copies_mutex);
  copies().insert(&m_block->format);
}

OutputFormatCopy::~OutputFormatCopy() {
  const std::lock_guard<std::mutex> lock(g_copies_mutex);
  copies().erase(&m_block->format);
}

AVOutputFormat* OutputFormatCopy::get() const { return &m_block->format; }

const MuxerEntry& OutputFormatCopy::original(const AVOutputFormat* copy) {
  const auto* format = static_cast<const WholeFormat*>(copy);
  return reinterpret_cast<const Block*>(format)->original;
}

bool install_hooks(const AVFormatContext* oc, const MuxerEntry& hooks) {
  {
    const std::lock_guard<std::mutex> lock(g_copies_mutex);
    if (copies().count(oc->oformat) == 0) return false;
  }
  auto* format = static_cast<WholeFormat*>(const_cast<AVOutputFormat*>(oc->oformat));
  const bool hooked = format->write_header == hooks.write_header;
  if (!hooked && !layout_is_known(*format)) return false;
  format->write_header = hooks.write_header;
  format->write_packet = hooks.write_packet;
  return true;
}

const MuxerEntry& original_entry(const AVFormatContext* oc) { return OutputFormatCopy::original(oc->oformat); }

}  // namespace meru_compat

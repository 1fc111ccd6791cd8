#pragma once

/// Everything that differs between the FFmpeg majors the library is built with (libavformat 58, 59 and 61). No other
/// file names a library version.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <cstdio>
#include <memory>

namespace meru_compat {

/// What the write function of an I/O context is given.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using WrittenByte = const uint8_t;
#else
using WrittenByte = uint8_t;
#endif

/// Registers formats and codecs where that is still needed.
void register_all();

// --- channel layouts: a bit mask on every version, stereo being AV_CH_LAYOUT_STEREO ---

/// The usual layout of that many channels, 0 when FFmpeg knows none.
uint64_t default_layout(int channels);
/// A layout for 1 to 64 channels of which only the number is known, else 0.
uint64_t unplaced_layout(int channels);
int layout_channels(uint64_t layout);
void set_layout(AVFrame* frame, uint64_t layout);
void set_layout(AVCodecContext* ctx, uint64_t layout);
void copy_layout(AVFrame* dst, const AVFrame* src);
uint64_t layout_of(const AVFrame* frame);
uint64_t layout_of(const AVCodecContext* ctx);
int channels_of(const AVFrame* frame);
int channels_of(const AVCodecContext* ctx);
int channels_of(const AVCodecParameters* par);
/// Sets the number of channels and their usual layout.
void set_channels(AVCodecParameters* par, int channels);
/// Sets the resampler's input ("i") or output ("o") layout. @return 0 or a negative error
int set_resampler_layout(SwrContext* swr, char side, uint64_t layout);

// --- what an encoder supports; null when it gives no list ---

const AVRational* supported_frame_rates(const AVCodec* codec);      // ends with 0/0
const AVPixelFormat* supported_pix_fmts(const AVCodec* codec);      // ends with AV_PIX_FMT_NONE
const AVSampleFormat* supported_sample_fmts(const AVCodec* codec);  // ends with AV_SAMPLE_FMT_NONE
const int* supported_sample_rates(const AVCodec* codec);            // ends with 0
/// @return `wanted` when the encoder lists it or gives no list, else the first listed layout.
uint64_t choose_layout(const AVCodec* codec, uint64_t wanted);

// --- images ---

/// Scales a whole image, on all threads of the context where libswscale has them.
void scale(SwsContext* sws, const AVFrame* src, AVFrame* dst);

// --- packets and files ---

/// Makes a packet on the stack or in a block of memory empty, as av_packet_alloc would.
void init_packet(AVPacket* packet);
/// Gives a picture without a duration that of the stream's frame rate, when the stream names one. The muxers of the
/// newer versions do so themselves; movies and side indexes are to be the same with the older ones.
void complete_duration(const AVStream* st, AVPacket* packet);
/// fopen for a UTF-8 path on every platform. No program that the host starts inherits the descriptor.
FILE* fopen_utf8(const char* path, const char* mode);
/// Whether the encoders of H.263's family fail at pictures that are too plain for a minimum rate.
bool minimum_rate_loses_pictures();
/// The muxer option that bounds the I/O of an RTSP connection, in microseconds.
const char* rtsp_timeout_option();

// --- output formats and their entry points ---

using WriteHeader = int (*)(AVFormatContext*);
using WritePacket = int (*)(AVFormatContext*, AVPacket*);

/// The functions of a muxer that the side index has to see.
struct MuxerEntry {
  WriteHeader write_header = nullptr;
  WritePacket write_packet = nullptr;
};

/// A private, writable copy of an output format, because FFmpeg's own are constant. It carries the muxer's original
/// entry points, so that every copy reaches the muxer it was made from, however many recordings run. It must outlive
/// every context that uses it.
class OutputFormatCopy {
 public:
  /// @param format  must not be null
  explicit OutputFormatCopy(const AVOutputFormat* format);
  ~OutputFormatCopy();
  OutputFormatCopy(const OutputFormatCopy&) = delete;
  OutputFormatCopy& operator=(const OutputFormatCopy&) = delete;

  AVOutputFormat* get() const;
  /// @return the entry points that the muxer had when `copy` was made. `copy` must be the format of a copy.
  static const MuxerEntry& original(const AVOutputFormat* copy);

 private:
  struct Block;
  std::unique_ptr<Block> m_block;
};

/// Puts `hooks` in place of the entry points of the context's muxer. The context must work on an OutputFormatCopy.
/// @return false when the format is not such a copy, or when this FFmpeg's layout is not the one known here
bool install_hooks(const AVFormatContext* oc, const MuxerEntry& hooks);
/// @return the muxer's own entry points, whatever is hooked. Callable on the per-packet path
const MuxerEntry& original_entry(const AVFormatContext* oc);

}  // namespace meru_compat

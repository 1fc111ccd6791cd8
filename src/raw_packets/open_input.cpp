#include "raw_packets/open_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

extern "C" {
#include <libavutil/opt.h>
}

namespace {

constexpr int kIoBufferSize = 32768;

/// What may come before the parameters of a stream are known. Bounds the memory that a host can fill with a stream in
/// which they are never found, and the time until it is told so. A first frame may be larger than what comes before it.
constexpr int64_t kMaxProbed = int64_t{8} << 20;
constexpr int64_t kMaxFirstFrame = int64_t{64} << 20;
/// The same for formats whose parameters only their demuxer recognizes.
constexpr int64_t kMaxProbedOther = int64_t{256} << 20;

using Result = nuv::Expected_<AVFormatContext*>;

ReadIoPtr make_io(InputBuffer* ib) {
  auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
  if (buffer == nullptr) return nullptr;
  ReadIoPtr io(avio_alloc_context(buffer, kIoBufferSize, 0, ib, &avio_read_buffer, nullptr, nullptr));
  if (io == nullptr) av_free(buffer);
  return io;
}

/// Lets the search for a stream's parameters go on until they are found, and end there. Live outputs would otherwise
/// begin seconds late: left alone, it goes on to estimate a frame rate, and looks at fifty packets for a time stamp.
void set_probing(AVFormatContext* ctx) {
  ctx->max_analyze_duration = std::numeric_limits<int64_t>::max();
  ctx->fps_probe_size = 0;
  // Raw streams are read in pieces of a kilobyte, each of which costs a packet. Formats without this option do without.
  av_opt_set_int(ctx, "raw_packet_size", kIoBufferSize, AV_OPT_SEARCH_CHILDREN);
  // With two packets the demuxer's own stamps of sound begin at 0. Those of video do not exist.
  const bool audio = ctx->nb_streams > 0 && ctx->streams[0]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
  ctx->max_ts_probe = audio ? 2 : 0;
}

/// @return 0, or why the stream cannot be recorded
int find_stream(AVFormatContext* ctx) {
  set_probing(ctx);
  const int ret = avformat_find_stream_info(ctx, nullptr);
  if (ret < 0) return ret;
  if (ctx->nb_streams == 0) return AVERROR_STREAM_NOT_FOUND;
  // An input that ends before it says what it holds is no error to FFmpeg.
  const AVCodecParameters* par = ctx->streams[0]->codecpar;
  const bool unknown = (par->codec_type == AVMEDIA_TYPE_VIDEO && par->width <= 0) ||
                       (par->codec_type == AVMEDIA_TYPE_AUDIO && par->sample_rate <= 0);
  return unknown ? AVERROR_INVALIDDATA : 0;
}

/// @return whether the stream may go on by so many bytes
bool is_allowed(InputBuffer* ib, int count) {
  ib->m_allowed -= count;
  const bool allowed = ib->m_allowed >= 0 && !(ib->m_needs_start_codes && ib->length_prefixed());
  ib->m_refused = ib->m_refused || !allowed;
  return allowed;
}

void expect_format(InputBuffer* ib, const char* format) {
  const bool h264 = std::strcmp(format, "h264") == 0;
  const bool aac = std::strcmp(format, "aac") == 0;
  ib->m_beginning = Beginning(format);
  ib->m_allowed = h264 || aac ? kMaxProbed : kMaxProbedOther;
  ib->m_needs_start_codes = h264;
  ib->m_guarded = aac;
}

/// @return the result of an opening that failed. A stream of another kind than announced is no failure of FFmpeg's.
Result refused(InputBuffer* ib, const char* format, const Result& failure) {
  if (!ib->m_refused) return failure;
  Result result;
  if (ib->m_needs_start_codes && ib->length_prefixed()) {
    return result.set_error(AVERROR(EINVAL),
                            "the packets of '%s' have length fields (AVCC), where start codes (Annex B) are needed",
                            format);
  }
  return result.set_error(AVERROR(EINVAL), "no parameters of '%s' in %lld bytes of its packets", format,
                          static_cast<long long>(ib->m_read_bytes));
}

}  // namespace

void CloseReadIo::operator()(AVIOContext* io) const noexcept {
  av_freep(&io->buffer);
  avio_context_free(&io);
}

void CloseInput::operator()(AVFormatContext* ctx) const noexcept {
  const ReadIoPtr io(ctx->pb);
  avformat_close_input(&ctx);
}

int avio_read_buffer(void* opaque, unsigned char* buf, int size) {
  auto* ib = static_cast<InputBuffer*>(opaque);
  if (ib->m_eof) return AVERROR_EOF;
  const int at_hand = ib->bytes_at_hand();
  ib->m_gave_way = at_hand == 0;
  if (ib->m_gave_way) return AVERROR_EOF;
  const int count = std::min(size, at_hand);
  if (is_allowed(ib, count) && ib->_read_nbytes_(buf, count, true, 0) == nuv::kReadDone) {
    ib->m_read_bytes += count;
    const bool had_begun = ib->m_beginning.is_complete();
    ib->m_beginning.read(buf, static_cast<size_t>(count));
    if (!had_begun && ib->m_beginning.is_complete() && ib->m_needs_start_codes) ib->m_allowed = kMaxFirstFrame;
    return count;
  }
  ib->m_eof = true;
  return AVERROR_EOF;
}

void resume_input(AVFormatContext* ctx) {
  ctx->pb->eof_reached = 0;
  ctx->pb->error = 0;
}

Result open_input_buffer(InputBuffer* ib, const char* format, InputBuffer* other) {
  Result result;
  ReadIoPtr io = make_io(ib);
  FormatContextPtr fresh(avformat_alloc_context());
  if (io == nullptr || fresh == nullptr) {
    return result.set_error(AVERROR(ENOMEM), "failed to allocate io for '%s'", format);
  }
  auto* found = av_find_input_format(format);  // a pointer to a constant from FFmpeg 5 on
  if (found == nullptr) {
    // A demuxer is missing, but hosts know this code.
    return result.set_error(AVERROR_MUXER_NOT_FOUND, "could not find input format '%s'", format);
  }

  expect_format(ib, format);
  AVFormatContext* ctx = fresh.release();
  ctx->pb = io.get();
  // A demuxer of ADTS finds whole frames. A parser behind it would number their bytes without those that were skipped.
  const bool aac = std::strcmp(format, "aac") == 0;
  ctx->flags = AVFMT_FLAG_CUSTOM_IO | (aac ? AVFMT_FLAG_NOPARSE : 0);
  // How far a demuxer looks for its first packet and, that of sound, ever looks for the next one behind garbage.
  ctx->probesize = std::numeric_limits<int64_t>::max();
  int ret = avformat_open_input(&ctx, nullptr, found, nullptr);  // frees the context when it fails
  if (ret < 0) {
    result.set_error(ret, "Could not open input '%s': %s", format, AvError(ret).text);
    return refused(ib, format, result);
  }
  InputContextPtr opened(ctx);
  io.release();  // NOLINT(bugprone-unused-return-value): closed with the context
  // The parser gives a picture out when the next one begins, which may be a minute later, or never. The search cannot
  // be taken up again once it has met an end, so the buffer must not give way before it has what it looks for.
  ib->give_way_to(other);
  ret = find_stream(ctx);
  ib->m_beginning = Beginning();
  if (ret < 0) {
    result.set_error(ret, "could not find stream information for '%s'", format);
    return refused(ib, format, result);
  }
  ib->m_needs_start_codes = false;
  ib->m_allowed = std::numeric_limits<int64_t>::max();
  av_dump_format(ctx, 0, format, 0);
  return result.set_value(opened.release());
}

#include "base/MR_AVWriter.h"

#include <algorithm>
#include <ostream>

#include "base/rtsp_tail.h"
#include "common/checked_seeks.h"
#include "common/log_site.h"
#include "common/room_ahead.h"

namespace MR {

namespace {

constexpr int64_t kNoPtsYet = -999999;
constexpr int kCachePerOutput = 6;
constexpr int kExtraCachePerOutput = 3;
constexpr int kErrorTextSize = 512;
constexpr int64_t kOpeningSec = 10;
constexpr int64_t kReleaseUsec = 1000000;  // for a connection that was never used

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

}  // namespace

std::ostream& operator<<(std::ostream& out, const MRException& e) {
  return out << "MRException(" << e.code() << "): " << e.what();
}

MR_AVWriter::MR_AVWriter(int max_cache, int extra_cache, const char* url)
    : m_queue(std::make_unique<PacketQueue>()),
      m_max_cache(max_cache),
      m_extra_cache(extra_cache),
      m_url(url != nullptr ? url : "") {
  for (auto& pts : m_last_pts) pts = kNoPtsYet;
}

MR_AVWriter::~MR_AVWriter() { MR_AVWriter::stop(); }

void MR_AVWriter::throw_exited(const char* log_text) {
  MERU_LOG(2, "%s", log_text);
  throw MRException("main writer already exited ...", kAlreadyExited);
}

void MR_AVWriter::create_other_writers(const char** urls) {
  MERU_LOG(5, "@@------------------ create other writers ---------");
  MR_AVWriter* previous = this;
  for (int i = 1; urls != nullptr && urls[i - 1] != nullptr; ++i) {
    const char* url = urls[i - 1];
    MERU_LOG(5, "other_url: %s", public_url(url).c_str());
    auto writer =
        std::make_unique<MR_AVWriter>(m_max_cache + kCachePerOutput * i, m_extra_cache + kExtraCachePerOutput * i, url);
    writer->m_interrupt.begin_start(m_interrupt.stop_flag());
    writer->m_live = isLiveStream(url);
    writer->m_timeout_sec = m_timeout_sec;
    writer->m_number = i;
    writer->m_prev_writer = previous;
    previous->m_next_writer = writer.get();
    previous->m_next_owned = std::move(writer);
    previous = previous->m_next_owned.get();
  }
  MERU_LOG(5, "@@------------------ create other writers -------OK");
}

void MR_AVWriter::start() {
  if (m_exited) throw_exited("main writer already exited ...");
  start_thread();
  if (m_next_writer != nullptr) m_next_writer->start();
}

/// A further output that the system gives no thread is left out; the others go on.
void MR_AVWriter::start_thread() {
  if (m_fmt_ctx == nullptr) return;
  try {
    m_thread = std::make_unique<std::thread>(&MR_AVWriter::running, this);
  } catch (const std::exception& e) {
    if (m_prev_writer == nullptr) throw;
    MERU_LOG(2, "no thread for an output: %s", e.what());
    log_failure(m_fmt_ctx->url, AVERROR(EAGAIN));
    m_io->limit_io(kReleaseUsec);
    release_connection();
    close_clone();
  }
}

AVFormatContext* MR_AVWriter::prepare_fmt_ctx(AVFormatContext* s) {
  return m_prev_writer == nullptr ? s : clone_fmt_ctx(s, m_url.c_str());
}

int MR_AVWriter::writeHeader(AVFormatContext* s, const char* metainfo) {
  if (m_exited) throw_exited("main writer already exited ...");
  int result = 0;
  if (m_fmt_ctx == nullptr) {
    result = open(s, metainfo);
    if (result < 0 && m_prev_writer == nullptr && s != nullptr) return result;
  }
  if (m_next_writer != nullptr) m_next_writer->writeHeader(s, metainfo);
  if (m_exited) {  // the stop came before there was anything to release
    release_connection();
    throw_exited("main writer already exited 2 ...");
  }
  return result;
}

/// A further output without a header takes no packets; the outputs behind it go on. A server that does not answer must
/// not keep the recording from beginning, so its opening has an end even where the host asked for no time-out.
int MR_AVWriter::open(AVFormatContext* s, const char* metainfo) {
  const bool further = m_prev_writer != nullptr;
  if (further && m_live) m_interrupt.limit_opening(std::max<int64_t>(m_timeout_sec, kOpeningSec) * 1000000);
  AVFormatContext* ctx = prepare_fmt_ctx(s);
  const int result = ctx != nullptr ? BaseWriter::writeHeader(ctx, metainfo) : -1;
  m_needs_trailer = result >= 0;
  if (result >= 0) log_open_output(m_number, ctx->url);
  if (result < 0 && ctx != nullptr) log_failure(ctx->url, result);
  if (result < 0 && further) close_clone();
  m_interrupt.opening_over();
  return result;
}

/// I/O that was broken off because it took too long fails with various errors, of which none says so.
int MR_AVWriter::understood(int error) const { return m_io->too_late() ? AVERROR(ETIMEDOUT) : error; }

/// One line for each output that fails. Nothing is said of a start that is broken off because it was stopped.
void MR_AVWriter::log_failure(const char* url, int error) const {
  if (!m_io->start_given_up()) log_failed_output(m_number, url, understood(error));
}

int MR_AVWriter::enqueue(const AVStream* st, AVPacket* pkt, bool flag) {
  m_last_time = static_cast<double>(pkt->pts) * av_q2d(st->time_base);
  AVPacket copy;
  meru_compat::init_packet(&copy);
  int ret = av_packet_ref(&copy, pkt);
  if (ret >= 0) ret = m_queue->put_block(&copy, m_max_cache + (flag ? m_extra_cache : 0), true);
  if (ret >= 0 || m_failed) return ret;
  // The queue is aborted by a failure alone. What is lost here is told of by no other line where it is a further
  // output.
  MERU_LOG(2, "output %d has lost a packet: no memory", m_number);
  return AVERROR(ENOMEM);
}

int MR_AVWriter::writePacket(const AVRational* tb, AVPacket* pkt, bool flag) {
  if (pkt == nullptr) return 0;
  int result = -1;
  AVRational handed_on = *tb;
  if (m_fmt_ctx != nullptr) {
    const AVStream* st = m_fmt_ctx->streams[pkt->stream_index];
    av_packet_rescale_ts(pkt, *tb, st->time_base);
    handed_on = st->time_base;
    auto& last_pts = m_last_pts.at(static_cast<size_t>(pkt->stream_index));
    if (pkt->pts <= last_pts) {
      av_packet_unref(pkt);
      return 0;
    }
    last_pts = pkt->pts;
    result = enqueue(st, pkt, flag);
  }
  if (m_next_writer != nullptr) {
    m_next_writer->writePacket(&handed_on, pkt, flag);
  } else {
    av_packet_unref(pkt);
  }
  return result;
}

int MR_AVWriter::writeTailer() {
  const int result = m_thread != nullptr ? m_queue->put(&PacketQueue::s_tailer_pkt) : -1;
  if (m_next_writer != nullptr) m_next_writer->writeTailer();
  return result;
}

void MR_AVWriter::running() {
  const int error = write_queued();
  if (error < 0) fail(error);
}

/// Writes until the end marker or an error. @return 0 when the output is complete, else the error
int MR_AVWriter::write_queued() {
  RtspTail tail(m_fmt_ctx);
  RoomAhead room(m_fmt_ctx);
  AVPacket pkt;
  meru_compat::init_packet(&pkt);
  while (m_queue->get(&pkt, true) >= 0) {
    if (m_fmt_ctx == nullptr) return -1;
    if (PacketQueue::is_tailer(&pkt)) {
      int ret = tail.push_out();
      if (ret >= 0) ret = write_frame(nullptr);
      if (ret < 0) return ret;
      MERU_LOG(2, "******* get tailer-pkt ****");
      break;
    }
    meru_compat::complete_duration(m_fmt_ctx->streams[pkt.stream_index], &pkt);
    tail.note(&pkt);
    const int ret = write_frame(&pkt);
    av_packet_unref(&pkt);
    if (ret < 0) return ret;
    room.follow();
  }
  MERU_LOG(2, "*** write tailer pkt.");
  const int ret = write_trailer();
  if (ret < 0) {
    MERU_LOG(2, "*** write tailer pkt failed...");
    return ret;
  }
  m_tailer_done = true;
  return 0;
}

/// Writes one packet; null writes what waits to be interleaved. RTSP says of no packet that it could not be sent, so
/// what has been broken off is looked at as well.
int MR_AVWriter::write_frame(AVPacket* pkt) {
  m_io->limit_io(m_live ? static_cast<int64_t>(m_timeout_sec) * 1000000 : 0);
  const int ret = av_interleaved_write_frame(m_fmt_ctx, pkt);
  return m_io->io_over() ? AVERROR(ETIMEDOUT) : ret;
}

int MR_AVWriter::write_trailer() {
  m_needs_trailer = false;
  m_io->limit_io(0);
  CheckedSeeks checked(m_fmt_ctx->pb);
  const int ret = av_write_trailer(m_fmt_ctx);
  return m_io->io_over() ? AVERROR(ETIMEDOUT) : ret;
}

/// Nothing more is waited for on an output that has failed.
void MR_AVWriter::fail(int error) {
  error = understood(error);
  m_failed = true;
  m_queue->abort();
  char text[kErrorTextSize] = {};
  av_strerror(error, text, sizeof(text));
  MERU_LOG(2, "[Write Pkt Err] (cache=%d, max=%d), err=%d, errmsg=%s", cachedNPackets(), m_max_cache, error, text);
  if (m_fmt_ctx != nullptr) log_failure(m_fmt_ctx->url, error);
  if (m_live) m_io->limit(0);
  if (m_status_cb != nullptr && !m_io->start_given_up()) m_status_cb(error, text, m_status_user);
}

/// The muxer of an output without I/O of its own has a connection open, which only the trailer closes.
void MR_AVWriter::release_connection() {
  const bool open = m_needs_trailer && (m_fmt_ctx->oformat->flags & AVFMT_NOFILE) != 0;
  m_needs_trailer = false;
  if (open) av_write_trailer(m_fmt_ctx);
}

void MR_AVWriter::stop() {
  if (m_prev_writer == nullptr) {
    for (MR_AVWriter* writer = this; writer != nullptr; writer = writer->m_next_owned.get()) writer->m_exited = true;
  }
  MR_AVWriter::writeTailer();  // by name: the destructor comes through here too
  join();
  release_connection();
  if (m_prev_writer != nullptr) close_clone();
  if (m_next_writer != nullptr) m_next_writer->stop();
}

void MR_AVWriter::join() {
  if (m_thread == nullptr) return;
  m_thread->join();
  m_thread.reset();
}

void MR_AVWriter::close_clone() {
  if (m_fmt_ctx == nullptr) return;
  if ((m_fmt_ctx->oformat->flags & AVFMT_NOFILE) == 0) avio_closep(&m_fmt_ctx->pb);
  avformat_free_context(m_fmt_ctx);
  m_fmt_ctx = nullptr;
  m_format.reset();
}

int MR_AVWriter::make_clone(AVFormatContext* src, const char* url, FormatContextPtr* out) {
  const AVOutputFormat* format = further_format(url);
  if (format == nullptr) {
    if (isRtmpStream(url)) return -1;
    fprintf(stderr, "Could not create output context...\n");
    return AVERROR(EINVAL);  // what FFmpeg says to an address that tells no format
  }
  m_format = std::make_unique<meru_compat::OutputFormatCopy>(format);
  m_format->get()->video_codec = isRtmpStream(url) ? AV_CODEC_ID_H264 : src->oformat->video_codec;
  m_format->get()->audio_codec = isRtmpStream(url) ? AV_CODEC_ID_AAC : src->oformat->audio_codec;

  AVFormatContext* ctx = nullptr;
  int ret = avformat_alloc_output_context2(&ctx, m_format->get(), nullptr, url);
  out->reset(ctx);
  if (ret < 0) return ret;
  ctx->interrupt_callback = m_interrupt.callback();
  if (isRtspStream(url)) set_rtsp_options(ctx, m_timeout_sec);
  ret = copy_streams(src, ctx);
  if (ret < 0) return ret;
  av_dump_format(ctx, 0, public_url(url).c_str(), 1);
  if ((ctx->oformat->flags & AVFMT_NOFILE) != 0) return 0;
  AVDictionary* options = io_options(url, m_timeout_sec).release();
  ret = avio_open2(&ctx->pb, url, AVIO_FLAG_WRITE, &ctx->interrupt_callback, &options);
  av_dict_free(&options);
  if (ret < 0) fprintf(stderr, "io open failed ...\n");
  return ret;
}

AVFormatContext* MR_AVWriter::clone_fmt_ctx(AVFormatContext* src, const char* url) {
  FormatContextPtr ctx;
  const int ret = make_clone(src, url, &ctx);
  if (ret >= 0) return ctx.release();
  fprintf(stderr, "Error ###: %s\n", AvError(ret).text);
  log_failure(url, ret);
  ctx.reset();
  m_format.reset();
  return nullptr;
}

}  // namespace MR

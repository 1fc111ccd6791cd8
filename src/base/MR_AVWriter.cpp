#include "base/MR_AVWriter.h"

#include <algorithm>
#include <ostream>
#include <vector>

#include "common/checked_seeks.h"
#include "common/log_site.h"
#include "common/no_sigpipe.h"
#include "common/room_ahead.h"
#include "output/cloned_context.h"
#include "output/interleaving.h"
#include "output/local_file.h"
#include "output/muxer_quirks.h"

namespace MR {

namespace {

constexpr int64_t kNoTimestampYet = AV_NOPTS_VALUE;  // the smallest there is
constexpr int kCachePerOutput = 6;
constexpr int kExtraCachePerOutput = 3;
constexpr int kErrorTextSize = 512;
constexpr int64_t kReleaseUsec = 1000000;  // for a connection that was never used

bool has_own_io(const AVFormatContext* ctx) { return (ctx->oformat->flags & AVFMT_NOFILE) == 0; }

}  // namespace

std::ostream& operator<<(std::ostream& out, const MRException& e) {
  return out << "MRException(" << e.code() << "): " << e.what();
}

MR_AVWriter::MR_AVWriter(int max_cache, int extra_cache, const char* url)
    : m_queue(std::make_unique<PacketQueue>()),
      m_max_cache(max_cache),
      m_extra_cache(extra_cache),
      m_url(url != nullptr ? url : "") {
  for (auto& pts : m_last_pts) pts = kNoTimestampYet;
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
    writer->m_gate = m_gate;
    writer->m_delay = m_delay;
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
  open_others(s, metainfo);
  if (m_exited) {  // the stop came before there was anything to release
    release_connection();
    throw_exited("main writer already exited 2 ...");
  }
  return result;
}

/// Files first, one after the other; then the live outputs side by side, so that servers that do not answer are waited
/// for once.
void MR_AVWriter::open_others(AVFormatContext* s, const char* metainfo) {
  std::vector<std::thread> openings;
  for (const bool live : {false, true}) {
    for (MR_AVWriter* writer = m_next_owned.get(); writer != nullptr; writer = writer->m_next_owned.get()) {
      if (writer->m_live != live || writer->m_fmt_ctx != nullptr) continue;
      if (!live) {
        writer->open(s, metainfo);
        continue;
      }
      try {
        openings.emplace_back([=] { writer->open(s, metainfo); });
      } catch (const std::exception&) {  // no thread or no memory
        writer->open(s, metainfo);
      }
    }
  }
  for (std::thread& opening : openings) opening.join();
}

/// A further output without a header takes no packets; the others go on. A server that does not answer must not keep
/// the recording from starting, so the opening of a live output has a deadline even where the host asked for no
/// time-out.
int MR_AVWriter::open(AVFormatContext* s, const char* metainfo) {
  const bool further = m_prev_writer != nullptr;
  if (further && m_live) limit_opening();
  int result = AVERROR(ENOMEM);
  try {
    const std::string path = local_path(further ? m_url.c_str() : (s != nullptr ? s->url : nullptr));
    result = path.empty() || m_gate == nullptr ? open_output(s, metainfo) : open_local(path, s, metainfo);
  } catch (const std::bad_alloc&) {
    if (further) close_clone();
    log_failure(m_url.c_str(), result);
  }
  m_io->opening_over();
  return result;
}

/// A file of the start passes the gate. Throws MRException (20) for the main output when the session was stopped.
int MR_AVWriter::open_local(const std::string& path, AVFormatContext* s, const char* metainfo) {
  int result = -1;
  const auto open_it = [&] { return (result = open_output(s, metainfo)) >= 0; };
  const bool passed = m_gate->pass([&] {
    if (m_prev_writer == nullptr) {  // its owner has opened it, and closes it
      if (open_it()) m_gate->note_open([this] { abandon(); });
    } else {
      m_gate->open_file(path, open_it, [this] { abandon(); });
    }
  });
  if (!passed && m_prev_writer == nullptr) throw_exited("main writer already exited ...");
  return result;
}

/// What the start has written is given up. Formats that open their own files close them in the trailer alone.
void MR_AVWriter::abandon() {
  release_connection();
  if (m_prev_writer != nullptr) close_clone();
}

int MR_AVWriter::open_output(AVFormatContext* s, const char* metainfo) {
  AVFormatContext* ctx = prepare_fmt_ctx(s);
  const int result = ctx != nullptr ? BaseWriter::writeHeader(ctx, metainfo) : -1;
  m_needs_trailer = result >= 0;
  if (result >= 0) log_open_output(m_number, ctx->url);
  if (result < 0 && ctx != nullptr) log_failure(ctx->url, result);
  if (result < 0 && m_prev_writer != nullptr) close_clone();
  return result;
}

/// I/O that was broken off because it took too long fails with various errors, of which none says so.
int MR_AVWriter::understood(int error) const { return m_io->too_late() ? AVERROR(ETIMEDOUT) : error; }

/// One line for each output that fails. Nothing is said of a start that is broken off because it was stopped.
void MR_AVWriter::log_failure(const char* url, int error) const {
  if (!m_io->start_given_up()) log_failed_output(m_number, url, understood(error));
}

void MR_AVWriter::note_drop(Drop reason, int stream) {
  if (!m_books.of(stream).drop(reason) || reason == Drop::kFailedOutput) return;  // which has a line of its own
  MERU_LOG(2, "output %d drops packets of stream %d: %s", m_number, stream, drop_text(reason));
}

/// What is still queued is not going to be written.
void MR_AVWriter::drop_queued(Drop reason) {
  m_queue->flush([&](const AVPacket& pkt) { note_drop(reason, pkt.stream_index); });
}

/// Whether a packet comes after the one before it, and that one's timestamp is this one's from here on.
bool MR_AVWriter::rises(const AVStream* st, const AVPacket* pkt) {
  const bool reorders = st->codecpar->video_delay > 0 && pkt->dts != AV_NOPTS_VALUE;
  const int64_t timestamp = reorders ? pkt->dts : pkt->pts;
  auto& last = m_last_pts.at(static_cast<size_t>(st->index));
  if (timestamp <= last) return false;
  last = timestamp;
  return true;
}

int MR_AVWriter::enqueue(const AVStream* st, AVPacket* pkt, bool flag) {
  m_last_time = static_cast<double>(pkt->pts) * av_q2d(st->time_base);
  AVPacket copy;
  meru_compat::init_packet(&copy);
  int ret = av_packet_ref(&copy, pkt);
  if (ret >= 0) ret = m_queue->put_block(&copy, m_max_cache + (flag ? m_extra_cache : 0), true);
  if (ret >= 0) return ret;
  // The queue is aborted by a failure alone.
  note_drop(m_failed ? Drop::kFailedOutput : Drop::kMemory, st->index);
  return m_failed ? ret : AVERROR(ENOMEM);
}

int MR_AVWriter::writePacket(const AVRational* tb, AVPacket* pkt, bool flag) {
  if (pkt == nullptr) return 0;
  const int stream = pkt->stream_index;
  m_books.of(stream).take();
  if (m_prev_writer == nullptr && pkt->dts != AV_NOPTS_VALUE) {
    StreamDelay& delay = flag ? m_encoder_delay.audio : m_encoder_delay.video;
    delay.returned(av_rescale_q(pkt->dts, *tb, AVRational{1, AV_TIME_BASE}));
  }
  int result = -1;
  AVRational handed_on = *tb;
  if (m_fmt_ctx == nullptr) {
    note_drop(Drop::kFailedOutput, stream);
  } else {
    const AVStream* st = m_fmt_ctx->streams[stream];
    av_packet_rescale_ts(pkt, *tb, st->time_base);
    handed_on = st->time_base;
    if (!rises(st, pkt)) {
      note_drop(Drop::kTimestamp, stream);
      av_packet_unref(pkt);
      return 0;
    }
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
  const NoSigpipe no_sigpipe;
  const int error = write_queued();
  if (error < 0) fail(error);
}

/// Writes until the end marker or an error. @return 0 when the output is complete, else the error
int MR_AVWriter::write_queued() {
  MuxerQuirks quirks(m_fmt_ctx, m_number, m_extradata_apart);
  m_least_interleave_usec = quirks.interleave_usec();
  RoomAhead room(m_fmt_ctx);
  AVPacket pkt;
  meru_compat::init_packet(&pkt);
  while (m_queue->get(&pkt, true) >= 0) {
    if (m_fmt_ctx == nullptr) return -1;
    if (PacketQueue::is_tailer(&pkt)) {
      int ret = quirks.finish();
      if (ret >= 0) ret = write_frame(nullptr);
      if (ret < 0) return ret;
      MERU_LOG(2, "******* get tailer-pkt ****");
      break;
    }
    const int stream = pkt.stream_index;
    set_interleaving();
    if (quirks.is_late(pkt)) {
      note_drop(Drop::kTimestamp, stream);
      av_packet_unref(&pkt);
      continue;
    }
    int ret = quirks.prepare(&pkt);
    if (ret >= 0) ret = write_frame(&pkt);
    av_packet_unref(&pkt);
    if (ret < 0) {
      note_drop(Drop::kFailedOutput, stream);
      return ret;
    }
    m_books.of(stream).pass();
    room.follow();
  }
  MERU_LOG(2, "*** write tailer pkt.");
  const int ret = write_trailer();
  if (ret < 0) {
    MERU_LOG(2, "*** write tailer pkt failed...");
    return ret;
  }
  m_tailer_done = true;
  m_books.complete = true;
  return 0;
}

/// Writes one packet; null writes what waits to be interleaved. RTSP says of no packet that it could not be sent, so
/// what has been broken off is looked at as well.
int MR_AVWriter::write_frame(AVPacket* pkt) {
  m_io->limit_io(m_live ? static_cast<int64_t>(m_timeout_sec) * 1000000 : 0);
  const int ret = av_interleaved_write_frame(m_fmt_ctx, pkt);
  return m_io->io_over() ? AVERROR(ETIMEDOUT) : ret;
}

void MR_AVWriter::set_interleaving() {
  const int64_t usec = interleave_usec(m_fmt_ctx, m_live, m_indexed, *m_delay);
  const int64_t wanted = m_least_interleave_usec > 0 ? m_least_interleave_usec : usec;
  if (wanted > 0) m_fmt_ctx->max_interleave_delta = wanted;
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
  drop_queued(Drop::kFailedOutput);
  if (m_live) m_io->limit(0);
  if (m_status_cb != nullptr && !m_io->start_given_up()) m_status_cb(error, text, m_status_user);
}

/// The muxer of an output without I/O of its own has a connection open, which only the trailer closes.
void MR_AVWriter::release_connection() {
  const bool open = m_needs_trailer && !has_own_io(m_fmt_ctx);
  m_needs_trailer = false;
  if (open) av_write_trailer(m_fmt_ctx);
}

void MR_AVWriter::stop() {
  if (m_prev_writer == nullptr) {
    for (MR_AVWriter* writer = this; writer != nullptr; writer = writer->m_next_owned.get()) writer->m_exited = true;
  }
  MR_AVWriter::writeTailer();  // by name: the destructor comes through here too
  join();
  drop_queued(m_failed ? Drop::kFailedOutput : Drop::kQueueAborted);
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
  if (has_own_io(m_fmt_ctx)) avio_closep(&m_fmt_ctx->pb);
  avformat_free_context(m_fmt_ctx);
  m_fmt_ctx = nullptr;
  m_format.reset();
}

AVFormatContext* MR_AVWriter::clone_fmt_ctx(AVFormatContext* src, const char* url) {
  ClonedContext clone;
  int ret = clone_context(src, url, m_timeout_sec, m_interrupt.callback(), &clone);
  if (ret >= 0) {
    ret = open_io(clone.context.get(), url, m_timeout_sec);
    if (ret < 0) fprintf(stderr, "io open failed ...\n");
  }
  if (ret >= 0) {
    m_format = std::move(clone.format);
    return clone.context.release();
  }
  fprintf(stderr, "Error ###: %s\n", AvError(ret).text);
  log_failure(url, ret);
  return nullptr;
}

}  // namespace MR

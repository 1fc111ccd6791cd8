#include "capture/movie_capture2.h"

#include <cstring>
#include <initializer_list>

#include "base/base_writer.h"
#include "common/clock.h"
#include "common/log_site.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};

/// A host may have put any byte there. To read one other than 0 and 1 as a bool is undefined.
void normalise(bool* flag) {
  unsigned char byte = 0;
  std::memcpy(&byte, flag, sizeof(byte));
  *flag = byte != 0;
}

double to_sec(int64_t usec) { return static_cast<double>(usec) / 1e6; }

}  // namespace

MovieCapture2::MovieCapture2(BaseWriter* writer) : MovieMuxer(writer) {}

MovieCapture2::~MovieCapture2() {
  MERU_LOG(4, "before delete iocvt");
  m_iocvt.reset();
  MERU_LOG(4, "delete iocvt OK");
}

int MovieCapture2::start(MovieInfo info, MovieStatusCallback cb, void* user, bool async) {
  MERU_LOG.i64(5, "m_start_pts=%I64d", static_cast<long long>(m_clock.start_pts()));
  // The library never reads a text of the record beyond its field, terminated or not.
  info.url[sizeof(info.url) - 1] = '\0';
  info.snapshot_path[sizeof(info.snapshot_path) - 1] = '\0';
  info.metadata[sizeof(info.metadata) - 1] = '\0';
  for (bool* flag : {&info.no_audio, &info.no_video, &info.use_hardware}) normalise(flag);
  m_start_ok = false;
  m_relay = std::make_shared<StatusRelay>(cb, user, [this](int id, const char* text) { note_status(id, text); });
  m_last_audio_pts = 0;
  m_last_video_pts = 0;
  m_writer->m_status_cb = &writer_callback;
  m_writer->m_status_user = m_relay.get();
  return MovieMuxer::start(info, &statu_callback, m_relay.get(), async, m_relay);
}

bool MovieCapture2::stop() {
  m_start_ok = false;
  return MovieMuxer::stop() != 0;
}

void MovieCapture2::writer_callback(int id, const char* text, void* ctx) {
  static_cast<StatusRelay*>(ctx)->report(id, text);
}

void MovieCapture2::statu_callback(int id, const char* text, void* ctx) {
  static_cast<StatusRelay*>(ctx)->report(id, text);
}

/// Notes the start before the host is told of it.
void MovieCapture2::note_status(int id, const char* text) {
  MERU_LOG(2, "### statu cb [id=%d]: %s", id, text);
  if (id == MERU_STATUS_OK) m_start_ok = true;
}

bool MovieCapture2::pause() {
  if (!m_start_ok) return false;
  m_clock.pause(global_pts());
  return true;
}

bool MovieCapture2::resume() {
  if (!m_start_ok || !m_clock.is_paused()) return false;
  m_resumed = true;
  return m_clock.resume(global_pts());
}

long long MovieCapture2::movieTime() const {
  const int64_t video = m_last_video_pts;
  if (video > 0) return video;
  const int64_t audio = m_last_audio_pts;
  return audio > 0 ? audio : 0;
}

MovieInfo MovieCapture2::mInfo(bool* started) const {
  if (started != nullptr) *started = m_start_ok;
  return info_copy();
}

bool MovieCapture2::accepts_frames() const {
  if (!m_start_ok) {
    MERU_LOG(4, "--start_ok == false");
    return false;
  }
  return !m_clock.is_paused();
}

IOCvt* MovieCapture2::iocvt() {
  // Not std::call_once: with some C libraries an exception leaves it locked for good.
  const std::lock_guard<std::mutex> lock(m_iocvt_mutex);
  if (m_iocvt == nullptr) m_iocvt = std::make_unique<IOCvt>(this);
  return m_iocvt.get();
}

int MovieCapture2::fill_video_frame(void* bgra, int nbytes, long long pts_usec, int linesize) {
  m_clock.note_first(pts_usec);
  if (!accepts_frames()) return 0;
  MERU_LOG(5, "nb=%d, pts=%lld", nbytes, pts_usec);
  const int64_t t = m_clock.stream_time(pts_usec);
  m_last_video_pts = t;
  return iocvt()->fill_video_bgra(bgra, nbytes, t, linesize);
}

int MovieCapture2::fill_audio_frame(void* pcm, int nbytes, long long pts_usec) {
  m_clock.note_first(pts_usec);
  if (!accepts_frames()) return 0;
  MERU_LOG(5, "nb=%d, pts=%lld", nbytes, pts_usec);
  const int64_t t = m_clock.stream_time(pts_usec);
  const int64_t prev = m_last_audio_pts.exchange(t);
  IOCvt* converter = iocvt();
  if (m_resumed.exchange(false)) converter->realign_audio();
  if (pcm != nullptr) return converter->fill_audio_pcm(pcm, nbytes, t);
  MERU_LOG(5, "[fill silence] ----> pts=%lf(sec), dur=%lf(sec)", to_sec(prev), to_sec(t - prev));
  return converter->fill_audio_silence(t - prev, prev);
}

int MovieCapture2::fill_video_frame(AVFrame* frame, const AVRational& tb) {
  const int64_t usec = av_rescale_q(frame->pts, tb, kUsec);
  m_clock.note_first(usec);
  if (!accepts_frames()) return 0;
  const int64_t t = m_clock.stream_time(usec);
  m_last_video_pts = t;
  frame->pts = t;
  return iocvt()->fill_video_frame(frame, &kUsec);
}

int MovieCapture2::fill_audio_frame(AVFrame* frame, const AVRational& tb) {
  const int64_t usec = av_rescale_q(frame->pts, tb, kUsec);
  m_clock.note_first(usec);
  if (!accepts_frames()) return 0;
  const int64_t t = m_clock.stream_time(usec);
  m_last_audio_pts = t;
  frame->pts = t;
  IOCvt* converter = iocvt();
  if (m_resumed.exchange(false)) converter->realign_audio();
  return converter->fill_audio_frame(frame, &kUsec);
}

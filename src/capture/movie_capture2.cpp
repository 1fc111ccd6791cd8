#include "capture/movie_capture2.h"

#include <algorithm>
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

MovieCapture2::MovieCapture2(BaseWriter* writer) : MovieMuxer(writer) {
  set_audio_rest([this] { return audio_rest(); });
}

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
  m_first_audio = m_align_first_audio;
  m_sample_bytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(info.sample_fmt));
  m_channels = info.channels;
  m_writer->m_status_cb = &writer_callback;
  m_writer->m_status_user = m_relay.get();
  return MovieMuxer::start(info, &statu_callback, m_relay.get(), async, m_relay);
}

bool MovieCapture2::stop() {
  m_start_ok = false;
  {
    const std::lock_guard<std::mutex> lock(m_iocvt_mutex);
    if (m_iocvt != nullptr) m_iocvt->wait_for_silence();  // which ends now, however long it is
  }
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

bool MovieCapture2::accepts_video(MR::Taken* taken) const {
  if (accepts_frames()) return true;
  taken->drop(m_start_ok ? MR::Drop::kPaused : MR::Drop::kNotStarted);
  return false;
}

IOCvt* MovieCapture2::iocvt() {
  // Not std::call_once: with some C libraries an exception leaves it locked for good.
  const std::lock_guard<std::mutex> lock(m_iocvt_mutex);
  if (m_iocvt == nullptr) m_iocvt = std::make_unique<IOCvt>(this);
  return m_iocvt.get();
}

int MovieCapture2::fill_video_frame(void* bgra, int nbytes, long long pts_usec, int linesize) {
  MR::Taken taken(&books().video_frames, 1);
  m_clock.note_first(pts_usec);
  if (!accepts_video(&taken)) return 0;
  MERU_LOG(5, "nb=%d, pts=%lld", nbytes, pts_usec);
  const int64_t t = m_clock.stream_time(pts_usec);
  m_last_video_pts = t;
  return iocvt()->fill_video_bgra(bgra, nbytes, t, linesize, &taken);
}

int64_t MovieCapture2::samples_in(int nbytes) const {
  const int bytes = m_sample_bytes;
  const int channels = m_channels;
  return nbytes > 0 && bytes > 0 && channels > 0 ? nbytes / bytes / channels : 0;
}

void MovieCapture2::drop_disabled_audio(const void* pcm, int nbytes) {
  const int64_t count = pcm != nullptr ? samples_in(nbytes) : 0;
  books().source_samples.take(count);
  books().source_samples.drop(MR::Drop::kDisabled, count);
}

/// As accepts_frames; accounts for samples that are not accepted.
bool MovieCapture2::accepts_samples(int64_t count) {
  const bool started = m_start_ok;
  if (accepts_frames()) return true;
  books().source_samples.take(count);
  books().source_samples.drop(started ? MR::Drop::kPaused : MR::Drop::kNotStarted, count);
  return false;
}

/// Calls `push`, which accounts for `count` samples, and accounts for them itself as far as it throws before.
template <class Push>
int MovieCapture2::push_samples(int64_t count, const Push& push) {
  MR::Ledger& source = books().source_samples;
  const int64_t taken = source.taken();
  const int64_t settled = source.passed() + source.dropped();
  try {
    return push();
  } catch (...) {
    source.take(count - (source.taken() - taken));
    source.drop(MR::Drop::kMemory, count - (source.passed() + source.dropped() - settled));
    throw;
  }
}

/// The converter, told whether the next samples are to be aligned.
IOCvt* MovieCapture2::iocvt_for_samples() {
  IOCvt* converter = iocvt();
  const bool resumed = m_resumed.exchange(false);
  if (m_first_audio.exchange(false)) {
    converter->realign_audio(AudioInput::Align::kFirst);
  } else if (resumed) {
    converter->realign_audio();
  }
  return converter;
}

AVFrame* MovieCapture2::audio_rest() {
  const std::lock_guard<std::mutex> lock(m_iocvt_mutex);
  return m_iocvt != nullptr ? m_iocvt->audio_rest() : nullptr;
}

int MovieCapture2::fill_audio_frame(void* pcm, int nbytes, long long pts_usec) {
  const int64_t count = pcm != nullptr ? samples_in(nbytes) : 0;
  m_clock.note_first(pts_usec);
  if (!accepts_samples(count)) return 0;
  MERU_LOG(5, "nb=%d, pts=%lld", nbytes, pts_usec);
  const int64_t t = m_clock.stream_time(pts_usec);
  const int64_t prev = m_last_audio_pts.exchange(t);
  return push_samples(count, [&] {
    IOCvt* converter = iocvt_for_samples();
    if (pcm != nullptr) return converter->fill_audio_pcm(pcm, nbytes, t);
    MERU_LOG(5, "[fill silence] ----> pts=%lf(sec), dur=%lf(sec)", to_sec(prev), to_sec(t - prev));
    return converter->fill_audio_silence(t - prev, prev);
  });
}

int MovieCapture2::fill_video_frame(AVFrame* frame, const AVRational& tb) {
  MR::Taken taken(&books().video_frames, 1);
  const int64_t usec = av_rescale_q(frame->pts, tb, kUsec);
  m_clock.note_first(usec);
  if (!accepts_video(&taken)) return 0;
  const int64_t t = m_clock.stream_time(usec);
  m_last_video_pts = t;
  frame->pts = t;
  return iocvt()->fill_video_frame(frame, &kUsec, &taken);
}

int MovieCapture2::fill_audio_frame(AVFrame* frame, const AVRational& tb) {
  const int64_t count = std::max(frame->nb_samples, 0);
  const int64_t usec = av_rescale_q(frame->pts, tb, kUsec);
  m_clock.note_first(usec);
  if (!accepts_samples(count)) return 0;
  const int64_t t = m_clock.stream_time(usec);
  m_last_audio_pts = t;
  frame->pts = t;
  return push_samples(count, [&] { return iocvt_for_samples()->fill_audio_frame(frame, &kUsec); });
}

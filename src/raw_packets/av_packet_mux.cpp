#include "raw_packets/av_packet_mux.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <system_error>

#include "AVSnapshot/snapshot.h"
#include "base/MR_AVWriter.h"
#include "base/stream_url.h"
#include "common/extradata.h"
#include "common/log_site.h"
#include "common/no_sigpipe.h"
#include "raw_packets/copy_loop.h"
#include "raw_packets/session_books.h"
#include "raw_packets/start_codes.h"

namespace {

constexpr int kUnbounded = std::numeric_limits<int>::max();

constexpr std::chrono::seconds kLiveDrain{5};
/// How long an opening may take once the session is being ended: a live output's time, and some for its giving up.
constexpr std::chrono::seconds kOpeningPatience{8};

/// @return whether one of the record's addresses begins with "rtmp://"
bool has_rtmp_stream(const MovieInfo2& info) {
  // The other record begins with the same fields.
  constexpr size_t kCommon = offsetof(MovieInfo2, video_format);
  static_assert(kCommon == offsetof(MovieInfo, no_audio));
  MovieInfo addresses{};
  std::memcpy(&addresses, &info, kCommon);
  return addresses.hasRtmpStream();
}

void init_network(const MovieInfo2& info) {
  if (!MR::isRtspStream(info.url) && !has_rtmp_stream(info)) return;
  static const bool net_inited = avformat_network_init() >= 0;
  (void)net_inited;
}

bool is_set(const char* text) { return text != nullptr && text[0] != '\0'; }

}  // namespace

AVPacketMux::AVPacketMux() = default;
AVPacketMux::~AVPacketMux() { publish_books(&m_video, &m_audio, m_ended_writer.get()); }

void AVPacketMux::start(const MovieInfo2& info, MovieStatusCallback cb, void* user) {
  m_info = info;
  // No text is read beyond its field, terminated or not. The others are copied: the worker may outlive the host's.
  m_info.url[sizeof(m_info.url) - 1] = '\0';
  m_info.snapshot_path[sizeof(m_info.snapshot_path) - 1] = '\0';
  m_info.metadata[sizeof(m_info.metadata) - 1] = '\0';
  for (const char*& url : m_info.other_urls) {
    if (url == nullptr) break;
    keep_text(&url);
  }
  keep_text(&m_info.video_format);
  keep_text(&m_info.audio_format);
  m_relay = std::make_unique<StatusRelay>(cb, user);
  m_network = strstr(m_info.url, "://") != nullptr && strncmp(m_info.url, "file:", 5) != 0;
  // Nobody reads a medium that is not announced: its host would wait for ever when the queue is full.
  m_video.m_announced = is_set(m_info.video_format);
  m_audio.m_announced = is_set(m_info.audio_format);
  if (!m_video.m_announced) m_video.abort();
  if (!m_audio.m_announced) m_audio.abort();
  try {
    m_thread = std::make_unique<std::thread>(&AVPacketMux::worker, this);
  } catch (const std::exception& e) {
    m_done = true;
    clear();
    const auto* of_system = dynamic_cast<const std::system_error*>(&e);
    fail(AVERROR(of_system != nullptr ? of_system->code().value() : ENOMEM), e.what());
  }
}

void AVPacketMux::keep_text(const char** text) {
  if (*text != nullptr) *text = m_texts.emplace_back(*text).c_str();
}

void AVPacketMux::worker() {
  const NoSigpipe no_sigpipe;
  thread_running();
  bool left = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_done = true;
    left = m_left;
    m_changed.notify_all();
  }
  if (left) delete this;
}

void AVPacketMux::thread_running() {
  const nuv::Defer cleaning([this] { clear(); });
  try {
    run();
  } catch (const std::bad_alloc& e) {
    fail_unexpectedly(AVERROR(ENOMEM), AvError(AVERROR(ENOMEM)).text, e.what());
  } catch (const std::exception& e) {
    fail_unexpectedly(AVERROR_UNKNOWN, e.what(), e.what());
  }
}

/// Behind an exception outputs may still be written to, and one of them may have told of its failure.
void AVPacketMux::fail_unexpectedly(int code, const char* text, const char* reason) {
  MERU_LOG(2, "the session ends: %s", reason);
  send_pushes_away();
  if (m_writer != nullptr) m_writer->stop();
  if (m_writer == nullptr || !m_writer->failed()) m_relay->report(code, text);
}

void AVPacketMux::run() {
  meru_compat::register_all();
  init_network(m_info);
  if (!open_output() || !open_inputs() || !add_streams()) return;
  av_dump_format(m_out_ctx.get(), 0, MR::public_url(m_info.url).c_str(), 1);
  make_writer();
  if (!open_snapshot() || !write_header()) return;
  if (m_gate.pass_last([this] { m_writer->start(); })) copy_packets();
}

/// Sends away whoever waits in a push first, then closes everything.
void AVPacketMux::clear() {
  m_gate.end();
  send_pushes_away();
  drop_writer();
  m_video_ctx.reset();
  m_audio_ctx.reset();
  if (m_out_ctx != nullptr && (m_out_ctx->oformat->flags & AVFMT_NOFILE) == 0) avio_closep(&m_out_ctx->pb);
  m_out_ctx.reset();
  m_snapshot.reset();
}

/// From now on a push drops its packet and returns at once, and so does one that is waiting.
void AVPacketMux::send_pushes_away() {
  m_video.abort();
  m_audio.abort();
}

/// Tells the host. Nobody reads what it pushes any more, and its callback may push or wait for a thread that does.
/// @return false
bool AVPacketMux::fail(int code, const std::string& text) {
  send_pushes_away();
  m_relay->report(code, text.c_str());
  return false;
}

bool AVPacketMux::open_inputs() {
  InputBuffer* const video = is_set(m_info.video_format) ? &m_video : nullptr;
  InputBuffer* const audio = is_set(m_info.audio_format) ? &m_audio : nullptr;
  return open_input(&m_video, m_info.video_format, audio, &m_video_ctx) &&
         open_input(&m_audio, m_info.audio_format, video, &m_audio_ctx);
}

bool AVPacketMux::open_input(InputBuffer* ib, const char* format, InputBuffer* other, InputContextPtr* ctx) {
  if (!is_set(format)) return true;
  const auto result = open_input_buffer(ib, format, other);
  if (result.has_error) return fail(result.code, result.message);
  ctx->reset(result.value);
  const char* refused = refused_timestamps(*ib, result.value->streams[0]->codecpar->video_delay > 0);
  return refused == nullptr || fail(AVERROR(EINVAL), refused);
}

AVStream* AVPacketMux::add_stream(const AVFormatContext* input) {
  AVStream* st = avformat_new_stream(m_out_ctx.get(), nullptr);
  if (st == nullptr) return nullptr;
  st->id = static_cast<int>(m_out_ctx->nb_streams) - 1;
  if (avcodec_parameters_copy(st->codecpar, input->streams[0]->codecpar) < 0) return nullptr;
  if (lengthen_start_codes(st->codecpar) < 0) return nullptr;
  st->codecpar->codec_tag = 0;  // the input's tag may mean another codec in the output
  st->time_base = input->streams[0]->time_base;
  return st;
}

/// RTSP announces the streams before the first packet, so it cannot learn from it what the sound is.
bool AVPacketMux::wants_bare_sound() const {
  const AVCodecParameters* par = m_audio_ctx->streams[0]->codecpar;
  if (par->codec_id != AV_CODEC_ID_AAC || par->extradata_size > 0) return false;
  bool rtsp = MR::isRtspStream(m_info.url);
  for (const char* url : m_info.other_urls) {
    if (url == nullptr) break;
    rtsp = rtsp || MR::isRtspStream(url);
  }
  return rtsp;
}

/// Sound in which each frame describes itself is described once, for the whole stream; the frames then go without.
void AVPacketMux::describe_bare_sound() {
  AVCodecParameters* par = m_audio_ost->codecpar;
  const std::string config = aac_config(par->sample_rate, meru_compat::channels_of(par));
  m_bare_sound = !config.empty() && set_extradata(par, config) >= 0;
}

bool AVPacketMux::add_streams() {
  if (m_video_ctx != nullptr) m_video_ost = add_stream(m_video_ctx.get());
  m_reorders = m_video_ost != nullptr && announce_reordering(m_video_ost->codecpar);
  if (m_audio_ctx != nullptr) m_audio_ost = add_stream(m_audio_ctx.get());
  if (m_audio_ost != nullptr && wants_bare_sound()) describe_bare_sound();
  const bool complete =
      (m_video_ctx == nullptr || m_video_ost != nullptr) && (m_audio_ctx == nullptr || m_audio_ost != nullptr);
  return complete || fail(kHeaderFailed, "failed to writing header");
}

void AVPacketMux::copy_packets() {
  MuxInput video{"h264", m_video_ctx.get(), &m_video, m_video_ost};
  MuxInput audio{"aac", m_audio_ctx.get(), &m_audio, m_audio_ost};
  video.reorders = m_reorders;
  video.indexed = m_writer->m_indexed;
  audio.bare = m_bare_sound;
  CopyLoop loop(&video, &audio, m_writer.get());
  const int copied = loop.run();
  // Before the writing threads are waited for: one of them may be telling the host, whose callback may push.
  send_pushes_away();
  const int ret = m_writer->writeTailer();
  if (ret < 0) MERU_LOG(2, "error writing trailer: %s", AvError(ret).text);
  m_writer->stop();
  const bool told = m_writer->failed();
  drop_writer();
  // The movie is complete as far as it goes, but packets that were pushed are not in it.
  if (told) return;
  if (loop.refused() != nullptr) m_relay->report(copied, loop.refused());
  if (copied == AVERROR(ENOMEM)) m_relay->report(copied, AvError(copied).text);
}

/// Ends the writing threads; what they have been given is written before.
void AVPacketMux::drop_writer() {
  if (m_writer == nullptr) return;
  m_writer->stop();
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_ended_writer = std::move(m_writer);
}

/// Gives live outputs until m_deadline. Called with m_mutex held.
void AVPacketMux::limit_outputs() {
  using std::chrono::microseconds;
  const auto left = std::chrono::duration_cast<microseconds>(m_deadline - Clock::now());
  const int64_t usec = std::max<int64_t>(left.count(), 0);
  if (m_network) m_interrupt.limit(usec);
  for (BaseWriter* w = m_writer.get(); w != nullptr; w = w->m_next_writer) {
    if (w->m_live) w->m_interrupt.limit(usec);
  }
}

/// Passes on what is held back, then ends the streams. Never waits: a few packets more than usual may be queued.
void AVPacketMux::end_inputs() {
  m_video.release(0, kUnbounded);
  m_audio.release(0, kUnbounded);
  m_audio.end();
  m_video.end();
}

/// @return false when the worker hangs in the opening of an output
bool AVPacketMux::wait_for_worker() {
  const auto asked = Clock::now();
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_done) {
    if (!m_opening) {
      m_changed.wait(lock);
      continue;
    }
    const auto until = std::max(asked, m_opening_since) + kOpeningPatience;
    if (m_changed.wait_until(lock, until) == std::cv_status::timeout && m_opening && Clock::now() >= until)
      return false;
  }
  return true;
}

/// @return false when the worker has ended meanwhile
bool AVPacketMux::leave_to_worker() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_done) return false;
  m_thread->detach();
  m_left = true;
  return true;
}

void AVPacketMux::end(AVPacketMux* session) {
  {
    const std::lock_guard<std::mutex> lock(session->m_mutex);
    session->m_limited = true;
    session->m_deadline = Clock::now() + kLiveDrain;
    session->limit_outputs();
  }
  session->end_inputs();
  // Inside a callback this is the worker's own thread, or one that the worker waits for.
  const bool inside = session->m_relay->inside_callback();
  // What hangs in its opening touches no file any more, unless it has come through just now.
  const bool hangs = !inside && !session->wait_for_worker() && !(session->writes_files() && session->m_gate.close());
  if (inside || hangs) {
    session->m_relay->mute();
    session->m_relay->wait_until_quiet();  // but for this thread's own
    if (session->leave_to_worker()) return;
  }
  if (session->m_thread != nullptr) session->m_thread->join();
  delete session;
}

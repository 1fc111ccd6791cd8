#include "AVSnapshot/snapshot.h"

#include <chrono>
#include <mutex>
#include <new>

#include "AVSnapshot/base64.h"
#include "AVSnapshot/tiny_json.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace {

constexpr size_t kLineLimit = 960;
constexpr char kAddress[] = "merulib.invalid/index";

int64_t steady_usec() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string name_or_empty(const char* name) { return name != nullptr ? name : ""; }

std::string extradata_text(const AVCodecParameters* par) {
  std::string text;
  if (par->extradata_size > 0) {
    Base64::Encode({reinterpret_cast<const char*>(par->extradata), static_cast<size_t>(par->extradata_size)}, text);
  }
  return text;
}

std::string audio_line(const AVStream* st) {
  const AVCodecParameters* par = st->codecpar;
  tiny::TinyJson json;
  json["type"] = "audio";
  json["index"] = st->index;
  json["codec"] = avcodec_get_name(par->codec_id);
  json["format"] = name_or_empty(av_get_sample_fmt_name(static_cast<AVSampleFormat>(par->format)));
  json["channels"] = meru_compat::channels_of(par);
  json["frame_size"] = par->frame_size;
  json["sample_rate"] = par->sample_rate;
  json["tb.num"] = st->time_base.num;
  json["tb.den"] = st->time_base.den;
  json["qv"] = extradata_text(par);
  return json.WriteJson();
}

std::string video_line(const AVStream* st) {
  const AVCodecParameters* par = st->codecpar;
  tiny::TinyJson json;
  json["type"] = "video";
  json["index"] = st->index;
  json["codec"] = avcodec_get_name(par->codec_id);
  json["format"] = name_or_empty(av_get_pix_fmt_name(static_cast<AVPixelFormat>(par->format)));
  json["h"] = par->height;
  json["w"] = par->width;
  json["tb.num"] = st->time_base.num;
  json["tb.den"] = st->time_base.den;
  json["qv"] = extradata_text(par);
  return json.WriteJson();
}

/// The muxer's own functions; raw formats have no header to write.
int call_write_header(AVFormatContext* oc) {
  const meru_compat::WriteHeader write_header = meru_compat::original_entry(oc).write_header;
  return write_header != nullptr ? write_header(oc) : 0;
}

int call_write_packet(AVFormatContext* oc, AVPacket* pkt) {
  return meru_compat::original_entry(oc).write_packet(oc, pkt);
}

/// A difference of time stamps that may be anything: wraps instead of overflowing.
int64_t delta(int64_t now, int64_t before) {
  return static_cast<int64_t>(static_cast<uint64_t>(now) - static_cast<uint64_t>(before));
}

/// When a packet is due in its movie; `otherwise` when it does not say.
int64_t media_usec(const AVFormatContext* oc, const AVPacket* pkt, int64_t otherwise) {
  if (pkt->dts == AV_NOPTS_VALUE) return otherwise;
  return av_rescale_q(pkt->dts, oc->streams[pkt->stream_index]->time_base, {1, AV_TIME_BASE});
}

/// The live Snapshot of an output, or null.
Snapshot* snapshot_of(const AVFormatContext* oc) {
  auto* snapshot = static_cast<Snapshot*>(oc->opaque);
  return snapshot != nullptr && GlobalSnapshots::instance().have(snapshot) ? snapshot : nullptr;
}

}  // namespace

GlobalSnapshots& GlobalSnapshots::instance() {
  // Never destroyed: recordings may end while the process does.
  static auto* const g_safe_check = new GlobalSnapshots;
  return *g_safe_check;
}

void GlobalSnapshots::add(const Snapshot* snapshot) {
  const std::unique_lock<std::shared_mutex> lock(m_mutex);
  m_set.insert(snapshot);
}

void GlobalSnapshots::del(const Snapshot* snapshot) {
  const std::unique_lock<std::shared_mutex> lock(m_mutex);
  m_set.erase(snapshot);
}

bool GlobalSnapshots::have(const Snapshot* snapshot) {
  const std::shared_lock<std::shared_mutex> lock(m_mutex);
  return m_set.count(snapshot) != 0;
}

Snapshot::Snapshot() { GlobalSnapshots::instance().add(this); }

Snapshot::~Snapshot() {
  GlobalSnapshots::instance().del(this);
  close();
}

bool Snapshot::open(const char* path) {
  if (fp != nullptr) {
    MERU_LOG(2, "already opened !");
    return false;
  }
  // "e": a program that the host starts would keep the index open, and in use, after the host has ended.
  fp.reset(fopen(path, "wte"));
  if (fp == nullptr) fp.reset(meru_compat::fopen_utf8(path, "wt"));
  return fp != nullptr;
}

bool Snapshot::write_header(AVFormatContext* oc) {
  if (fp == nullptr) {
    MERU_LOG(2, "---> moov: fp is nullptr!");
    return false;
  }
  if (oc == nullptr) {
    MERU_LOG(2, "---> moov: oc==null");
    return false;
  }
  if (oc->pb == nullptr) {
    MERU_LOG(2, "---> moov: pb==null, not support");
    return false;
  }
  if (!meru_compat::install_hooks(oc, {&static_write_header, &static_write_packet})) {
    MERU_LOG(2, "---> moov: this FFmpeg version is not known, no side index can be written");
    return false;
  }
  oc->opaque = this;
  return true;
}

/// Writes what of the current line is not in the file yet.
void Snapshot::put_pending() {
  fputs(cache.data() + cache_written, fp.get());
  cache_written = cache.size();
}

void Snapshot::flush() {
  if (fp == nullptr) return;
  put_pending();
  cache.reset();
  cache_written = 0;
}

void Snapshot::close() {
  const std::lock_guard<std::mutex> lock(file_mutex);
  flush();
  fp.reset();
}

int Snapshot::static_write_header(AVFormatContext* oc) {
  Snapshot* snapshot = snapshot_of(oc);
  if (snapshot == nullptr) return call_write_header(oc);
  return snapshot->filter_write_header(oc);
}

int Snapshot::static_write_packet(AVFormatContext* oc, AVPacket* pkt) {
  Snapshot* snapshot = snapshot_of(oc);
  // A null packet only asks the muxer to flush: it has no bytes to record.
  if (snapshot == nullptr || pkt == nullptr) return call_write_packet(oc, pkt);
  return snapshot->filter_packet(oc, pkt);
}

int Snapshot::filter_write_header(AVFormatContext* oc) {
  const int ret = call_write_header(oc);
  if (ret < 0) return ret;
  const std::lock_guard<std::mutex> lock(file_mutex);
  try {
    if (fp != nullptr) write_stream_lines(oc);
  } catch (const std::bad_alloc&) {
    // It must not go on through the muxer that has called this.
    MERU_LOG(2, "the side index cannot be written: no memory");
    fp.reset();
  }
  last_flush_usec = steady_usec();
  return ret;
}

void Snapshot::write_stream_lines(const AVFormatContext* oc) {
  std::string line;
  std::string lines;
  for (unsigned i = 0; i < oc->nb_streams; ++i) {
    const AVStream* st = oc->streams[i];
    if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      audio_index = st->index;
      line = audio_line(st);
    } else if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      video_index = st->index;
      line = video_line(st);
    }
    lines += line + "\n";
  }
  // At once: a reader would take an index that describes some of the streams for a whole one.
  fprintf(fp.get(), "## version=%d, %s\n%s", version(), kAddress, lines.c_str());
  flush_file();
}

int Snapshot::filter_packet(AVFormatContext* oc, AVPacket* pkt) {
  if (oc->pb != nullptr && fp != nullptr) {
    const int64_t pos = avio_tell(oc->pb);
    if (packet_count > 0) record_previous(oc, pkt, pos);
    if (fp != nullptr) flush_if_due(oc, pkt);
    remember(pkt, pos);
  }
  return call_write_packet(oc, pkt);
}

/// A packet's record is written when the next one, `pkt`, arrives at `pos`: only then its size in the movie is known.
void Snapshot::record_previous(const AVFormatContext* oc, const AVPacket* pkt, int64_t pos) {
  const int frame_size = oc->streams[pkt->stream_index]->codecpar->frame_size;
  const bool usual_duration = is_audio_packet(pkt) && last_duration == frame_size;
  cache.write_int(last_stream_index, ',');
  cache.write_int64(packet_count == 1 ? last_pos : 0, ',');
  cache.write_int64(pos - last_pos, ',');
  cache.write_int64(last_pts_delta, ',');
  cache.write_int64(last_dts_delta == last_pts_delta ? 0 : last_dts_delta, ',');
  cache.write_int64(usual_duration ? 0 : last_duration, ',');
  cache.write_int(last_key_flag, ';');
  if (cache.size() <= kLineLimit) return;
  avio_flush(oc->pb);
  put_pending();
  fputc('\n', fp.get());
  cache.reset();
  cache_written = 0;
  flush_file();
}

void Snapshot::remember(const AVPacket* pkt, int64_t pos) {
  int64_t& pts = is_audio_packet(pkt) ? audio_pts : video_pts;
  int64_t& dts = is_audio_packet(pkt) ? audio_dts : video_dts;
  ++packet_count;
  last_stream_index = pkt->stream_index;
  last_key_flag = (pkt->flags & AV_PKT_FLAG_KEY) != 0 ? 1 : 0;
  last_pos = pos;
  last_size = pkt->size;
  last_duration = pkt->duration;
  last_pts_delta = delta(pkt->pts, pts);
  last_dts_delta = delta(pkt->dts, dts);
  pts = pkt->pts;
  dts = pkt->dts;
}

/// Brings the movie and the index to the operating system twice a second or more often, by the clock and by the
/// timestamps, so that a killed process costs no more than half a second of the packets, also when they come in a burst
/// after a delay. What an encoder holds then is lost as well. The movie comes first: an index must not name bytes that
/// are not there. The line is not ended, so the finished file is the same as without.
void Snapshot::flush_if_due(AVFormatContext* oc, const AVPacket* pkt) {
  const int64_t now = steady_usec();
  const int64_t media = media_usec(oc, pkt, last_flush_media_usec);
  const int64_t moved = delta(media, last_flush_media_usec);
  const bool due =
      now - last_flush_usec >= flush_interval_usec || moved >= flush_interval_usec || moved <= -flush_interval_usec;
  if (!due) return;
  last_flush_usec = now;
  last_flush_media_usec = media;
  avio_flush(oc->pb);
  put_pending();
  flush_file();
}

/// An index that has lost some of its records is worth nothing behind them, so it ends where the first was lost.
void Snapshot::flush_file() {
  if (fflush(fp.get()) == 0 && ferror(fp.get()) == 0) return;
  MERU_LOG(2, "the side index cannot be written any more");
  fp.reset();
}

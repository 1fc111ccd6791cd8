#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <thread>

#include "AVSnapshot/snapshot.h"
#include "base/MR_AVWriter.h"
#include "base/movie_muxer.h"
#include "base/stream_url.h"
#include "common/log_site.h"
#include "output/cloned_context.h"
#include "output/distinct_outputs.h"
#include "output/local_file.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

/// The start of a recording: MovieMuxer from start() to "start OK".

namespace {

constexpr int64_t kRtspInterleaveUsec = 1000000;
constexpr int kMostChannels = 64;
constexpr int64_t kLimitedFlushUsec = 100000;

/// The further outputs as a list that always ends in a null, which the record has no room for when all four are used.
std::array<const char*, 5> other_urls(const MovieInfo& info) {
  std::array<const char*, 5> urls{};
  std::copy(std::begin(info.other_urls), std::end(info.other_urls), urls.begin());
  return urls;
}

bool has_further_live_output(const MovieInfo& info) {
  const auto urls = other_urls(info);
  const auto end = std::find(urls.begin(), urls.end(), nullptr);
  return std::any_of(urls.begin(), end, &MR::isLiveStream);
}

/// Servers take H.264 and AAC, and get the main output's packets. So these are what it is given, if it can hold them.
void prefer_live_codecs(AVOutputFormat* format) {
  const auto holds = [format](AVCodecID codec) {
    // Of MPEG-TS it is not known, for lack of a table.
    const int known = avformat_query_codec(format, codec, FF_COMPLIANCE_NORMAL);
    return known == 1 || (known < 0 && strcmp(format->name, "mpegts") == 0);
  };
  if (format->video_codec != AV_CODEC_ID_NONE && holds(AV_CODEC_ID_H264)) format->video_codec = AV_CODEC_ID_H264;
  if (format->audio_codec != AV_CODEC_ID_NONE && holds(AV_CODEC_ID_AAC)) format->audio_codec = AV_CODEC_ID_AAC;
}

}  // namespace

std::unique_ptr<meru_compat::OutputFormatCopy> guess_format(const MovieInfo& info) {
  const char* short_name = nullptr;
  if (MR::isRtmpStream(info.url)) short_name = "flv";
  if (MR::isRtspStream(info.url)) short_name = "rtsp";
  const AVOutputFormat* format = av_guess_format(short_name, info.url, nullptr);
  if (format == nullptr) format = av_guess_format("mp4", info.url, nullptr);
  if (format == nullptr) throw MR::MRException("@ av_guess_format(...) is NULL", MERU_STATUS_NO_FORMAT);
  return std::make_unique<meru_compat::OutputFormatCopy>(format);
}

int MovieMuxer::start(const MovieInfo& info, MovieStatusCallback cb, void* user, bool async,
                      std::shared_ptr<void> keep_user) {
  MERU_LOG(2, "\\n\\n\\n");
  m_blocked = true;
  meru_compat::register_all();
  m_network = MR::isRtspStream(info.url) || info.hasRtmpStream();
  if (m_network) avformat_network_init();

  const auto ctx = std::make_shared<StartCtx>();
  ctx->take(info);
  m_start_ctx = ctx;  // only now: without memory for it there is no start that a stop could leave the session to
  m_start_ctx->muxer = this;
  m_start_ctx->cb = cb;
  m_start_ctx->user = user;
  m_start_ctx->keep_user = std::move(keep_user);
  m_no_video = info.no_video;
  m_no_audio = info.no_audio;
  m_writer->m_live = MR::isLiveStream(info.url);
  m_writer->m_timeout_sec = info.timeout_sec;
  m_writer->m_interrupt.begin_start(m_start_ctx->gate.exited());
  m_writer->m_gate = &m_start_ctx->gate;
  {
    const std::lock_guard<std::mutex> lock(m_info_mutex);
    m_info = info;
  }
  if (!async) {
    StartCtx::thread_running(m_start_ctx);
    return 0;
  }
  try {
    std::thread(&StartCtx::thread_running, m_start_ctx).detach();
  } catch (...) {
    m_start_ctx->gate.end();
    throw;
  }
  return 0;
}

void MovieMuxer::throw_exited() { throw MR::MRException("main writer already exited ...", MR::kAlreadyExited); }

void MovieMuxer::start_thread_running(MovieInfo info, StartCtx* ctx) {
  m_video_st = OutputStream();
  m_audio_st = OutputStream();
  m_have_video = m_have_audio = m_encode_video = m_encode_audio = 0;
  m_opt.reset();
  check_record(info);
  make_context(info);
  ctx->has_output = true;
  set_network_options(info);
  if (info.no_audio) m_oformat->get()->audio_codec = AV_CODEC_ID_NONE;
  if (info.no_video) m_oformat->get()->video_codec = AV_CODEC_ID_NONE;
  m_writer->create_other_writers(other_urls(info).data());
  open_streams(create_streams(&info), info);
  av_dump_format(m_oc.get(), 0, MR::public_url(info.url).c_str(), 1);
  open_io(info);
  open_snapshot(info);
  write_header(info);
  accept_frames(info, ctx);
}

/// Two outputs that are one file would destroy each other; more channels than the resampler takes would all be lost.
void MovieMuxer::check_record(const MovieInfo& info) {
  if (!info.no_audio && info.channels > kMostChannels) {
    throw MR::MRException("more than 64 channels cannot be recorded", MERU_STATUS_BAD_RECORD);
  }
  const bool indexed = !MR::isRtspStream(info.url);
  const std::string shared = MR::shared_file(info.url, indexed ? info.snapshot_path : "", info.other_urls);
  if (!shared.empty()) throw MR::MRException(shared, MERU_STATUS_BAD_RECORD);
}

void MovieMuxer::make_context(const MovieInfo& info) {
  m_oformat = guess_format(info);
  AVFormatContext* oc = nullptr;
  if (avformat_alloc_output_context2(&oc, m_oformat->get(), nullptr, info.url) < 0) {
    throw MR::MRException("@ alloc context failed ...", MERU_STATUS_NO_CONTEXT);
  }
  if (oc == nullptr) {
    MERU_LOG(2, "Could not deduce output format from file extension: using MPEG.");
    if (const AVOutputFormat* mpeg = av_guess_format("mpeg", nullptr, nullptr); mpeg != nullptr) {
      m_oformat = std::make_unique<meru_compat::OutputFormatCopy>(mpeg);
      avformat_alloc_output_context2(&oc, m_oformat->get(), nullptr, info.url);
    }
    if (oc == nullptr) throw MR::MRException("output context is NULL", MERU_STATUS_NO_CONTEXT);
  }
  m_oc.reset(oc);
  m_oc->interrupt_callback = m_writer->m_interrupt.callback();
}

void MovieMuxer::set_network_options(const MovieInfo& info) {
  const bool rtsp = MR::isRtspStream(info.url);
  if (!rtsp && !MR::isRtmpStream(info.url)) {
    if (has_further_live_output(info)) prefer_live_codecs(m_oformat->get());
    return;
  }
  m_oformat->get()->video_codec = AV_CODEC_ID_H264;
  m_oformat->get()->audio_codec = rtsp ? AV_CODEC_ID_OPUS : AV_CODEC_ID_AAC;
  if (rtsp) {
    MR::set_rtsp_options(m_oc.get(), info.timeout_sec);
    m_oc->max_interleave_delta = kRtspInterleaveUsec;
  } else if (info.timeout_sec > 0) {
    // No RTMP muxer knows the option; what bounds its I/O is set where the connection is opened.
    av_opt_set_int(m_oc->priv_data, "stimeout", static_cast<int64_t>(info.timeout_sec) * 1000000, 0);
  }
}

/// Creates the streams, video first so that it is stream 0, and their encoders, not open yet.
MovieMuxer::OpenedStreams MovieMuxer::create_streams(MovieInfo* info) {
  OpenedStreams created;
  const AVOutputFormat* format = m_oformat->get();
  if (!info->no_video && format->video_codec != AV_CODEC_ID_NONE) {
    created.video = std::make_unique<VideoEnc>(m_writer.get());
    add_stream(&m_video_st, m_oc.get(), &m_video_codec, format->video_codec, info);
    m_have_video = m_encode_video = 1;
  }
  if (!info->no_audio && format->audio_codec != AV_CODEC_ID_NONE) {
    created.audio = std::make_unique<AudioEnc>(m_writer.get());
    add_stream(&m_audio_st, m_oc.get(), &m_audio_codec, format->audio_codec, info);
    m_have_audio = m_encode_audio = 1;
  }
  return created;
}

void MovieMuxer::open_streams(OpenedStreams opened, const MovieInfo& info) {
  if (m_have_video != 0) opened.video->open_video(m_oc.get(), m_video_codec, &m_video_st, m_opt.get(), info);
  if (m_have_audio != 0) opened.audio->open_audio(m_oc.get(), m_audio_codec, &m_audio_st, m_opt.get(), info);
  m_video_enc = std::move(opened.video);
  if (m_video_enc != nullptr) m_video_enc->keep_books(&m_books.video_frames);
  m_audio_enc = std::move(opened.audio);
}

void MovieMuxer::open_io(const MovieInfo& info) {
  if (m_writer->m_live) m_writer->limit_opening();  // until the header is written
  if ((m_oformat->get()->flags & AVFMT_NOFILE) != 0) return;
  int ret = 0;
  const auto open = [&] { return (ret = MR::open_io(m_oc.get(), info.url, info.timeout_sec)) >= 0; };
  if (!m_start_ctx->gate.open(MR::local_path(info.url), open, [this] { avio_closep(&m_oc->pb); })) throw_exited();
  if (ret >= 0) return;
  if (m_writer->m_interrupt.too_late()) ret = AVERROR(ETIMEDOUT);
  // The text keeps its form without the address; the line behind it has the address without its secret key.
  MERU_LOG(2, "Could not open '%s': %s", "", AvError(ret).text);
  if (!m_writer->m_interrupt.start_given_up()) MR::log_failed_output(0, info.url, ret);
  throw MR::MRException("Could not open url", MERU_STATUS_OPEN_FAILED);
}

bool has_side_index(const MovieInfo& info) { return !MR::isRtspStream(info.url) && info.snapshot_path[0] != '\0'; }

void MovieMuxer::open_snapshot(const MovieInfo& info) {
  if (!has_side_index(info)) return;
  m_snapshot = std::make_unique<Snapshot>();
  if (m_delay_limit_usec > 0) m_snapshot->flush_every(kLimitedFlushUsec);
  bool opened = false;
  const auto open = [&] {
    opened = m_snapshot->open(info.snapshot_path);
    m_writer->m_indexed = opened && m_snapshot->write_header(m_oc.get());
    return opened;
  };
  const std::string path = MR::local_path(info.snapshot_path);
  if (!m_start_ctx->gate.open(path, open, [this] { m_snapshot->close(); })) throw_exited();
  if (!opened) {
    MERU_LOG(2, "启动快照失败: %s", info.snapshot_path);
    return;
  }
  MERU_LOG(2, "启动快照 (%s): %s", m_writer->m_indexed ? "success" : "failed", info.snapshot_path);
}

void MovieMuxer::write_header(const MovieInfo& info) {
  const int ret = m_writer->writeHeader(m_oc.get(), info.metadata);
  if (ret >= 0) return;
  MERU_LOG(2, "Error occurred when opening output file: %s", AvError(ret).text);
  throw MR::MRException("error occurred when write header", MERU_STATUS_HEADER_FAILED);
}

/// The start has succeeded: lets frames in, unless the recording has been stopped meanwhile.
void MovieMuxer::accept_frames(const MovieInfo& info, StartCtx* ctx) {
  {
    const std::lock_guard<std::mutex> lock(m_info_mutex);
    const MovieInfo given = m_info;
    m_info = info;
    // The host sees its own pointers, not the copies that the start works on.
    std::copy(std::begin(given.other_urls), std::end(given.other_urls), m_info.other_urls);
  }
  const bool accepted = ctx->gate.pass_last([&] {
    const bool apart = m_have_video != 0 && (m_video_st.enc->flags & AV_CODEC_FLAG_GLOBAL_HEADER) != 0;
    for (BaseWriter* w = m_writer.get(); w != nullptr; w = w->m_next_writer) w->m_extradata_apart = apart;
    m_writer->start();
    for (BaseWriter* w = m_writer.get(); w != nullptr; w = w->m_next_writer) w->m_interrupt.start_over();
    m_blocked = false;
  });
  if (!accepted) throw_exited();
}

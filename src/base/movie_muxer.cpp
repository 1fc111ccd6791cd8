#include "base/movie_muxer.h"

#include <new>

#include "AVSnapshot/snapshot.h"
#include "common/log_site.h"
#include "common/no_sigpipe.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kLiveDrainUsec = 5000000;

}  // namespace

MovieBase::MovieBase(BaseWriter* writer) : m_writer(writer != nullptr ? writer : new BaseWriter) {}

MovieBase::~MovieBase() = default;

MovieMuxer::MovieMuxer(BaseWriter* writer) : MovieBase(writer) {}

MovieMuxer::~MovieMuxer() {
  MERU_LOG(4, "~movie muxer ...");
  if (m_audio_enc != nullptr) {
    m_audio_enc.reset();
    MERU_LOG(4, "delete audio OK");
  }
  if (m_video_enc != nullptr) {
    m_video_enc.reset();
    MERU_LOG(4, "delete video OK");
  }
  if (m_snapshot != nullptr) {
    m_snapshot.reset();
    MERU_LOG(4, "delete moov OK");
  }
  if (m_oc != nullptr) {
    // Nobody has stopped it: its output is given back, without what its encoders still hold.
    m_writer->stop();
    if ((m_oc->oformat->flags & AVFMT_NOFILE) == 0) avio_closep(&m_oc->pb);
  }
  publish_books();
  MERU_LOG(4, "~movie muxer OK");
}

void MovieMuxer::publish_books() const {
  if (!MR::books_are_observed()) return;
  try {
    MR::SessionReport report{true, {}, {}};
    report.accounts = {{"video frames", &m_books.video_frames},
                       {"source samples", &m_books.source_samples},
                       {"encoder samples", &m_books.encoder_samples}};
    for (const BaseWriter* w = m_writer.get(); w != nullptr; w = w->m_next_writer)
      report.outputs.push_back(&w->m_books);
    MR::publish_books(report);
  } catch (const std::bad_alloc&) {
    MERU_LOG(4, "no memory for a report");
  }
}

int MovieMuxer::write_video_frame(AVFrame* frame, const AVRational* tb, MR::Taken* taken) {
  if (frame != nullptr && taken != nullptr) return encode_video(frame, tb, taken);
  if (frame != nullptr) {
    MR::Taken uncounted(&m_books.video_frames, 1);
    return encode_video(frame, tb, &uncounted);
  }
  if (m_blocked || m_video_enc == nullptr) return 0;
  return m_video_enc->write_video_frame(m_oc.get(), &m_video_st, nullptr);
}

int MovieMuxer::encode_video(AVFrame* frame, const AVRational* tb, MR::Taken* taken) {
  if (m_blocked || m_video_enc == nullptr) {
    taken->drop(m_blocked ? MR::Drop::kNotStarted : MR::Drop::kDisabled);
    return 0;
  }
  if (tb != nullptr) frame->pts = av_rescale_q(frame->pts, *tb, m_video_st.enc->time_base);
  const int64_t last = m_last_v_pts;
  if (frame->pts <= last) {
    MERU_LOG(5, "@@@ V pts: %lld  (frame->pts <= g_last_v_pts %lld)", static_cast<long long>(frame->pts),
             static_cast<long long>(last));
    MR::report_drop("video frame", MR::Drop::kTimestamp, taken->drop(MR::Drop::kTimestamp),
                    "it is less than a frame after the last one");
    return 0;
  }
  m_last_v_pts = frame->pts;
  const int64_t usec = av_rescale_q(frame->pts, m_video_st.enc->time_base, kUsec);
  m_writer->m_encoder_delay.video.pushed(usec, usec);
  return m_video_enc->write_video_frame(m_oc.get(), &m_video_st, frame, taken);
}

int MovieMuxer::write_audio_frame(AVFrame* frame, const AVRational* tb) {
  if (frame != nullptr) m_books.encoder_samples.take(frame->nb_samples);
  return encode_audio_frame(frame, tb);
}

int MovieMuxer::encode_audio_frame(AVFrame* frame, const AVRational* tb) {
  if (m_blocked || m_audio_enc == nullptr) {
    if (frame != nullptr) m_books.encoder_samples.drop(MR::Drop::kNotStarted, frame->nb_samples);
    return 0;
  }
  if (frame == nullptr) return m_audio_enc->write_audio_frame(m_oc.get(), &m_audio_st, nullptr);
  if (tb != nullptr) frame->pts = av_rescale_q(frame->pts, *tb, m_audio_st.enc->time_base);
  m_last_a_pts = frame->pts;
  // When the next frame is about to be complete, two have been pushed since this one's start.
  const AVRational tb_enc = m_audio_st.enc->time_base;
  m_writer->m_encoder_delay.audio.pushed(av_rescale_q(frame->pts, tb_enc, kUsec),
                                         av_rescale_q(frame->pts + int64_t{2} * frame->nb_samples, tb_enc, kUsec));
  return encode_counted(m_oc.get(), frame);
}

int MovieMuxer::encode_counted(AVFormatContext* oc, AVFrame* frame) {
  MR::Ledger& samples = m_books.encoder_samples;
  const int count = frame->nb_samples;
  int result = 0;
  try {
    result = m_audio_enc->write_audio_frame(oc, &m_audio_st, frame);
  } catch (...) {
    samples.drop(MR::Drop::kMemory, count);
    throw;
  }
  if (result >= 0 || result == kPacketRefused) {
    samples.pass(count);
  } else {
    samples.drop(MR::Drop::kEncoder, count);
  }
  return result;
}

/// What is less than a frame of the encoder is recorded too. FFmpeg fills it up where the codec wants whole frames.
void MovieMuxer::encode_audio_rest(AVFormatContext* oc) {
  if (m_audio_enc == nullptr || !m_audio_rest) return;
  while (AVFrame* frame = m_audio_rest()) encode_counted(oc, frame);
}

bool MovieMuxer::add_audio_filter(FilterBase* filter) {
  if (m_blocked || m_audio_enc == nullptr) return false;
  m_audio_enc->set_filter(filter);
  return true;
}

bool MovieMuxer::add_video_filter(FilterBase* filter) {
  if (m_blocked || m_video_enc == nullptr) return false;
  m_video_enc->set_filter(filter);
  return true;
}

AVFrame* MovieMuxer::get_testing_vframe(const AVRational& tb) {
  return m_blocked || m_video_enc == nullptr ? nullptr : m_video_enc->get_video_frame_test(&m_video_st, tb);
}

AVFrame* MovieMuxer::get_testing_aframe(const AVRational& tb) {
  return m_blocked || m_audio_enc == nullptr ? nullptr : m_audio_enc->get_audio_frame_test(&m_audio_st, tb);
}

AVFrame* MovieMuxer::audio_dst_frame() const { return m_blocked ? nullptr : m_audio_st.frame.get(); }

AVFrame* MovieMuxer::video_dst_frame() const { return m_blocked ? nullptr : m_video_st.frame.get(); }

int64_t MovieMuxer::last_usec_pts() const {
  if (m_blocked) return -1;
  if (m_audio_st.st != nullptr) {
    const int64_t usec = av_rescale_q(m_last_a_pts, m_audio_st.enc->time_base, kUsec);
    if (usec >= 0) return usec;
  }
  return m_video_st.st != nullptr ? av_rescale_q(m_last_v_pts, m_video_st.enc->time_base, kUsec) : -1;
}

MovieInfo MovieMuxer::info_copy() const {
  const std::lock_guard<std::mutex> lock(m_info_mutex);
  return m_info;
}

/// A drain ends at the first packet that is refused. The main output may have failed, and the further ones still want
/// the rest.
void MovieMuxer::flushEncoder(AVFormatContext* oc) {
  if (m_audio_enc != nullptr) {
    while (m_audio_enc->write_audio_frame(oc, &m_audio_st, nullptr) == kPacketRefused) continue;
  }
  if (m_video_enc != nullptr) {
    while (m_video_enc->write_video_frame(oc, &m_video_st, nullptr) == kPacketRefused) continue;
  }
}

void MovieMuxer::close_stream(AVFormatContext* /*oc*/, OutputStream* ost) {
  ost->enc.reset();
  ost->frame.reset();
  ost->tmp_frame.reset();
  ost->st = nullptr;
}

int MovieMuxer::stop() {
  MERU_LOG(4, "begin ...");
  if (m_start_ctx == nullptr) return 1;
  const NoSigpipe no_sigpipe;
  if (!m_start_ctx->gate.close()) {
    if (m_start_ctx->has_output) MERU_LOG(4, "end begin... ======  maybe start rtmp thread blocking ..");
    return 1;
  }
  if (m_oc != nullptr && m_blocked) MERU_LOG(4, "end begin... ======  maybe start rtmp thread blocking ..");
  close_output();
  return 1;
}

bool MovieMuxer::leave_to_start(std::function<void()> destroy) {
  return m_start_ctx != nullptr && m_start_ctx->gate.leave(std::move(destroy));
}

/// A live output whose server has stalled must not hold MERU_stop up for ever; a file takes the time that it needs.
void MovieMuxer::limit_outputs() {
  for (BaseWriter* w = m_writer.get(); w != nullptr; w = w->m_next_writer) {
    if (w->m_live) {
      w->m_interrupt.limit(w->m_timeout_sec > 0 ? static_cast<int64_t>(w->m_timeout_sec) * 1000000 : kLiveDrainUsec);
    } else {
      w->m_interrupt.start_over();
    }
  }
}

void MovieMuxer::close_output() {
  if (m_oc == nullptr) return;
  FormatContextPtr oc = std::move(m_oc);
  m_blocked = true;
  limit_outputs();
  encode_audio_rest(oc.get());
  flushEncoder(oc.get());
  MERU_LOG(4, "before write stop ...");
  m_writer->stop();
  MERU_LOG(4, "write stop ok");
  if (m_video_st.st != nullptr) {
    close_stream(oc.get(), &m_video_st);
    MERU_LOG(4, "--- close video OK.");
  }
  if (m_audio_st.st != nullptr) {
    close_stream(oc.get(), &m_audio_st);
    MERU_LOG(4, "--- close audio OK.");
  }
  if ((oc->oformat->flags & AVFMT_NOFILE) == 0) {
    avio_closep(&oc->pb);
    MERU_LOG(4, "--- close io OK.");
  }
  if (m_network) {
    MERU_LOG(4, "--- has rtmp .");
    avformat_network_deinit();
  }
  oc.reset();
  MERU_LOG(4, "--- free ctx OK.");
  MERU_LOG(4, "ok");
}

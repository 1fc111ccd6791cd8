#include "raw_packets/copy_loop.h"

#include <algorithm>

#include "common/log_site.h"
#include "raw_packets/open_input.h"

extern "C" {
#include <libavcodec/adts_parser.h>
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};

/// A difference of stamps that a demuxer may have made up: wraps instead of overflowing.
int64_t difference(int64_t later, int64_t earlier) {
  return static_cast<int64_t>(static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier));
}

/// @return the size of a frame of sound as its header says, the header included
int adts_frame_size(const uint8_t* header) { return (header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5; }

/// @return whether a packet is a frame of sound whose header is damaged, or says what nothing can unpack. Containers
/// hold the frames without their headers, and the whole output fails when one cannot be taken off.
bool is_damaged(const AVPacket* packet, const AVCodecParameters* par) {
  const bool adts = par->codec_id == AV_CODEC_ID_AAC && par->extradata_size == 0;
  if (!adts) return false;
  uint32_t samples = 0;
  uint8_t blocks = 0;
  if (packet->size <= AV_AAC_ADTS_HEADER_SIZE || av_adts_header_parse(packet->data, &samples, &blocks) < 0) return true;
  if (adts_frame_size(packet->data) != packet->size) return true;
  const bool checksum = (packet->data[1] & 1) == 0;
  return checksum && (blocks > 1 || packet->size <= AV_AAC_ADTS_HEADER_SIZE + 2);
}

void take_header_off(AVPacket* packet) {
  const bool checksum = (packet->data[1] & 1) == 0;
  const int size = AV_AAC_ADTS_HEADER_SIZE + (checksum ? 2 : 0);
  packet->data += size;
  packet->size -= size;
}

/// The demuxer's own stamp in microseconds. A packet that it gives none goes on at the pace of those before it.
int64_t own_stamp(const AVPacket* packet, const MuxInput* input) {
  if (packet->pts == AV_NOPTS_VALUE) {
    const int64_t next = input->last_pts + std::max<int64_t>(input->step, 1);
    return next <= kLastPts ? next : input->last_pts + 1;
  }
  return av_rescale_q(packet->pts, input->ifmt_ctx->streams[0]->time_base, kUsec);
}

/// Stamps the n-th packet that is found with the n-th stamp of the host.
void stamp(AVPacket* packet, const MuxInput* input) {
  long long pts = 0;
  const bool given = input->buffer->m_pts_queue._get_front_(pts, false, 0, true) == nuv::kQueueDone;
  packet->pts = packet->dts = given ? pts : own_stamp(packet, input);
}

/// MP4 refuses a packet whose duration does not fit into 31 bits of its time base, which is half an hour of H.264. Such
/// a duration is that of a first packet whose stamp is not near 0, or of one behind a long gap, and says nothing.
void drop_long_duration(AVPacket* packet, AVRational time_base) {
  const int64_t ticks = av_rescale_q(packet->duration, kUsec, time_base);
  if (ticks < 0 || ticks > std::numeric_limits<int32_t>::max()) packet->duration = 0;
}

/// Two stamps that are not the same may become the same in the output, whose time base can be a millisecond: the writer
/// would drop the second packet. It then goes one tick behind the first.
void keep_apart(AVPacket* packet, MuxInput* input) {
  const AVRational time_base = input->ost->time_base;
  int64_t tick = av_rescale_q(packet->pts, kUsec, time_base);
  if (input->step > 0 && tick <= input->last_tick) {
    packet->pts = packet->dts = av_rescale_q_rnd(input->last_tick + 1, time_base, kUsec, AV_ROUND_UP);
    tick = av_rescale_q(packet->pts, kUsec, time_base);
  }
  input->last_tick = std::max(tick, input->last_tick);
}

}  // namespace

int CopyLoop::run() {
  m_work.reset(av_packet_alloc());
  if (m_work == nullptr) return AVERROR(ENOMEM);
  if (m_inputs[0]->ifmt_ctx != nullptr && m_inputs[1]->ifmt_ctx != nullptr) {
    m_inputs[0]->buffer->give_way_to(m_inputs[1]->buffer);
    m_inputs[1]->buffer->give_way_to(m_inputs[0]->buffer);
  }
  copy();
  m_pending.clear();
  return m_error;
}

void CopyLoop::copy() {
  prime();
  while (read_rested()) {
    MuxInput* input = earliest();
    if (input == nullptr) {
      if (rests()) continue;
      break;
    }
    const auto taken = m_pending.extract(input->ifmt_ctx);
    const int ret = write(input, taken.mapped().get());
    if (ret < 0) {
      note_failure("muxing packet", ret);
      break;
    }
    if (!read_next(input)) break;
  }
}

void CopyLoop::note_failure(const char* doing, int error) {
  MERU_LOG(2, "error %s: %s", doing, AvError(error).text);
  m_error = error;
}

/// Reads the first packet of each input, unless an input before it fails.
void CopyLoop::prime() {
  for (MuxInput* input : m_inputs) {
    if (input->ifmt_ctx == nullptr) continue;
    const int ret = read(input);
    if (ret == AVERROR_EOF || ret >= 0) continue;
    note_failure("reading frame", ret);
    return;
  }
}

/// Whether an input gave way and is neither pending nor over.
bool CopyLoop::rests() const {
  const auto gave_way = [](const MuxInput* input) { return input->buffer->m_gave_way; };
  return std::any_of(std::begin(m_inputs), std::end(m_inputs), gave_way);
}

/// Reads the inputs that rested and have something again. Without anything else to write it waits for them.
/// @return false when the copying is over
bool CopyLoop::read_rested() {
  for (MuxInput* input : m_inputs) {
    const bool rests = input->buffer->m_gave_way && m_pending.count(input->ifmt_ctx) == 0;
    if (!rests || (!m_pending.empty() && !input->buffer->ready())) continue;
    resume_input(input->ifmt_ctx);
    if (!read_next(input)) return false;
  }
  return true;
}

/// Reads the next packet of an input into m_pending. Waits for the host. @return 0 or an error
int CopyLoop::read(MuxInput* input) {
  for (;;) {
    const int ret = read_undamaged(input);
    if (ret < 0) return ret;
    if (m_work->stream_index != 0) continue;  // a format with several streams: only the first has an output stream
    stamp(m_work.get(), input);
    if (!is_damaged(m_work.get(), input->ifmt_ctx->streams[0]->codecpar)) break;
    note_damage(input, AVERROR_INVALIDDATA);
  }
  if (input->bare) take_header_off(m_work.get());
  PacketPtr packet(av_packet_clone(m_work.get()));
  av_packet_unref(m_work.get());
  if (packet == nullptr) return AVERROR(ENOMEM);
  m_pending[input->ifmt_ctx] = std::move(packet);
  return 0;
}

/// Reads into m_work, over bytes in which the demuxer finds no packet. At the end of the stream every error is the end,
/// but for want of memory, which loses what is there.
int CopyLoop::read_undamaged(MuxInput* input) {
  for (;;) {
    av_packet_unref(m_work.get());
    const int64_t before = avio_tell(input->ifmt_ctx->pb);
    const int ret = av_read_frame(input->ifmt_ctx, m_work.get());
    if (ret >= 0) return ret;
    const bool skipped = ret == AVERROR_INVALIDDATA && avio_tell(input->ifmt_ctx->pb) > before;
    if (ret == AVERROR(ENOMEM)) return ret;
    if (!skipped) return input->buffer->m_eof || input->buffer->m_gave_way ? AVERROR_EOF : ret;
    note_damage(input, ret);
  }
}

/// Once as a failure: a stream of garbage would fill the log.
void CopyLoop::note_damage(MuxInput* input, int error) {
  MERU_LOG(input->damaged ? 5 : 2, "error reading frame: %s", AvError(error).text);
  input->damaged = true;
}

/// @return false when the copying is over
bool CopyLoop::read_next(MuxInput* input) {
  const int ret = read(input);
  if (ret >= 0) return true;
  if (ret == AVERROR_EOF) {
    if (!input->buffer->m_gave_way) MERU_LOG(2, "reached EOF for '%s'", input->name);
    return true;
  }
  note_failure("reading frame", ret);
  return false;
}

/// The input whose pending packet comes first; of equals the one that always came first. Null when nothing is pending.
MuxInput* CopyLoop::earliest() const {
  const auto first = std::min_element(m_pending.begin(), m_pending.end(),
                                      [](const auto& a, const auto& b) { return a.second->pts < b.second->pts; });
  if (first == m_pending.end()) return nullptr;
  return m_inputs[0]->ifmt_ctx == first->first ? m_inputs[0] : m_inputs[1];
}

int CopyLoop::write(MuxInput* input, AVPacket* packet) {
  packet->pos = -1;
  packet->stream_index = input->ost->index;
  packet->duration = input->step = difference(packet->pts, input->last_pts);
  input->last_pts = packet->pts;
  drop_long_duration(packet, input->ost->time_base);
  keep_apart(packet, input);
  return m_writer->writePacket(&kUsec, packet, true);
}

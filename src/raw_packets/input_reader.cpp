#include "raw_packets/input_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "common/log_site.h"
#include "raw_packets/adts.h"

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

/// Whether the demuxer gives each packet its offset among the bytes that it read.
bool has_positions(const AVFormatContext* ctx) {
  const char* const name = ctx->iformat->name;
  return std::strcmp(name, "h264") == 0 || std::strcmp(name, "hevc") == 0 || std::strcmp(name, "aac") == 0;
}

}  // namespace

const char* refused_timestamps(const InputBuffer& buffer, bool reorders) {
  if (!reorders || !buffer.timestamps_fell()) return nullptr;
  return "the video has B-frames: its timestamps have to rise from packet to packet (dts), or both are given with "
         "MERU2_write_video_packet_ts";
}

InputReader::InputReader(MuxInput* input)
    : m_input(input),
      m_finder(input->buffer, has_positions(input->ifmt_ctx)),
      m_found(av_packet_alloc()),
      m_unit(av_packet_alloc()) {
  if (m_found == nullptr || m_unit == nullptr) throw std::bad_alloc();
  if (input->reorders) m_order = std::make_unique<PictureOrder>(input->ifmt_ctx->streams[0]->codecpar);
}

int InputReader::read(PacketPtr* packet) {
  for (;;) {
    if (m_order != nullptr) *packet = m_order->take();
    if (*packet != nullptr) return 0;
    if (m_ready != nullptr) {
      *packet = std::move(m_ready);
      return 0;
    }
    const int ret = read_unit();
    if (ret >= 0) {
      const int delivered = deliver();
      if (delivered < 0) return delivered;
      continue;
    }
    if (ret != AVERROR_EOF || m_input->buffer->m_gave_way || m_order == nullptr) return ret;
    m_order->finish();
    *packet = m_order->take();
    return *packet != nullptr ? 0 : AVERROR_EOF;
  }
}

/// Passes the unit on: to where its display order is found, unless the host gave it.
int InputReader::deliver() {
  PacketPtr unit(av_packet_clone(m_unit.get()));
  av_packet_unref(m_unit.get());
  if (unit == nullptr) return AVERROR(ENOMEM);
  const bool exact = m_finder.stamp().exact;
  if (!exact && m_order != nullptr) {
    m_order->put(std::move(unit));
    m_refused = refused_timestamps(*m_input->buffer, m_order->reorders());
    return m_refused != nullptr ? AVERROR(EINVAL) : 0;
  }
  if (m_order != nullptr) m_order->finish();
  m_ready = std::move(unit);
  return 0;
}

/// Reads one undamaged packet into m_unit, and stamps it.
int InputReader::read_unit() {
  for (;;) {
    const int ret = read_found();
    if (ret < 0) return ret;
    const bool given = m_finder.find(m_found.get());
    av_packet_unref(m_unit.get());
    av_packet_move_ref(m_unit.get(), m_found.get());
    // The fields of an interlaced frame, or what follows a unit that is none to the parser.
    while (given && m_finder.stamp().exact && m_finder.goes_on()) {
      const int appended = append_found();
      if (appended == AVERROR_EOF) break;
      if (appended < 0) return appended;
    }
    m_input->buffer->m_books.packets.take();
    stamp(given);
    if (!is_damaged(m_unit.get(), m_input->ifmt_ctx->streams[0]->codecpar)) break;
    m_input->buffer->m_books.packets.drop(MR::Drop::kDamaged);
    note_damage(AVERROR_INVALIDDATA);
  }
  if (m_input->bare) take_header_off(m_unit.get());
  return 0;
}

int InputReader::append_found() {
  const int ret = read_found();
  if (ret < 0) return ret;
  m_finder.find(m_found.get());
  const int end = m_unit->size;
  const int grown = av_grow_packet(m_unit.get(), m_found->size);
  if (grown < 0) return grown;
  std::memcpy(m_unit->data + end, m_found->data, static_cast<size_t>(m_found->size));
  return 0;
}

/// Reads into m_found, over bytes in which the demuxer finds no packet. At the end of the stream every error is the
/// end, but for want of memory, which loses what is there.
int InputReader::read_found() {
  AVFormatContext* const ctx = m_input->ifmt_ctx;
  for (;;) {
    av_packet_unref(m_found.get());
    const int64_t before = avio_tell(ctx->pb);
    const int ret = av_read_frame(ctx, m_found.get());
    if (ret >= 0 && m_found->stream_index == 0) return ret;
    if (ret >= 0) continue;  // a format with several streams: only the first has an output stream
    const bool skipped = ret == AVERROR_INVALIDDATA && avio_tell(ctx->pb) > before;
    if (ret == AVERROR(ENOMEM)) return ret;
    if (!skipped) return m_input->buffer->m_eof || m_input->buffer->m_gave_way ? AVERROR_EOF : ret;
    note_damage(ret);
  }
}

/// A packet that begins in a pushed packet after another has no timestamp of the host's.
void InputReader::stamp(bool given) {
  AVPacket* const packet = m_unit.get();
  const AVRational time_base = m_input->ifmt_ctx->streams[0]->time_base;
  const int64_t duration = packet->duration > 0 ? av_rescale_q(packet->duration, time_base, kUsec) : 0;
  const int64_t dts = given ? m_finder.stamp().dts : own_stamp();
  packet->dts = dts;
  packet->pts = given ? m_finder.stamp().pts : dts;
  packet->duration = duration;
  m_step = difference(dts, m_last);
  m_last = dts;
  m_duration = duration;
}

/// The packet follows the one before it, ahead of what the host pushed next. The demuxer's own timestamp is more exact
/// than a duration that is rounded, when nothing has come between.
int64_t InputReader::own_stamp() {
  const AVPacket* const packet = m_unit.get();
  const bool timed = packet->pts != AV_NOPTS_VALUE;
  const int64_t step = std::max<int64_t>(timed ? m_duration : m_step, 1);
  int64_t next = m_last + step;
  if (next > kLastPts) next = m_last + 1;
  Stamp pushed{};
  if (m_finder.peek(&pushed)) return std::min(next, pushed.dts - 1);
  if (!timed) return next;
  const int64_t own = av_rescale_q(packet->pts, m_input->ifmt_ctx->streams[0]->time_base, kUsec);
  return own > next - step && own < next + step ? own : next;
}

/// Once as a failure: a stream of garbage would fill the log.
void InputReader::note_damage(int error) {
  MERU_LOG(m_damaged ? 5 : 2, "error reading frame: %s", AvError(error).text);
  m_damaged = true;
}

void InputReader::log_skipped() const {
  const int64_t damaged = m_input->buffer->m_books.packets.dropped(MR::Drop::kDamaged);
  const int64_t skipped = m_finder.skipped_bytes();
  if (skipped > 0 || damaged > 0) {
    MERU_LOG(2, "damage in '%s': %lld packets dropped, %lld bytes skipped", m_input->name,
             static_cast<long long>(damaged), static_cast<long long>(skipped));
  }
  if (m_finder.unused() > 0) {
    MERU_LOG(2, "%lld pushed packets of '%s' begin no frame", static_cast<long long>(m_finder.unused()), m_input->name);
  }
}

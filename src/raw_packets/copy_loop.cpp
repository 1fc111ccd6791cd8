#include "raw_packets/copy_loop.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "common/log_site.h"
#include "raw_packets/expected.h"
#include "raw_packets/open_input.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};

/// MP4 refuses a packet whose duration does not fit into 31 bits of its time base, which is half an hour of H.264. Such
/// a duration is that of a packet behind a long gap, and says nothing.
void drop_long_duration(AVPacket* packet, AVRational time_base) {
  const int64_t ticks = av_rescale_q(packet->duration, kUsec, time_base);
  if (ticks < 0 || ticks > std::numeric_limits<int32_t>::max()) packet->duration = 0;
}

/// The time since the packet before it. Nothing is before the first one: there the demuxer's own duration is better,
/// where it has one.
void set_duration(AVPacket* packet, const MuxInput& input) {
  if (!input.written && packet->duration > 0) return;
  packet->duration = static_cast<int64_t>(static_cast<uint64_t>(packet->dts) - static_cast<uint64_t>(input.last_dts));
}

/// A side index leaves a dts out that is as far from the last one as the pts is from the last pts, and its readers then
/// take the pts for it. Where frames are reordered such a dts goes one tick earlier.
void tell_from_pts(AVPacket* packet, const MuxInput& input) {
  const AVRational time_base = input.ost->time_base;
  const int64_t dts = av_rescale_q(packet->dts, kUsec, time_base);
  const int64_t pts = av_rescale_q(packet->pts, kUsec, time_base);
  const int64_t last_dts = input.written ? input.last_tick : 0;
  const int64_t last_pts = input.written ? input.last_pts_tick : 0;
  const bool left_out = dts == last_dts || dts - last_dts == pts - last_pts;
  if (!left_out || dts == pts || (input.written && dts - 1 <= last_dts)) return;
  packet->dts = av_rescale_q_rnd(dts - 1, time_base, kUsec, AV_ROUND_DOWN);
}

/// Two stamps that are not the same may become the same in the output, whose time base can be a millisecond: the writer
/// would drop the second packet. It then goes one tick behind the first.
void keep_apart(AVPacket* packet, MuxInput* input) {
  const AVRational time_base = input->ost->time_base;
  const int64_t tick = av_rescale_q(packet->dts, kUsec, time_base);
  if (input->written && tick <= input->last_tick) {
    packet->dts = av_rescale_q_rnd(input->last_tick + 1, time_base, kUsec, AV_ROUND_UP);
    packet->pts = std::max(packet->pts, packet->dts);
  }
  if (input->indexed && input->reorders) tell_from_pts(packet, *input);
  input->last_pts_tick = av_rescale_q(packet->pts, kUsec, time_base);
  input->last_tick = av_rescale_q(packet->dts, kUsec, time_base);
}

}  // namespace

int CopyLoop::run() {
  const nuv::Defer settling([this] { settle(); });
  for (size_t i = 0; i < m_sides.size(); ++i) {
    if (m_inputs[i]->ifmt_ctx == nullptr) continue;
    m_sides[i].input = m_inputs[i];
    m_sides[i].reader = std::make_unique<InputReader>(m_inputs[i]);
  }
  if (m_inputs[0]->ifmt_ctx != nullptr && m_inputs[1]->ifmt_ctx != nullptr) {
    m_inputs[0]->buffer->give_way_to(m_inputs[1]->buffer);
    m_inputs[1]->buffer->give_way_to(m_inputs[0]->buffer);
  }
  copy();
  return m_error;
}

void CopyLoop::copy() {
  prime();
  while (read_rested()) {
    Side* side = earliest();
    if (side == nullptr) {
      if (rests()) continue;
      break;
    }
    const PacketPtr packet = std::move(side->pending);
    const int ret = drop_late(side->input, packet.get()) ? 0 : write(side->input, packet.get());
    if (ret < 0) {
      note_failure("muxing packet", ret);
      break;
    }
    if (!read_next(side)) break;
  }
}

/// What was found and then neither written nor dropped has been lost to what ended the run.
void CopyLoop::settle() {
  for (Side& side : m_sides) {
    if (side.reader == nullptr) continue;
    side.reader->log_skipped();
    MR::Ledger& packets = side.input->buffer->m_books.packets;
    const int64_t rest = packets.taken() - packets.passed() - packets.dropped();
    const MR::Drop reason = m_refused != nullptr         ? MR::Drop::kRefused
                            : m_error == AVERROR(ENOMEM) ? MR::Drop::kMemory
                                                         : MR::Drop::kFailedOutput;
    if (rest > 0) packets.drop(reason, rest);
    side.pending.reset();
  }
}

void CopyLoop::note_failure(const char* doing, int error) {
  MERU_LOG(2, "error %s: %s", doing, AvError(error).text);
  m_error = error;
}

void CopyLoop::note_read_failure(const Side& side, int error) {
  m_refused = side.reader->refused();
  if (m_refused == nullptr) return note_failure("reading frame", error);
  MERU_LOG(2, "error reading frame: %s", m_refused);
  m_error = error;
}

/// Reads the first packet of each input, unless an input before it fails.
void CopyLoop::prime() {
  for (Side& side : m_sides) {
    if (side.reader == nullptr) continue;
    const int ret = side.reader->read(&side.pending);
    if (ret == AVERROR_EOF || ret >= 0) continue;
    note_read_failure(side, ret);
    return;
  }
}

/// Whether an input gave way and is neither pending nor over.
bool CopyLoop::rests() const {
  const auto gave_way = [](const MuxInput* input) { return input->buffer->m_gave_way; };
  return std::any_of(std::begin(m_inputs), std::end(m_inputs), gave_way);
}

bool CopyLoop::any_pending() const {
  return std::any_of(m_sides.begin(), m_sides.end(), [](const Side& side) { return side.pending != nullptr; });
}

/// Reads the inputs that rested and have something again. Without anything else to write it waits for them.
/// @return false when the copying is over
bool CopyLoop::read_rested() {
  for (Side& side : m_sides) {
    if (side.reader == nullptr) continue;
    const bool rests = side.input->buffer->m_gave_way && side.pending == nullptr;
    if (!rests || (any_pending() && !side.input->buffer->ready())) continue;
    resume_input(side.input->ifmt_ctx);
    if (!read_next(&side)) return false;
  }
  return m_refused == nullptr;
}

/// @return false when the copying is over
bool CopyLoop::read_next(Side* side) {
  const int ret = side->reader->read(&side->pending);
  if (ret >= 0) return true;
  if (ret == AVERROR_EOF) {
    if (!side->input->buffer->m_gave_way) MERU_LOG(2, "reached EOF for '%s'", side->input->name);
    return true;
  }
  note_read_failure(*side, ret);
  return false;
}

/// The input whose pending packet comes first; of equals always the same one. Null when nothing is pending.
CopyLoop::Side* CopyLoop::earliest() {
  Side* first = nullptr;
  for (Side& side : m_sides) {
    if (side.pending == nullptr) continue;
    if (first == nullptr || side.pending->dts < first->pending->dts) first = &side;
  }
  return first;
}

/// A packet that is not later than the one before it, as the host has them, came too late for its place.
bool CopyLoop::drop_late(MuxInput* input, const AVPacket* packet) {
  if (!input->written || packet->dts > input->last_dts) return false;
  input->buffer->m_books.packets.drop(MR::Drop::kTimestamp);
  if (!input->late) {
    MERU_LOG(2, "a packet of '%s' is dropped: its timestamp %lld is not later than the last one written, %lld",
             input->name, static_cast<long long>(packet->dts), static_cast<long long>(input->last_dts));
  }
  input->late = true;
  return true;
}

int CopyLoop::write(MuxInput* input, AVPacket* packet) {
  packet->pos = -1;
  packet->stream_index = input->ost->index;
  set_duration(packet, *input);
  input->last_dts = packet->dts;
  drop_long_duration(packet, input->ost->time_base);
  keep_apart(packet, input);
  input->written = true;
  input->buffer->m_books.packets.pass();
  return m_writer->writePacket(&kUsec, packet, true);
}

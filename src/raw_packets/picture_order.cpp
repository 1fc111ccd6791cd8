#include "raw_packets/picture_order.h"

#include <algorithm>
#include <new>

#include "raw_packets/start_codes.h"

namespace {

constexpr size_t kMaxDelay = 16;  // the largest that the format knows
constexpr int64_t kUsualStep = 1;
constexpr int kBaseline = 66;

}  // namespace

PictureOrder::PictureOrder(const AVCodecParameters* par)
    : m_parser(av_parser_init(AV_CODEC_ID_H264)),
      m_ctx(avcodec_alloc_context3(nullptr)),
      m_delay(std::min(static_cast<size_t>(std::max(par->video_delay, 0)), kMaxDelay)) {
  if (m_parser == nullptr || m_ctx == nullptr) throw std::bad_alloc();
  if (avcodec_parameters_to_context(m_ctx.get(), par) < 0) throw std::bad_alloc();
  m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

PictureOrder::Order PictureOrder::order_of(const AVPacket* packet) {
  uint8_t* out = nullptr;
  int size = 0;
  av_parser_parse2(m_parser.get(), m_ctx.get(), &out, &size, packet->data, packet->size, AV_NOPTS_VALUE, packet->dts,
                   0);
  if (begins_sequence(packet->data, static_cast<size_t>(packet->size))) ++m_sequence;
  return {m_sequence, m_parser->output_picture_number};
}

/// A frame that should have been shown before one that has its pts already: the stream reorders by more than was known.
bool PictureOrder::is_late(const Order& order) const {
  return order < m_last && m_parser->pict_type == AV_PICTURE_TYPE_B;
}

/// A stream reorders by as many frames as are decoded before another and shown after it.
void PictureOrder::learn_delay(const Order& order) {
  const auto shown_later = std::count_if(m_recent.begin(), m_recent.end(), [&](const Order& o) { return o > order; });
  m_delay = std::clamp(static_cast<size_t>(shown_later), m_delay, kMaxDelay);
}

void PictureOrder::remember(const Order& order) {
  if (m_recent.size() == kMaxDelay) m_recent.pop_front();
  m_recent.push_back(order);
}

void PictureOrder::put(PacketPtr packet) {
  const int64_t dts = packet->dts;
  const int64_t number = m_first + static_cast<int64_t>(m_frames.size());
  if (number > 0) m_step = std::max<int64_t>(dts - m_last_dts, kUsualStep);
  m_last_dts = dts;
  Order order = order_of(packet.get());
  if (is_late(order)) {
    learn_delay(order);
    remember(order);
    packet->pts = dts;
    m_frames.push_back({std::move(packet), true});
    return;
  }
  if (order < m_last) order.first = ++m_sequence;  // the count began again without an IDR frame
  remember(order);
  m_frames.push_back({std::move(packet), false});
  m_waiting.emplace(order, number);
  if (m_waiting.size() > m_delay) give_next(dts);
}

void PictureOrder::give_next(int64_t pts) {
  const auto next = m_waiting.begin();
  m_last = next->first;
  Frame& frame = m_frames[static_cast<size_t>(next->second - m_first)];
  frame.packet->pts = pts;
  frame.timed = true;
  m_waiting.erase(next);
}

PacketPtr PictureOrder::take() {
  if (m_frames.empty() || !m_frames.front().timed) return nullptr;
  PacketPtr packet = std::move(m_frames.front().packet);
  m_frames.pop_front();
  ++m_first;
  return packet;
}

void PictureOrder::finish() {
  int64_t pts = m_last_dts;
  // Every frame has its place; of those that wait the first one is shown one distance after the last frame decoded.
  while (!m_waiting.empty()) give_next(pts += m_step);
}

bool announce_reordering(AVCodecParameters* par) {
  if (par->codec_id != AV_CODEC_ID_H264) return false;
  // FFmpeg puts the constraints above the number of the profile.
  if (par->video_delay <= 0 && (par->profile & 0xff) == kBaseline) return false;
  par->video_delay = std::max(par->video_delay, 1);
  return true;
}

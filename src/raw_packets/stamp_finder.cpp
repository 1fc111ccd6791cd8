#include "raw_packets/stamp_finder.h"

#include <algorithm>

namespace {

/// The zero bytes before a start code may still belong to the pushed packet before.
int leading_zeros(const AVPacket* packet) {
  const uint8_t* const begin = packet->data;
  const uint8_t* const end = begin + packet->size;
  return static_cast<int>(std::find_if(begin, end, [](uint8_t byte) { return byte != 0; }) - begin);
}

constexpr int64_t kStartCode = 4;

}  // namespace

bool StampFinder::find(const AVPacket* packet) {
  m_buffer->m_books.bytes.pass(packet->size);
  if (!m_by_position || packet->pos < 0) return m_buffer->m_pts_queue._get_front_(m_stamp, false, 0, true) == 0;
  const int64_t gap = packet->pos - m_end;
  if (gap > 0) {
    m_skipped += gap;
    m_buffer->m_books.bytes.drop(MR::Drop::kDamaged, gap);
  }
  m_end = packet->pos + packet->size;
  return find_at(packet->pos + leading_zeros(packet));
}

/// The stamp of a packet is in the queue before its first byte can be read.
bool StampFinder::find_at(int64_t position) {
  Stamp front{};
  int passed = 0;
  while (m_buffer->m_pts_queue._get_front_(front, false, 0, false) == nuv::kQueueDone && front.begin <= position) {
    m_buffer->m_pts_queue._get_front_(m_stamp, false, 0, true);
    ++passed;
  }
  m_unused += std::max(passed - 1, 0);
  return passed > 0;
}

bool StampFinder::goes_on() const { return m_by_position && m_stamp.begin + m_stamp.size - m_end > kStartCode; }

bool StampFinder::peek(Stamp* next) const {
  return m_buffer->m_pts_queue._get_front_(*next, false, 0, false) == nuv::kQueueDone;
}

int64_t StampFinder::skipped_bytes() const {
  const bool over = m_by_position && m_buffer->m_eof;
  return m_skipped + (over ? std::max<int64_t>(m_buffer->m_read_bytes - m_end, 0) : 0);
}

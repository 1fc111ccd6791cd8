#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <utility>

#include "common/ffmpeg_handles.h"

/// Gives H.264 frames that come in decoding order, with rising dts, the pts of their display order: the n-th frame
/// shown has the dts of the frame that is decoded as many frames later as the stream reorders. A frame waits until the
/// ones that decide its place have come; of a stream that does not reorder none waits, and pts and dts are the same.
/// One thread.
class PictureOrder {
 public:
  /// @param par  of the stream: how far it announces to reorder, and its parameter sets
  explicit PictureOrder(const AVCodecParameters* par);

  /// @param packet  one access unit, with its dts
  void put(PacketPtr packet);
  /// The next frame in decoding order; null while its pts is unknown.
  PacketPtr take();
  /// No more frames come: the pts of those that wait go on at the last distance of two dts.
  void finish();
  /// Whether the stream announces reordering, or was seen to reorder.
  bool reorders() const { return m_delay > 0; }

 private:
  /// Display order: sequences, which begin with an IDR frame, then the picture order count.
  using Order = std::pair<int64_t, int64_t>;
  struct Frame {
    PacketPtr packet;
    bool timed = false;
  };
  struct CloseParser {
    void operator()(AVCodecParserContext* p) const { av_parser_close(p); }
  };

  Order order_of(const AVPacket* packet);
  bool is_late(const Order& order) const;
  void learn_delay(const Order& order);
  void remember(const Order& order);
  void give_next(int64_t pts);

  std::unique_ptr<AVCodecParserContext, CloseParser> m_parser;
  CodecContextPtr m_ctx;
  size_t m_delay;
  std::deque<Frame> m_frames;                     // not taken, in decoding order
  std::set<std::pair<Order, int64_t>> m_waiting;  // without pts, with their number
  int64_t m_first = 0;                            // number of the first frame in m_frames
  int64_t m_sequence = 0;
  std::deque<Order> m_recent;          // of the frames decoded last
  Order m_last{INT64_MIN, INT64_MIN};  // of the frame that was given its pts last
  int64_t m_last_dts = 0;
  int64_t m_step = 0;
};

/// Lets writers expect reordering in H.264 whose profile allows it, whether it is announced or not.
/// @return whether frames of such a stream may come in another order than they are shown
bool announce_reordering(AVCodecParameters* par);

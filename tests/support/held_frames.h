#pragma once

#include "base/presets.h"
#include "support/media_frames.h"
#include "support/stream_setup.h"

namespace meru_test {

/// How many frames the H.264 encoder of a record takes before it returns the first packet.
/// @param limit_usec  as MovieMuxer::limit_encoder_delay
inline int held_frames(const MovieInfo& record, int64_t limit_usec) {
  constexpr int kMost = 500;
  StreamSetup setup;
  setup.muxer()->limit_encoder_delay(limit_usec);
  MovieInfo info = record;
  setup.add(AV_CODEC_ID_H264, &info);
  unset_empty_presets(setup.enc());
  EXPECT_GE(avcodec_open2(setup.enc(), setup.codec(), nullptr), 0);
  const FramePtr frame = make_picture(setup.enc()->pix_fmt, info.width, info.height);
  const PacketPtr packet(av_packet_alloc());
  int held = 0;
  for (; held < kMost; ++held) {
    frame->pts = held;
    EXPECT_GE(avcodec_send_frame(setup.enc(), frame.get()), 0);
    if (avcodec_receive_packet(setup.enc(), packet.get()) >= 0) break;
  }
  return held;
}

}  // namespace meru_test

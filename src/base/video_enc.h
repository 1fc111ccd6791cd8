#pragma once

#include <memory>

#include "base/enc_base.h"
#include "common/books.h"
#include "common/padded_source.h"
#include "common/scaler.h"

/// Encodes images and hands the packets to the writer. Used by the thread that pushes video, and by stop().
class VideoEnc : public EncBase {
 public:
  using EncBase::EncBase;

  /// Opens the encoder that stream setup prepared. Throws std::string when it refuses.
  void open_video(AVFormatContext* oc, const AVCodec* codec, OutputStream* ost, const AVDictionary* opts,
                  const MovieInfo& info);

  /// Encodes one frame, stamped in the encoder's time base; null gives out everything the encoder holds.
  /// @return 1 a packet was written; 0 the encoder kept the frame; when draining the number of packets written;
  ///         -1 no output context; -2 the encoder failed; -3 the writer refused a packet
  ///
  /// A frame that the encoder accepts is passed in `taken`, which may be null; others are dropped there, and reported
  /// once when that is not the host's doing.
  int write_video_frame(AVFormatContext* oc, OutputStream* ost, AVFrame* frame, MR::Taken* taken = nullptr);

  /// Frames that the encoder has accepted and not returned when it is drained are taken back in `books`.
  void keep_books(MR::Ledger* books) { m_books = books; }

  /// The frame itself when it has the encoder's pixel format, else its conversion, valid until the next call. The first
  /// frame that needs a conversion says the size and the format of all that do.
  AVFrame* check_frame_format(OutputStream* ost, AVFrame* frame);

  /// Takes ownership of `filter`; an earlier one is deleted.
  void set_filter(FilterBase* filter) { m_filter.reset(filter); }

  /// The next test picture in the host's format, stamped in `tb`; owned by `ost`. Null when it cannot be made.
  AVFrame* get_video_frame_test(OutputStream* ost, const AVRational& tb);

  /// A frame with buffers, or one without when there is no memory for them; null when not even that can be had.
  static FramePtr alloc_picture(AVPixelFormat fmt, int width, int height);
  /// Paints picture `frame_index` of the test pattern into the top left `width` by `height` pixels of a YUV420P frame.
  static void fill_yuv_image(AVFrame* frame, int frame_index, int width, int height);

 private:
  int encode_frame(OutputStream* ost, const AVFrame* frame, AVPacket* packet, MR::Taken* taken);
  int write_packet(OutputStream* ost, AVPacket* packet);
  void settle_held_frames();
  int drain(OutputStream* ost, AVPacket* packet);
  bool accepts(const OutputStream& ost, const AVFrame& frame) const;
  AVFrame* conversion_target(OutputStream* ost);
  bool paint_test_picture(AVFrame* picture, int frame_index);

  std::unique_ptr<FilterBase> m_filter;
  MR::Ledger* m_books = nullptr;
  int64_t m_held = 0;  // frames that the encoder has accepted and not returned yet
  SwsPtr m_sws;
  SwsPtr m_test_sws;
  ImageFormat m_sws_src;  // what m_sws converts from
  PaddedSource m_padded;
  FramePtr m_spare;  // converted into while somebody else holds the buffers of the encoder's input frame
};

#include "base/video_enc.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string>

#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "common/printf_i64.h"

namespace {

constexpr int kTestPeriodSec = 10;

// The test pattern's state belongs to the process: recordings that run at once share it.
std::mutex g_test_mutex;
int64_t g_test_video = 0;  // guarded by g_test_mutex: seconds at which the pattern starts anew
int g_test_yuv_idx = 0;    // guarded by g_test_mutex: index of the next picture

int next_test_index(int64_t next_pts, AVRational time_base) {
  const std::lock_guard<std::mutex> lock(g_test_mutex);
  if (av_compare_ts(next_pts, time_base, g_test_video, {1, 1}) >= 0) {
    g_test_video += kTestPeriodSec;
    g_test_yuv_idx = 0;
  }
  return g_test_yuv_idx++;
}

[[noreturn]] void end_without_scaler() {
  nuv::print_stderr("Could not initialize the conversion context\n");
  exit(1);
}

uint8_t sample(int value) { return static_cast<uint8_t>(value & 0xff); }

}  // namespace

FramePtr VideoEnc::alloc_picture(AVPixelFormat fmt, int width, int height) {
  FramePtr picture(av_frame_alloc());
  if (picture == nullptr) return nullptr;
  picture->format = fmt;
  picture->width = width;
  picture->height = height;
  if (av_frame_get_buffer(picture.get(), 0) < 0) nuv::print_stderr("Could not allocate frame data.\n");
  return picture;
}

void VideoEnc::open_video(AVFormatContext* /*oc*/, const AVCodec* codec, OutputStream* ost, const AVDictionary* opts,
                          const MovieInfo& info) {
  m_info = info;
  const int ret = open_encoder(codec, ost, opts);
  if (ret < 0) {
    const AvError error(ret);
    nuv::print_stderr("Could not open video codec: %s\n", error.text);
    throw std::string("Could not open video codec: ") + error.text;
  }
  const AVCodecContext* enc = ost->enc.get();
  ost->frame = alloc_picture(enc->pix_fmt, enc->width, enc->height);
  // Without a buffer nothing could be converted into it: the movie would have a stream without pictures.
  if (ost->frame == nullptr || ost->frame->buf[0] == nullptr) {
    nuv::print_stderr("Could not allocate video frame\n");
    throw std::string("Could not allocate video frame");
  }
  // The converters look here for the matrix and the range that the stream is tagged with.
  ost->frame->colorspace = enc->colorspace;
  ost->frame->color_range = enc->color_range;
  ost->tmp_frame.reset();
}

/// The encoder's input frame, or a frame like it while a converter shares the input frame's buffers or the encoder
/// still reads them: those must not change.
AVFrame* VideoEnc::conversion_target(OutputStream* ost) {
  AVFrame* frame = ost->frame.get();
  if (frame->buf[0] == nullptr || av_buffer_get_ref_count(frame->buf[0]) == 1) return frame;
  if (m_spare == nullptr) {
    m_spare = alloc_picture(static_cast<AVPixelFormat>(frame->format), frame->width, frame->height);
    if (m_spare == nullptr || m_spare->buf[0] == nullptr) return nullptr;
  }
  int sharers = 1;
  return make_buffers_free(m_spare.get(), &sharers) ? m_spare.get() : nullptr;
}

AVFrame* VideoEnc::check_frame_format(OutputStream* ost, AVFrame* frame) {
  const AVCodecContext* enc = ost->enc.get();
  if (frame->format == enc->pix_fmt) return frame;
  if (m_sws == nullptr) {
    m_sws_src = {frame->width, frame->height, frame->format};
    m_sws = make_scaler(m_sws_src, {enc->width, enc->height, enc->pix_fmt}, ost->frame->colorspace,
                        ost->frame->color_range);
    if (m_sws == nullptr) end_without_scaler();
  }
  AVFrame* out = conversion_target(ost);
  const AVFrame* readable = out != nullptr ? m_padded.readable(frame, out->width) : nullptr;
  if (readable == nullptr) return nullptr;
  meru_compat::scale(m_sws.get(), readable, out);
  out->pts = frame->pts;
  out->colorspace = frame->colorspace;
  out->color_range = frame->color_range;
  nuv::print_stderr("---------- V pts: %I64d\n", static_cast<long long>(out->pts));
  return out;
}

/// A larger image of the encoder's format is cut by the encoder, but it would read beyond a smaller one, and so would
/// the scaler beyond an image that is not like the first.
bool VideoEnc::accepts(const OutputStream& ost, const AVFrame& frame) const {
  const AVCodecContext* enc = ost.enc.get();
  if (frame.format == enc->pix_fmt) return frame.width >= enc->width && frame.height >= enc->height;
  return m_sws == nullptr ||
         (frame.width == m_sws_src.width && frame.height == m_sws_src.height && frame.format == m_sws_src.format);
}

int VideoEnc::write_packet(OutputStream* ost, AVPacket* packet) {
  --m_held;
  packet->stream_index = ost->st->index;
  const int ret = m_writer->writePacket(&ost->enc->time_base, packet, false);
  av_packet_unref(packet);
  if (ret >= 0) return 1;
  MERU_LOG(2, "[write-packet] error while writing video frame: ret=%d", ret);
  return kPacketRefused;
}

int VideoEnc::write_video_frame(AVFormatContext* oc, OutputStream* ost, AVFrame* frame, MR::Taken* taken) {
  MR::Ledger nowhere;
  MR::Taken uncounted(&nowhere, 1);
  if (taken == nullptr) taken = &uncounted;
  if (oc == nullptr) {
    taken->drop(MR::Drop::kNotStarted);
    return -1;
  }
  AVPacket packet;
  meru_compat::init_packet(&packet);
  if (frame == nullptr) return drain(ost, &packet);
  if (m_filter != nullptr) frame = m_filter->on_video_frame(frame);
  if (frame == nullptr) {
    taken->drop(MR::Drop::kFilter);
    return drain(ost, &packet);
  }
  if (!accepts(*ost, *frame)) {
    MERU_LOG(2, "Error encoding video frame: %s\\n", "the image has not the size and the format that are encoded");
    taken->drop(MR::Drop::kRefused);
    return -2;
  }
  frame = check_frame_format(ost, frame);
  if (frame == nullptr) {
    MR::report_drop("video frame", MR::Drop::kMemory, taken->drop(MR::Drop::kMemory), "it cannot be converted");
    return 0;
  }
  return encode_frame(ost, frame, &packet, taken);
}

int VideoEnc::encode_frame(OutputStream* ost, const AVFrame* frame, AVPacket* packet, MR::Taken* taken) {
  const EncodeResult result = encode(ost->enc.get(), frame, packet);
  if (result.error < 0) {
    MERU_LOG(2, "Error encoding video frame: %s\\n", AvError(result.error).text);
    taken->drop(MR::Drop::kEncoder);
    return -2;
  }
  if (result.accepted) {
    taken->pass();
    ++m_held;
  } else {
    MR::report_drop("video frame", MR::Drop::kEncoder, taken->drop(MR::Drop::kEncoder),
                    "the encoder has been drained and accepts no more");
  }
  return result.got_packet ? write_packet(ost, packet) : 0;
}

int VideoEnc::drain(OutputStream* ost, AVPacket* packet) {
  MERU_LOG(2, "NULL ------------> flush video encoder");
  int written = 0;
  for (;;) {
    const EncodeResult result = encode(ost->enc.get(), nullptr, packet);
    if (result.error < 0) {
      MERU_LOG(2, "Error encoding video frame: %s\\n", AvError(result.error).text);
      settle_held_frames();
      return -2;
    }
    if (!result.got_packet) {
      settle_held_frames();
      return written;
    }
    const int ret = write_packet(ost, packet);
    if (ret < 0) return ret;
    ++written;
  }
}

void VideoEnc::settle_held_frames() {
  if (m_held > 0 && m_books != nullptr) {
    MR::report_drop("video frame", MR::Drop::kEncoder, m_books->take_back(MR::Drop::kEncoder, m_held),
                    "the encoder has not returned all that it accepted");
  }
  m_held = 0;
}

AVFrame* VideoEnc::get_video_frame_test(OutputStream* ost, const AVRational& tb) {
  const int frame_index = next_test_index(ost->next_pts, ost->enc->time_base);
  if (ost->tmp_frame == nullptr) {
    FramePtr picture =
        alloc_picture(static_cast<AVPixelFormat>(m_info.pix_fmt_src), m_info.width_src, m_info.height_src);
    if (picture == nullptr || picture->buf[0] == nullptr) {
      nuv::print_stderr("Could not allocate temporary picture\n");
      return nullptr;
    }
    ost->tmp_frame = std::move(picture);
  }
  AVFrame* picture = ost->tmp_frame.get();
  if (!paint_test_picture(picture, frame_index)) return nullptr;
  picture->pts = av_rescale_q(ost->next_pts, {1, m_info.fps}, tb);
  ++ost->next_pts;
  return picture;
}

bool VideoEnc::paint_test_picture(AVFrame* picture, int frame_index) {
  if (picture->format == AV_PIX_FMT_YUV420P) {
    fill_yuv_image(picture, frame_index, m_info.width, m_info.height);
    return true;
  }
  const ImageFormat src{picture->width, picture->height, AV_PIX_FMT_YUV420P};
  if (m_test_sws == nullptr) {
    // To the size of the frame that is filled, whatever the encoder's: a larger one would not fit into it.
    m_test_sws = make_scaler(src, {picture->width, picture->height, picture->format}, AVCOL_SPC_UNSPECIFIED, 0);
    if (m_test_sws == nullptr) end_without_scaler();
  }
  const FramePtr yuv = alloc_picture(AV_PIX_FMT_YUV420P, src.width, src.height);
  if (yuv == nullptr || yuv->buf[0] == nullptr || av_frame_make_writable(picture) < 0) return false;
  fill_yuv_image(yuv.get(), frame_index, src.width, src.height);
  meru_compat::scale(m_test_sws.get(), yuv.get(), picture);
  return true;
}

void VideoEnc::fill_yuv_image(AVFrame* frame, int frame_index, int width, int height) {
  if (av_frame_make_writable(frame) < 0) exit(1);
  const int w = std::min(width, frame->width);
  const int h = std::min(height, frame->height);
  for (int y = 0; y < h; ++y) {
    uint8_t* luma = frame->data[0] + static_cast<ptrdiff_t>(y) * frame->linesize[0];
    for (int x = 0; x < w; ++x) luma[x] = sample(x + y + frame_index * 3);
  }
  for (int y = 0; y < h / 2; ++y) {
    uint8_t* cb = frame->data[1] + static_cast<ptrdiff_t>(y) * frame->linesize[1];
    uint8_t* cr = frame->data[2] + static_cast<ptrdiff_t>(y) * frame->linesize[2];
    for (int x = 0; x < w / 2; ++x) {
      cb[x] = sample(128 + y + frame_index * 2);
      cr[x] = sample(64 + x + frame_index * 5);
    }
  }
}

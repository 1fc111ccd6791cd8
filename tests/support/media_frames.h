#pragma once

#include <cstring>
#include <stdexcept>
#include <vector>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace meru_test {

/// A picture whose content differs for every `seed` and in every row.
inline FramePtr make_picture(AVPixelFormat format, int width, int height, int seed = 0) {
  FramePtr frame(av_frame_alloc());
  frame->format = format;
  frame->width = width;
  frame->height = height;
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::runtime_error("no picture");
  for (int plane = 0; plane < 4 && frame->data[plane] != nullptr; ++plane) {
    const int row_bytes = av_image_get_linesize(format, width, plane);
    const int rows = plane == 1 || plane == 2 ? (height + 1) / 2 : height;  // 4:2:0 is the only subsampling used here
    for (int y = 0; y < rows; ++y) {
      uint8_t* row = frame->data[plane] + static_cast<ptrdiff_t>(y) * frame->linesize[plane];
      for (int x = 0; x < row_bytes; ++x) {
        row[x] = static_cast<uint8_t>((x * 7 + y * 13 + plane * 50 + seed * 37 + (x * y) / 5) & 0xff);
      }
    }
  }
  return frame;
}

/// The pixels of a picture without the padding of its rows.
inline std::vector<uint8_t> pixels(const AVFrame* frame) {
  const auto format = static_cast<AVPixelFormat>(frame->format);
  const int size = av_image_get_buffer_size(format, frame->width, frame->height, 1);
  std::vector<uint8_t> out(static_cast<size_t>(size));
  if (av_image_copy_to_buffer(out.data(), size, frame->data, frame->linesize, format, frame->width, frame->height, 1) <
      0) {
    throw std::runtime_error("no pixels");
  }
  return out;
}

/// Samples of a rising saw tooth, so that each one can be told from its neighbours.
inline FramePtr make_samples(AVSampleFormat format, uint64_t layout, int rate, int count) {
  FramePtr frame(av_frame_alloc());
  frame->format = format;
  frame->sample_rate = rate;
  frame->nb_samples = count;
  meru_compat::set_layout(frame.get(), layout);
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::runtime_error("no samples");
  const int channels = meru_compat::channels_of(frame.get());
  const bool planar = av_sample_fmt_is_planar(format) != 0;
  const size_t bytes = static_cast<size_t>(count) * static_cast<size_t>(av_get_bytes_per_sample(format)) *
                       static_cast<size_t>(planar ? 1 : channels);
  for (int plane = 0; plane < (planar ? channels : 1); ++plane) std::memset(frame->data[plane], 0, bytes);
  if (format == AV_SAMPLE_FMT_S16) {
    auto* out = reinterpret_cast<int16_t*>(frame->data[0]);
    for (int i = 0; i < count * channels; ++i) out[i] = static_cast<int16_t>(i / channels);
  }
  return frame;
}

}  // namespace meru_test

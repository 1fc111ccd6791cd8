#pragma once

#include "common/ffmpeg_handles.h"

/// One side of a conversion of images.
struct ImageFormat {
  int width = 0;
  int height = 0;
  int format = AV_PIX_FMT_NONE;
};

/// Makes a bicubic scaler from `src` to `dst`.
///
/// When a colour space other than "unspecified" or a colour range is named, the scaler computes with that matrix and
/// range, so that the pixels are what the stream's tags say; images that are YUV already are then taken to be tagged
/// right and keep their values. When neither is named the scaler's defaults hold.
/// Large images are worth several threads: meru_compat::scale uses them.
/// @return null when libswscale cannot convert between the two
SwsPtr make_scaler(const ImageFormat& src, const ImageFormat& dst, int colorspace, int color_range);

/// Gives `frame` new buffers when somebody besides its usual `sharers` still reads the old ones, as encoders that keep
/// their input do. `sharers` is the number of references that hold the buffers when nothing is being encoded.
/// @return false when there is no memory for new buffers; the frame is unchanged then
bool make_buffers_free(AVFrame* frame, int* sharers);

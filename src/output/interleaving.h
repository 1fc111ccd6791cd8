#pragma once

#include <cstdint>

#include "common/ffmpeg_handles.h"
#include "output/encoder_delay.h"

namespace MR {

/// How long the interleaving of an output waits for a stream that delivers nothing: never less than what the encoders
/// hold, or what they return would be written after later packets of the other stream. A second, but of an MP4 with an
/// index a tenth of it; of that nothing is kept from the disk because an encoder has returned nothing at all yet.
/// @return microseconds for max_interleave_delta; 0 = FFmpeg's own
int64_t interleave_usec(const AVFormatContext* ctx, bool live, bool indexed, const EncoderDelay& delay);

}  // namespace MR

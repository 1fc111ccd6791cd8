#pragma once

#include "common/ffmpeg_handles.h"

namespace MR {

/// Replaces what is no number by silence, and bounds what is far from any audible level, in the first `nb_samples`
/// samples of a frame of floating point. Encoders count on it: LAME ends the process.
void make_finite(AVFrame* frame, int nb_samples);

}  // namespace MR

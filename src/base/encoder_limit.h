#pragma once

#include "common/ffmpeg_handles.h"

/// How many frames an encoder may hold so that no more than `limit_usec` are missing at any moment: one frame is always
/// on its way to the file.
int frames_within(int64_t limit_usec, AVRational frame_rate);

/// Bounds how many frames an encoder holds that is set up, presets included, and not open yet. For libx264 the
/// look-ahead is shortened and slices replace frames as what its threads share; other encoders hold B-frames at most.
/// Hardware encoders are left as they are.
void limit_held_frames(AVCodecContext* enc, int frames);

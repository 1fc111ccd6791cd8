#pragma once

#include "common/ffmpeg_handles.h"
#include "meru/movie_info.h"

/// The option text of a value; empty for "nothing is asked for" and for values outside the table.
const char* preset_to_str(Quality_Level q);
const char* profile_to_str(Profile_Level p);
const char* tune_to_str(Tune_Level t);

/// The value of an option text, compared exactly. Unknown texts give "veryfast", "baseline" and "zerolatency".
Quality_Level preset_from_str(const char* text);
Profile_Level profile_from_str(const char* text);
Tune_Level tune_from_str(const char* text);

/// Sets the encoder's private options "preset", "profile" and "tune". An encoder that lacks one keeps its default.
/// @return the result of the last setting
int fastRealTime(AVCodecContext* ctx, Quality_Level q, Profile_Level p, Tune_Level t);

/// Unsets those of the three options that are empty texts. The H.264 encoder refuses to open with an empty profile,
/// while an unset one means what an empty text means here: nothing is asked for.
void unset_empty_presets(AVCodecContext* ctx);

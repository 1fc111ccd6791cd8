#pragma once

#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

/// Replaces the extradata of `par`; empty bytes change nothing. @return 0 or a negative error, with nothing changed
int set_extradata(AVCodecParameters* par, const std::string& bytes);

/// The AudioSpecificConfig of AAC-LC, for sound whose own description is not at hand.
/// @return nothing when the channels cannot be expressed
std::string aac_config(int sample_rate, int channels);

#pragma once

#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

/// @return the NAL units of `annex_b`, each behind a start code of four bytes, whether it had three or four
std::string with_long_start_codes(const std::string& annex_b);

/// Gives H.264 parameters in Annex B start codes of four bytes, as encoders write them. FFmpeg's finder of parameters
/// leaves three, which a side index must not hold: its readers look for four.
/// @return 0 or a negative error
int lengthen_start_codes(AVCodecParameters* par);

#pragma once

#include <cstddef>
#include <cstdint>
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

/// @return whether a packet is H.264 as movies keep it (a length before each NAL unit, or the parameter record of such
/// a stream) instead of with start codes. Nothing that begins with a start code is.
bool looks_length_prefixed(const uint8_t* data, size_t size);

/// @return whether an access unit with start codes is an IDR frame
bool begins_sequence(const uint8_t* data, size_t size);

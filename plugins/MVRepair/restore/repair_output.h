#pragma once

#include <memory>
#include <string>

#include "MVRepair/restore/moov_parser.h"
#include "common/ffmpeg_handles.h"

/// Closes the output's file, if it has one open, and frees the context.
struct CloseOutput {
  void operator()(AVFormatContext* oc) const noexcept;
};
using OutputPtr = std::unique_ptr<AVFormatContext, CloseOutput>;

/// Makes the movie that a repair writes: one stream for each that the index describes, the file open, the header
/// written. What fails is said on standard error.
/// @param broken, moov  paths that the output must not be
/// @param out           receives the output, also when a later step fails
/// @return 0 or FFmpeg's negative error
int open_repair_output(const char* output, const std::string& broken, const std::string& moov, const MVHeader& header,
                       OutputPtr* out);

#pragma once

#include <memory>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

namespace MR {

/// An output context with the private copy of its format that it works on.
struct ClonedContext {
  std::unique_ptr<meru_compat::OutputFormatCopy> format;  // outlives the context
  FormatContextPtr context;
};

/// Makes an output context with the streams of `src` for `url`. Opens nothing.
/// @param interrupt  of the I/O that is done for it
/// @return 0; -1 or a negative FFmpeg error, with `*out` empty
int clone_context(const AVFormatContext* src, const char* url, int timeout_sec, AVIOInterruptCB interrupt,
                  ClonedContext* out);

/// Opens the I/O of a context, unless its format opens its own. @return 0 or a negative FFmpeg error
int open_io(AVFormatContext* ctx, const char* url, int timeout_sec);

}  // namespace MR

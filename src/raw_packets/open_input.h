#pragma once

#include <memory>

#include "common/ffmpeg_handles.h"
#include "raw_packets/expected.h"
#include "raw_packets/input_buffer.h"

/// Frees an I/O context of our own and its buffer, which FFmpeg may have replaced by a larger one.
struct CloseReadIo {
  void operator()(AVIOContext* io) const noexcept;
};
using ReadIoPtr = std::unique_ptr<AVIOContext, CloseReadIo>;

/// Closes a demuxer that reads through an I/O context of our own, and that context.
struct CloseInput {
  void operator()(AVFormatContext* ctx) const noexcept;
};
using InputContextPtr = std::unique_ptr<AVFormatContext, CloseInput>;

/// Read callback of the demuxers; `opaque` is the InputBuffer. Waits for the host's packets, and never with bytes in
/// hand: a packet is read as soon as it is there. @return how many bytes, AVERROR_EOF when there are no more, or when
/// the buffer gave way to the other medium
int avio_read_buffer(void* opaque, unsigned char* buf, int size);

/// Opens a demuxer of the named FFmpeg format over a buffer. Returns when so much of the stream has come that its
/// parameters are known, or when it has ended.
/// @param other  the buffer of the other medium, or null: once it is full, the first picture with its parameter sets,
/// or
///               the first frame of sound, is enough. The demuxer has then met an end and is to be resumed
/// @return the demuxer, to be closed by an InputContextPtr; or the error that the host is told
nuv::Expected_<AVFormatContext*> open_input_buffer(InputBuffer* ib, const char* format, InputBuffer* other = nullptr);

/// Lets a demuxer read on whose buffer gave way.
void resume_input(AVFormatContext* ctx);

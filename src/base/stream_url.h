#pragma once

#include <string>

#include "common/ffmpeg_handles.h"

/// Addresses of outputs: what kind of output one means, what of it may be printed, how its connection is set up.
namespace MR {

/// @return whether `url` begins with "rtmp://"
bool isRtmpStream(const char* url);
/// @return whether `url` begins with "rtsp://"
bool isRtspStream(const char* url);
/// @return whether `url` is an address of a live stream rather than a file
bool isLiveStream(const char* url);

/// @return the container for a further output's address, or null
const AVOutputFormat* further_format(const char* url);

/// @return `url` fit for a log: the last path element of an RTMP address, a secret key, and a password become "***"
std::string public_url(const char* url);

/// Makes an RTSP output use TCP, and bounds its reads and writes when `timeout_sec` is positive.
void set_rtsp_options(AVFormatContext* ctx, int timeout_sec);
/// I/O options of an output: bounds each network read and write by `timeout_sec` when that is positive.
DictionaryPtr io_options(const char* url, int timeout_sec);

/// Logs that an output has failed, at level 2, as "further output 1 (rtmp://host/app/***) failed: Connection refused".
/// @param number  the place of a further output in the record, from 1; 0 for the main output
/// @param error   FFmpeg's
void log_failed_output(int number, const char* url, int error);
/// Logs that an output takes packets from now on, at level 4, as "main output (movie.mp4) is open".
void log_open_output(int number, const char* url);

}  // namespace MR

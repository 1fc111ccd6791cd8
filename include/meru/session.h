/// @file session.h
/// What sessions offer beyond the functions of the other headers.
#ifndef MERU_SESSION_H
#define MERU_SESSION_H

#include "meru/export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

/// Pushes one packet of video with both its timestamps, to a session that was started with MERU2_start. Video with
/// B-frames, whose frames are decoded in another order than they are shown, is recorded with exactly these timestamps.
///
/// The packet is one access unit of an Annex B stream, and the packets come in decoding order: nothing is held back and
/// put into another order. All video of a session is pushed either with this function or with
/// MERU2_write_video_packet. Of a session that mixes them, frames whose pts does not rise may be dropped when the
/// stream announces no B-frames.
///
/// @param session  handle from MERU2_start; null is allowed and does nothing
/// @param data     the packet, copied; null does nothing
/// @param size     bytes of it; 0 and less is as a null `data`
/// @param pts      when the frame is shown, in microseconds; one before `dts` is raised to it
/// @param dts      when it is decoded, in microseconds. It rises from packet to packet; a packet for which it does not
///                 is dropped, with a line in the log for the first one
/// @return false for a null session, else true, also when the packet was dropped because the session has failed or has
///         no video
/// @threads one pushing thread for video; audio may be pushed from another. Waits while 500 packets wait to be written
MERU_API bool MERU2_write_video_packet_ts(void* session, void* data, int size, long long pts, long long dts);

#endif

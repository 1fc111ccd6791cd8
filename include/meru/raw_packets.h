/// @file raw_packets.h
/// Recording packets that are already encoded, H.264 and AAC, into a movie file or a live stream without encoding them
/// again.
///
/// A host fills a MovieInfo2, calls MERU2_start, pushes each packet with its time stamp, and ends with MERU2_stop.
/// Every packet pushed before MERU2_stop is in the output, in the order of the stamps, but for what is damaged or late:
/// sound with a broken header, and bytes in which no packet is found, are dropped with a line in the log.
///
/// A packet of video is one access unit of an Annex B stream (start codes, parameter sets in the stream); a packet of
/// audio is one ADTS frame. The packets of each medium are read as one stream of bytes and found in it again, each with
/// the timestamp of the pushed packet in which it begins; damage moves no timestamp of what follows. Other formats that
/// FFmpeg reads under a name may do, too.
///
/// Video with B-frames is pushed in decoding order, with timestamps that rise from packet to packet: they are taken as
/// dts, and the pts are found from the order in which the frames are shown. Timestamps that fall, such as the pts of
/// these packets, end the session with -22. Hosts that have both timestamps use MERU2_write_video_packet_ts, see
/// session.h.
///
/// A packet with a timestamp below 0 lies before the beginning of the movie: MP4 and MOV keep it, but it is not shown.
///
/// Stamps are microseconds from the beginning of the movie, on one clock for video and audio; a movie whose stamps
/// begin far from 0 begins with a gap as long. Packets of a medium may come out of order by up to six. A stamp that is
/// still waiting in the same medium counts as one microsecond later. A packet that comes later than that, and so is not
/// later than one that is written, is dropped; the first one has a line in the log.
///
/// In a forked child the sessions of its parent count as null, and MERU2_stop on one returns at once.
///
/// Threads: one thread may push video while another pushes audio, or one does both. Nothing may be pushed to a session
/// while MERU2_stop runs on it. A push waits while 500 packets of its medium wait to be written: when the output is
/// slow, and until each medium that the record announces has begun. So a host that pushes both from one thread must not
/// begin with 500 packets of one. Packets are written in the order of their stamps; a medium that rests, or has ended,
/// holds the other one up until 500 of its packets wait, and from then on no more. What comes of it later is written
/// with the stamps that it has.
#ifndef MERU_RAW_PACKETS_H
#define MERU_RAW_PACKETS_H

#include "meru/export.h"
#include "meru/movie_info.h"

#ifdef __cplusplus
#include <cstddef>
#else
#include <stdbool.h>
#include <stddef.h>
#endif

/// Description of a session of packets.
///
/// Plain data, 1328 bytes, copied whole by MERU2_start: the host's record may be freed afterwards. The strings behind
/// its pointers must live until MERU2_stop has returned. Zero the record before filling it.
struct MovieInfo2 {
  /// Main output: a file path (UTF-8), or an address. The container follows from the extension; it is FLV when the text
  /// holds "rtmp://", and RTSP over TCP when it begins with "rtsp://" (lower case).
  char url[512];
  char snapshot_path[512];    ///< side index for repair after a crash; empty = none
  char metadata[256];         ///< container metadata, "key:value;key:value"; empty = none
  const char* other_urls[4];  ///< up to four further outputs of the same packets; ends at the first null
  const char* video_format;   ///< FFmpeg's name of the video packets' format, "h264"; null or empty = no video
  const char* audio_format;   ///< FFmpeg's name of the audio packets' format, "aac"; null or empty = no audio
};
typedef struct MovieInfo2 MovieInfo2;  ///< for hosts in C

#ifdef __cplusplus

/// Starts a session. Returns at once: outputs are opened on a thread of the library.
///
/// @param info  the description, copied
/// @param cb    told how the session fares, on threads of the library; may be null. It may call any exported function,
///              MERU2_stop on its own session included, and must not throw. It may take long: pushes to the session
///              go on meanwhile as when its output is slow. Nothing is read while code 0 is told, so no more than 500
///              packets of a medium can be pushed from inside it, or before a thread that it waits for returns. A
///              medium still has one pushing thread. Codes:
///              0 "start success": the output is open (RTSP connects later, with the header);
///              -5 "failed to writing header": the container or an RTSP server refused the streams;
///              negative FFmpeg codes otherwise: the output cannot be opened or has no known container, an input's
///              format is unknown, an input ended before enough of it came to open it, or the main output failed
///              while packets were written (with FFmpeg's text alone then), or there is no memory or thread left;
///              -22 (EINVAL), with a text that says which, for packets that cannot be recorded: H.264 with length
///              fields (AVCC) instead of start codes, 8 MiB in which no parameters of the stream are found, or
///              timestamps that fall in video with B-frames. After a negative code nothing more is recorded: pushes
///              return at once, and drop what they are given.
/// @param user  handed to `cb` unchanged
/// @return the session, to be ended with MERU2_stop even when it fails; null only when there is no memory for it. When
///         the system gives no thread there is a session, too: `cb` has then been told so, with the system's error as a
///         negative code, when the call returns
MERU_API void* MERU2_start(const MovieInfo2& info, MovieStatusCallback cb, void* user);

/// Pushes one packet.
///
/// @param session  handle from MERU2_start; null is allowed and does nothing
/// @param data     the packet, copied. Null asks for packets that are held back for reordering to be passed on
/// @param size     bytes of it; 0 and less is as a null `data`
/// @param pts      time stamp in microseconds
/// @return false for a null session, else true, also when the packet was dropped because the session has failed or its
///         medium is not announced
/// @threads one pushing thread for video; audio may be pushed from another. Waits while 500 packets wait to be written
MERU_API bool MERU2_write_video_packet(void* session, void* data, int size, long long pts);
/// As MERU2_write_video_packet, for audio.
MERU_API bool MERU2_write_audio_packet(void* session, void* data, int size, long long pts);

/// Ends a session: writes all that was pushed, completes the file, closes every output, frees the session.
///
/// `*session` is set to null first; a null `session` or `*session` is allowed. A file always gets its trailer. A live
/// output gets 5 seconds to take what is pending. No callback runs once the call has returned; what an input that got
/// too little leads to is told before that. From inside a callback of the same session it returns at once, and the
/// session is completed on a thread of the library. When the system cannot be kept from waiting (for a name look-up,
/// for a pipe that nobody reads) it returns after a few seconds: a session that writes a file is then given up, with
/// the files that it has created closed and removed; any other is completed when the wait is over.
MERU_API void MERU2_stop(void** session);

#else  // plain C: the same functions under their plain names, references as pointers

MERU_API void* MERU2_start(const MovieInfo2* info, MovieStatusCallback cb, void* user);
MERU_API bool MERU2_write_video_packet(void* session, void* data, int size, long long pts);
MERU_API bool MERU2_write_audio_packet(void* session, void* data, int size, long long pts);
MERU_API void MERU2_stop(void** session);

#endif

#define MERU_ASSERT_OFFSET(field, value) MERU_ASSERT_LAYOUT(offsetof(struct MovieInfo2, field) == (value))
MERU_ASSERT_LAYOUT(sizeof(struct MovieInfo2) == 1328);
MERU_ASSERT_OFFSET(url, 0);
MERU_ASSERT_OFFSET(snapshot_path, 512);
MERU_ASSERT_OFFSET(metadata, 1024);
MERU_ASSERT_OFFSET(other_urls, 1280);
MERU_ASSERT_OFFSET(video_format, 1312);
MERU_ASSERT_OFFSET(audio_format, 1320);
#undef MERU_ASSERT_OFFSET

#endif

/// @file recording.h
/// Recording raw images and sound into a movie file, and into further files or live streams.
///
/// A host fills a MovieInfo, calls MERU_start, waits for status code 0, pushes images and samples, and ends with
/// MERU_stop. Every function accepts a null session and then returns 0, false or null.
///
/// Times are microseconds on the clock of MERU_current_sys_usec. The first image or sample ever pushed fixes time 0 of
/// the movie, even when it is dropped because the start is not confirmed yet; paused time is taken out.
///
/// Threads: one thread may push video while another pushes audio. Pausing, resuming and the read-outs may come from any
/// thread. Nothing may be pushed to a session while MERU_stop runs on it.
///
/// A forked child has none of the library's threads: the sessions of its parent count as null in it, and MERU_stop on
/// one returns at once, without touching its outputs or freeing its memory. A child may start sessions of its own.
///
/// When no encoder exists for the movie's container, when the audio encoder cannot be opened, or when a scaling context
/// or a frame cannot be made, the library ends the process with exit status 1. A video encoder that refuses its
/// settings (an odd picture size with YUV420P, a frame rate of 0) leaves the session not started, with a line on
/// standard error and no callback.
#ifndef MERU_RECORDING_H
#define MERU_RECORDING_H

#include "meru/export.h"
#include "meru/movie_info.h"

/// FFmpeg's frame and packet. A host that only pushes buffers needs nothing of them.
struct AVFrame;
struct AVPacket;
/// FFmpeg's rational number: `struct AVRational { int num; int den; };`. A host without FFmpeg's headers
/// completes it so.
struct AVRational;

#ifdef __cplusplus

/// A host's own look at, or change of, what is recorded. Implemented by the host.
///
/// Its functions run inside a push, or inside MERU_stop, and hold that up for as long as they take. They must not
/// throw. They may call any exported function on other sessions. On their own session they may pause, resume, read out,
/// set the audio filter, and push the medium that is not being pushed (when the host pushes both from this thread);
/// they must not push the medium that is, replace the video filter from inside itself, or call MERU_stop. Inside
/// MERU_stop nothing may be called with the session's handle any more.
class FilterBase {
 public:
  /// Runs on the thread that replaces a video filter, or on that of MERU_stop (a thread of the library when MERU_stop
  /// was called in a status callback).
  virtual ~FilterBase() = default;
  /// Sees each encoded audio packet just before it is written, in the encoder's time base. The result is ignored.
  /// Runs on the thread that pushes audio, and on the thread of MERU_stop for the last packets.
  virtual int on_audio_packet(AVPacket* packet) = 0;
  /// Sees each image before it is encoded and returns the one to encode: the same, or another that stays valid until
  /// the next call. Null makes the encoder give out everything that it holds. Runs on the thread that pushes video.
  virtual AVFrame* on_video_frame(AVFrame* frame) = 0;
};

/// Starts a recording.
///
/// @param info      the description, copied
/// @param cb        told 0 "start OK", or why the start or the main output failed; may be null
/// @param user      handed to `cb` unchanged
/// @param out_info  receives the session's own record, with the values that the encoders made of it when the start is
///                  over; may be null
/// @param async     true: outputs are opened on a thread of the library and the call returns at once; false: the
///                  outcome has been reported when the call returns
/// @return the session, to be ended with MERU_stop even when the start fails; null only when there is no memory for it
MERU_API void* MERU_start(const MovieInfo& info, MovieStatusCallback cb, void* user, MovieInfo* out_info, bool async);

/// Ends a recording: encodes what is pending, completes the file, closes every output, frees the session.
///
/// `*session` is set to null first; a null `session` or `*session` is allowed. A file always gets its trailer. A live
/// output gets `timeout_sec` seconds (5 when that is 0) to take what is pending. During an asynchronous start the
/// call interrupts the start; files that the start has created are closed and removed when it returns, and nothing of
/// that start touches a file afterwards. No callback runs once it has returned. From inside a status
/// callback of the same session it returns at once, and the recording is completed on another thread, without the audio
/// filter. A push that blocks because a live output has stalled must end first: set `timeout_sec`, so that it does. A
/// push of silence that is still running ends early.
MERU_API void MERU_stop(void** session);

/// Pauses: what is pushed is dropped until MERU_resume, and that time does not appear in the movie.
/// A second pause without a resume moves the start of the pause to now.
/// @return whether the recording has started
MERU_API bool MERU_pause(void* session);
/// Ends a pause. @return true when a pause was open
MERU_API bool MERU_resume(void* session);
/// @return whether a pause is open
MERU_API bool MERU_is_paused(void* session);

/// @return how much is recorded, in microseconds: the time of the last image, or of the last samples without video
MERU_API long long MERU_movie_time(void* session);

/// Records one image.
///
/// The image is converted and encoded before the call returns, so the buffer is the caller's again afterwards.
/// @param session   handle from MERU_start; null is allowed and does nothing
/// @param bgra      first byte of the top row, `width_src` by `height_src` pixels of `pix_fmt_src`; the planes of a
///                  planar format follow each other without gaps. Nothing is read after the last pixel of the last
///                  row. Null is refused
/// @param nbytes    size of the image in bytes; only logged
/// @param pts_usec  capture time in microseconds on the clock of MERU_current_sys_usec
/// @param linesize  bytes from one row to the next, at least 4 * width_src for BGRA; less is refused. Of a planar
///                  format, that of the first plane; the other planes have the strides of an image whose rows fill
///                  `linesize` with pixels: for 4:2:0 half of it, rounded up; for the second plane of NV12 `linesize`,
///                  rounded up to an even number
/// @return nonzero when the image was taken to be encoded; 0 when it was dropped: not started, paused, no video, or
///         refused. An image whose stamp does not lie a frame after the last one's is taken and then left out
/// @threads one pushing thread for video; audio may be pushed from another. Blocks while an output's queue is full:
///          that is how a slow output holds the host back
MERU_API int MERU_write_video_bgra(void* session, void* bgra, int nbytes, long long pts_usec, int linesize);

/// Records samples: interleaved PCM of `channels`, `sample_fmt` and `sample_rate_src`.
///
/// @param session   handle from MERU_start; null is allowed and does nothing
/// @param pcm       the samples, the caller's again afterwards; null appends silence as long as from the `pts_usec` of
///                  the push before (time 0 when there is none) to this one. That is the time of a buffer's first
///                  sample: to fill a gap, add the length of the gap to it. Before the first samples, null with their
///                  `pts_usec` brings them to exactly their time
/// @param nbytes    size in bytes; an incomplete sample at the end is ignored
/// @param pts_usec  capture time of the first sample. Samples follow each other without gaps: it counts for the first
///                  ones after a pause, and where it is half a second or more away from the count of samples
/// @return nonzero when the samples completed at least one frame of the encoder; 0 when they are kept for the next one,
///         or were dropped: not started, paused, no audio, or refused
/// @threads one pushing thread for audio. Blocks while an output's queue is full
MERU_API int MERU_write_audio_pcm(void* session, void* pcm, int nbytes, long long pts_usec);

/// Records an image that is an FFmpeg frame of `width_src` by `height_src` pixels in `pix_fmt_src`.
/// @param session  handle from MERU_start; null is allowed and does nothing
/// @param frame    stays the caller's; its `pts` is overwritten; its pixels are not. Null is refused
/// @param tb       time base of the frame's `pts`
/// @return as MERU_write_video_bgra
MERU_API int MERU_write_video_frame(void* session, AVFrame* frame, const AVRational& tb);
/// Records samples that are an FFmpeg frame of `channels`, `sample_fmt` and `sample_rate_src`.
/// @param session  handle from MERU_start; null is allowed and does nothing
/// @param frame    stays the caller's; its `pts` is overwritten. Null is refused
/// @param tb       time base of the frame's `pts`
/// @return as MERU_write_audio_pcm
MERU_API int MERU_write_audio_frame(void* session, AVFrame* frame, const AVRational& tb);

/// Lets `filter` see the audio packets, instead of an earlier filter. It stays the host's and must outlive the session.
/// @return false for a null session, else true; nothing happens before the start is confirmed or without audio
MERU_API bool MERU_add_audio_filter(void* session, FilterBase* filter);
/// Lets `filter` see and replace the images. The session owns it from here on and deletes it with `delete`; an earlier
/// filter is deleted now. Call it on the thread that pushes video, or before the first image.
/// @return false for a null session, else true; before the start is confirmed or without video nothing happens and the
///         filter stays the host's
MERU_API bool MERU_add_video_filter(void* session, FilterBase* filter);

/// @return the frame that the audio encoder is fed from, owned by the session; null before the start is confirmed or
///         without audio
MERU_API AVFrame* MERU_audio_dst_frame(void* session);
/// @return the frame that the video encoder is fed from, owned by the session; null before the start is confirmed or
///         without video
MERU_API AVFrame* MERU_video_dst_frame(void* session);

/// Copies the session's record, with the values that the encoders made of it, to `*out`, which must not be null.
/// @return whether the recording has started
MERU_API bool MERU_get_mInfo(void* session, MovieInfo* out);

/// @return the library's clock in microseconds: monotonic, in the neighbourhood of the wall clock
MERU_API long long MERU_current_sys_usec();

/// @return the time of the last encoded samples in microseconds, or without any that of the last image; negative when
///         there is none
MERU_API long long MERU_last_usec_pts(void* session);

/// Makes the next picture of a moving test pattern in the host's format, stamped in `tb` from 0 at the frame rate.
/// @return a frame owned by the session, overwritten by the next call; null before the start is confirmed, without
///         video, or when it cannot be made. To be pushed with MERU_write_video_frame
MERU_API AVFrame* MERU_generate_testing_vFrame(void* session, const AVRational& tb);
/// Makes the next piece of a gliding test tone, signed 16-bit samples, stamped in `tb` from 0.
/// @return a frame owned by the session, overwritten by the next call; null as above. For MERU_write_audio_frame
MERU_API AVFrame* MERU_generate_testing_aFrame(void* session, const AVRational& tb);

#else  // plain C: the same functions under their plain names, references as pointers

typedef struct FilterBase FilterBase;

MERU_API void* MERU_start(const MovieInfo* info, MovieStatusCallback cb, void* user, MovieInfo* out_info, bool async);
MERU_API void MERU_stop(void** session);
MERU_API bool MERU_pause(void* session);
MERU_API bool MERU_resume(void* session);
MERU_API bool MERU_is_paused(void* session);
MERU_API long long MERU_movie_time(void* session);
MERU_API int MERU_write_video_bgra(void* session, void* bgra, int nbytes, long long pts_usec, int linesize);
MERU_API int MERU_write_audio_pcm(void* session, void* pcm, int nbytes, long long pts_usec);
MERU_API int MERU_write_video_frame(void* session, struct AVFrame* frame, const struct AVRational* tb);
MERU_API int MERU_write_audio_frame(void* session, struct AVFrame* frame, const struct AVRational* tb);
MERU_API bool MERU_add_audio_filter(void* session, FilterBase* filter);
MERU_API bool MERU_add_video_filter(void* session, FilterBase* filter);
MERU_API struct AVFrame* MERU_audio_dst_frame(void* session);
MERU_API struct AVFrame* MERU_video_dst_frame(void* session);
MERU_API bool MERU_get_mInfo(void* session, MovieInfo* out);
MERU_API long long MERU_current_sys_usec(void);
MERU_API long long MERU_last_usec_pts(void* session);
MERU_API struct AVFrame* MERU_generate_testing_vFrame(void* session, const struct AVRational* tb);
MERU_API struct AVFrame* MERU_generate_testing_aFrame(void* session, const struct AVRational* tb);

#endif

#endif

/// @file movie_info.h
/// The record that describes a recording, its enumerations, the status codes and the status callback.
#ifndef MERU_MOVIE_INFO_H
#define MERU_MOVIE_INFO_H

#include "meru/export.h"

#ifdef __cplusplus
#include <cstddef>
#else
#include <stdbool.h>
#include <stddef.h>
#endif

/// Encoder speed presets for MovieInfo_::preset; named after the option texts of the H.264 software encoder.
enum Quality_Level {
  QUALITY_ULTRAFAST = 0,
  QUALITY_SUPERFAST = 1,
  QUALITY_VERYFAST = 2,
  QUALITY_FASTER = 3,
  QUALITY_FAST = 4,
  QUALITY_MEDIUM = 5,
  QUALITY_SLOW = 6,
  QUALITY_SLOWER = 7,
  QUALITY_VERYSLOW = 8,
  QUALITY_PLACEBO = 9,
  QUALITY_NONE = 10  ///< nothing is asked for: the encoder's own default
};

/// H.264 profiles for MovieInfo_::profile.
enum Profile_Level {
  PROFILE_BASELINE = 0,
  PROFILE_MAIN = 1,
  PROFILE_HIGH = 2,
  PROFILE_HIGH10 = 3,
  PROFILE_HIGH422 = 4,
  PROFILE_HIGH444 = 5,
  PROFILE_NONE = 6  ///< nothing is asked for
};

/// Encoder tunings for MovieInfo_::tune.
enum Tune_Level {
  TUNE_FILM = 0,
  TUNE_ANIMATION = 1,
  TUNE_GRAIN = 2,
  TUNE_STILLIMAGE = 3,
  TUNE_PSNR = 4,
  TUNE_SSIM = 5,
  TUNE_FASTDECODE = 6,
  TUNE_ZEROLATENCY = 7,
  TUNE_NONE = 8  ///< nothing is asked for
};

/// Rate control modes for MovieInfo_::rate_control; every value but 0, 1 and 3 means VBR.
enum Rate_Control {
  RATE_CONTROL_ABR = 0,
  RATE_CONTROL_CBR = 1,
  RATE_CONTROL_VBR = 2,
  RATE_CONTROL_CQP = 3,
};

/// Codes that the start of a recording reports through MovieStatusCallback. A negative code is an FFmpeg error code of
/// the main output's writing thread, with FFmpeg's text for it.
enum MovieStatusCode {
  MERU_STATUS_OK = 0,             ///< "start OK": images and samples are taken from now on
  MERU_STATUS_NO_CONTEXT = 10,    ///< no output context could be made
  MERU_STATUS_OPEN_FAILED = 11,   ///< "Could not open url": folder missing, no permission, server refused ...
  MERU_STATUS_NO_FORMAT = 12,     ///< no container could be guessed from the url
  MERU_STATUS_BAD_RECORD = 13,    ///< the record cannot be recorded, for the reason that the text gives
  MERU_STATUS_HEADER_FAILED = 21  ///< "error occurred when write header": the container refused the streams
};

/// Description of a recording.
///
/// Plain data, 1424 bytes, copied whole by MERU_start: the host's record is never written and may be freed afterwards.
/// Only the strings behind `other_urls` must live until MERU_stop. The library sets no defaults: fill every field,
/// best after zeroing the record. Enumerations of FFmpeg are plain ints with FFmpeg's values.
struct MovieInfo_ {
  /// Main output: a file path (UTF-8), or an address beginning "rtmp://" or "rtsp://" (lower case). The container of a
  /// file follows from its extension; a path whose extension says nothing becomes an MP4. A ".flv" file (any case)
  /// gets the audio encoder's first supported sample rate.
  char url[512];
  /// Side index for repair after a crash, which costs what the encoder holds (nothing with TUNE_ZEROLATENCY) and half a
  /// second; empty = none; ignored for "rtsp://".
  char snapshot_path[512];
  char metadata[256];         ///< container metadata, "key:value;key:value"; empty = none
  const char* other_urls[4];  ///< up to four further outputs of the same packets; ends at the first null

  bool no_audio;               ///< true: no audio stream
  unsigned char reserved1[3];  ///< not read
  int a_bitrate;               ///< audio bit rate in kbit/s
  int sample_rate_src;         ///< Hz of the pushed PCM
  int sample_rate_dst;         ///< Hz of the encoded audio; replaced by a rate that the encoder supports
  int channels;                ///< channels of the pushed PCM (the encoded audio is stereo wherever possible)
  int sample_fmt;              ///< AVSampleFormat of the pushed PCM (1 = signed 16 bit interleaved)

  bool no_video;               ///< true: no video stream
  unsigned char reserved2[3];  ///< not read
  int rate_control;            ///< Rate_Control
  int v_bitrate;               ///< video bit rate in kbit/s; 0 = chosen from size and frame rate, or by the encoder
  int width;                   ///< encoded width in pixels (even for 4:2:0 formats)
  int height;                  ///< encoded height in pixels (even for 4:2:0 formats)
  int width_src;               ///< width of the pushed images in pixels
  int height_src;              ///< height of the pushed images in pixels
  int fps;                     ///< frames per second; replaced by a rate that the encoder supports
  int gop_size;                ///< frames from one key frame to the next
  int pix_fmt_src;             ///< AVPixelFormat of the pushed images (28 = BGRA)
  int pix_fmt;                 ///< AVPixelFormat given to the encoder (0 = YUV420P, 23 = NV12)
  int color_primaries;         ///< AVColorPrimaries, 0 = not said
  int color_trc;               ///< AVColorTransferCharacteristic, 0 = not said
  int colorspace;              ///< AVColorSpace, 2 = not said (0 means RGB and is passed on as such)
  int color_range;             ///< AVColorRange, 0 = not said, 1 = limited, 2 = full
  int preset;                  ///< Quality_Level
  int profile;                 ///< Profile_Level
  int tune;                    ///< Tune_Level
  bool use_hardware;           ///< try a hardware H.264 encoder; in the library's copy: whether one is used
  unsigned char reserved3[3];  ///< not read
  int crf;                     ///< CBR only: 1..51 sets the encoder option "crf", other values are ignored
  int qp;                      ///< CQP only: 1..51 sets the encoder option "qp", other values are ignored
  int timeout_sec;             ///< seconds for each "rtmp://" and "rtsp://" I/O; 0: a stalled server holds pushes back

#ifdef __cplusplus
  /// @return whether the main output or one of the further outputs (up to the first null) begins with "rtmp://".
  MERU_EXPORT bool hasRtmpStream() const;
#endif
};
typedef struct MovieInfo_ MovieInfo;  ///< the name that hosts use

/// Reports how a recording fares. Called on threads of the library, never after MERU_stop has returned.
///
/// @param code  0 = started; MovieStatusCode of a failed start; negative = the main output failed while recording
/// @param msg   English text, valid only during the call
/// @param user  the pointer given to MERU_start, unchanged
///
/// The callback may call any exported function, on its own session and on others, MERU_stop on its own included; a
/// session still has one pushing thread for each medium, so it pushes only while the host's other threads do not. It
/// must not throw. It may take long: that holds up neither pushes nor other sessions, but in a synchronous start
/// MERU_start, and MERU_stop from another thread, which waits for it.
typedef void (*MovieStatusCallback)(int code, const char* msg, void* user);

#ifdef __cplusplus
#define MERU_ASSERT_LAYOUT(expr) static_assert(expr, "binary layout of the record is fixed")
#else
#define MERU_ASSERT_LAYOUT(expr) _Static_assert(expr, "binary layout of the record is fixed")
#endif
#define MERU_ASSERT_OFFSET(field, value) MERU_ASSERT_LAYOUT(offsetof(struct MovieInfo_, field) == (value))
MERU_ASSERT_LAYOUT(sizeof(struct MovieInfo_) == 1424);
MERU_ASSERT_OFFSET(url, 0);
MERU_ASSERT_OFFSET(snapshot_path, 512);
MERU_ASSERT_OFFSET(metadata, 1024);
MERU_ASSERT_OFFSET(other_urls, 1280);
MERU_ASSERT_OFFSET(no_audio, 1312);
MERU_ASSERT_OFFSET(reserved1, 1313);
MERU_ASSERT_OFFSET(a_bitrate, 1316);
MERU_ASSERT_OFFSET(sample_rate_src, 1320);
MERU_ASSERT_OFFSET(sample_rate_dst, 1324);
MERU_ASSERT_OFFSET(channels, 1328);
MERU_ASSERT_OFFSET(sample_fmt, 1332);
MERU_ASSERT_OFFSET(no_video, 1336);
MERU_ASSERT_OFFSET(reserved2, 1337);
MERU_ASSERT_OFFSET(rate_control, 1340);
MERU_ASSERT_OFFSET(v_bitrate, 1344);
MERU_ASSERT_OFFSET(width, 1348);
MERU_ASSERT_OFFSET(height, 1352);
MERU_ASSERT_OFFSET(width_src, 1356);
MERU_ASSERT_OFFSET(height_src, 1360);
MERU_ASSERT_OFFSET(fps, 1364);
MERU_ASSERT_OFFSET(gop_size, 1368);
MERU_ASSERT_OFFSET(pix_fmt_src, 1372);
MERU_ASSERT_OFFSET(pix_fmt, 1376);
MERU_ASSERT_OFFSET(color_primaries, 1380);
MERU_ASSERT_OFFSET(color_trc, 1384);
MERU_ASSERT_OFFSET(colorspace, 1388);
MERU_ASSERT_OFFSET(color_range, 1392);
MERU_ASSERT_OFFSET(preset, 1396);
MERU_ASSERT_OFFSET(profile, 1400);
MERU_ASSERT_OFFSET(tune, 1404);
MERU_ASSERT_OFFSET(use_hardware, 1408);
MERU_ASSERT_OFFSET(reserved3, 1409);
MERU_ASSERT_OFFSET(crf, 1412);
MERU_ASSERT_OFFSET(qp, 1416);
MERU_ASSERT_OFFSET(timeout_sec, 1420);
#undef MERU_ASSERT_OFFSET

#endif

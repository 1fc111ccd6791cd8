"""The records and numbers of the C headers.

Fields carry the names that they have in meru/movie_info.h and meru/raw_packets.h, which say what they mean. Texts are
bytes, terminated by a null byte; `movie_info` and `packet_info` fill them from Python's strings.
"""

from __future__ import annotations

import ctypes
from enum import IntEnum


class Preset(IntEnum):
    """`MovieInfo.preset`: the speed of the H.264 encoder (QUALITY_... in C)."""

    ULTRAFAST = 0
    SUPERFAST = 1
    VERYFAST = 2
    FASTER = 3
    FAST = 4
    MEDIUM = 5
    SLOW = 6
    SLOWER = 7
    VERYSLOW = 8
    PLACEBO = 9
    NONE = 10


class Profile(IntEnum):
    """`MovieInfo.profile` (PROFILE_... in C)."""

    BASELINE = 0
    MAIN = 1
    HIGH = 2
    HIGH10 = 3
    HIGH422 = 4
    HIGH444 = 5
    NONE = 6


class Tune(IntEnum):
    """`MovieInfo.tune` (TUNE_... in C)."""

    FILM = 0
    ANIMATION = 1
    GRAIN = 2
    STILLIMAGE = 3
    PSNR = 4
    SSIM = 5
    FASTDECODE = 6
    ZEROLATENCY = 7
    NONE = 8


class RateControl(IntEnum):
    """`MovieInfo.rate_control` (RATE_CONTROL_... in C)."""

    ABR = 0
    CBR = 1
    VBR = 2
    CQP = 3


class StatusCode(IntEnum):
    """Codes of a status callback (MERU_STATUS_... in C). Others are negative, and FFmpeg's."""

    OK = 0
    NO_CONTEXT = 10
    OPEN_FAILED = 11
    NO_FORMAT = 12
    BAD_RECORD = 13
    HEADER_FAILED = 21


class RepairCode(IntEnum):
    """Codes of a repair (MERU_REPAIR_... in C)."""

    PROGRESS = 0
    NO_MOVIE = -1
    NO_INDEX = -2
    STOPPED = -5
    WRITE_FAILED = -10


class LogLevel(IntEnum):
    """Levels of `log_level` (LOG_... in C). The library itself uses 2, 4 and 5."""

    NONE = 0
    FATAL = 1
    ERROR = 2
    WARN = 3
    INFO = 4
    DEBUG = 5
    TRACE = 6


class PixelFormat(IntEnum):
    """Pixel formats of FFmpeg whose images `Recorder.write_image` can measure. Its other formats are plain numbers."""

    YUV420P = 0
    YUYV422 = 1
    RGB24 = 2
    BGR24 = 3
    YUV422P = 4
    YUV444P = 5
    GRAY8 = 8
    UYVY422 = 15
    NV12 = 23
    NV21 = 24
    ARGB = 25
    RGBA = 26
    ABGR = 27
    BGRA = 28


class SampleFormat(IntEnum):
    """Interleaved sample formats of FFmpeg."""

    U8 = 0
    S16 = 1
    S32 = 2
    FLT = 3
    DBL = 4


class MovieInfo(ctypes.Structure):
    """`MovieInfo` of meru/movie_info.h: the description of a recording, 1424 bytes.

    The library sets no defaults: best made by `movie_info` and changed from there. The texts behind `other_urls` are
    kept in memory by the record they were set in, and by a Recorder that was made from it.
    """

    _fields_ = [
        ("url", ctypes.c_char * 512),
        ("snapshot_path", ctypes.c_char * 512),
        ("metadata", ctypes.c_char * 256),
        ("other_urls", ctypes.c_char_p * 4),
        ("no_audio", ctypes.c_bool),
        ("reserved1", ctypes.c_ubyte * 3),
        ("a_bitrate", ctypes.c_int),
        ("sample_rate_src", ctypes.c_int),
        ("sample_rate_dst", ctypes.c_int),
        ("channels", ctypes.c_int),
        ("sample_fmt", ctypes.c_int),
        ("no_video", ctypes.c_bool),
        ("reserved2", ctypes.c_ubyte * 3),
        ("rate_control", ctypes.c_int),
        ("v_bitrate", ctypes.c_int),
        ("width", ctypes.c_int),
        ("height", ctypes.c_int),
        ("width_src", ctypes.c_int),
        ("height_src", ctypes.c_int),
        ("fps", ctypes.c_int),
        ("gop_size", ctypes.c_int),
        ("pix_fmt_src", ctypes.c_int),
        ("pix_fmt", ctypes.c_int),
        ("color_primaries", ctypes.c_int),
        ("color_trc", ctypes.c_int),
        ("colorspace", ctypes.c_int),
        ("color_range", ctypes.c_int),
        ("preset", ctypes.c_int),
        ("profile", ctypes.c_int),
        ("tune", ctypes.c_int),
        ("use_hardware", ctypes.c_bool),
        ("reserved3", ctypes.c_ubyte * 3),
        ("crf", ctypes.c_int),
        ("qp", ctypes.c_int),
        ("timeout_sec", ctypes.c_int),
    ]


class MovieInfo2(ctypes.Structure):
    """`MovieInfo2` of meru/raw_packets.h: the description of a session of packets, 1328 bytes. Best made by
    `packet_info`."""

    _fields_ = [
        ("url", ctypes.c_char * 512),
        ("snapshot_path", ctypes.c_char * 512),
        ("metadata", ctypes.c_char * 256),
        ("other_urls", ctypes.c_char_p * 4),
        ("video_format", ctypes.c_char_p),
        ("audio_format", ctypes.c_char_p),
    ]


class AVRational(ctypes.Structure):
    """FFmpeg's rational number, for the raw functions that take a time base."""

    _fields_ = [("num", ctypes.c_int), ("den", ctypes.c_int)]

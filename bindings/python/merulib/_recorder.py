"""Recording raw images and sound."""

from __future__ import annotations

import ctypes
from typing import Any, Iterable, List, Optional

from . import raw
from ._errors import StartError
from ._images import checked_linesize
from ._session import Session, StatusFunction, status_callback
from ._texts import Metadata, Path, borrowed, encode, metadata_text, set_text, stamp
from .records import MovieInfo, PixelFormat, Preset, Profile, SampleFormat, Tune

_COLORSPACE_NOT_SAID = 2
_TEXTS = {"url", "snapshot_path", "metadata", "other_urls"}
_NUMBERS = {name for name, _ in MovieInfo._fields_} - _TEXTS - {"reserved1", "reserved2", "reserved3"}


def set_other_urls(record: Any, urls: Iterable[Path]) -> None:
    """Fills `other_urls`; the record keeps the texts."""
    encoded: List[bytes] = [encode(url, "other_urls") for url in urls]
    if len(encoded) > len(record.other_urls):
        raise ValueError(f"there are {len(record.other_urls)} further outputs at most, not {len(encoded)}")
    for place, url in enumerate(encoded):
        record.other_urls[place] = url


def movie_info(
    url: Path,
    *,
    snapshot_path: Path = "",
    metadata: Metadata = "",
    other_urls: Iterable[Path] = (),
    **fields: int,
) -> MovieInfo:
    """Describes a recording.

    url: the main output, a file or an address beginning "rtmp://" or "rtsp://". A file's extension chooses the
        container.
    snapshot_path: the side index, for a repair after a crash; "" for none.
    metadata: tags of the movie, as a dictionary or as "key:value;key:value".
    other_urls: up to four further outputs of the same packets.
    fields: any other field of MovieInfo, under its name there. Those that are left out get what a host usually wants:

    - without `width` there is no video, without `channels` and `sample_rate_src` no audio;
    - `width_src`, `height_src`: `width` and `height` (pixels), and the other way round; `fps`: 25 images a second;
      `gop_size`: two seconds of frames; `pix_fmt_src`: BGRA; `pix_fmt`: YUV420P; `colorspace`: not said; `preset`: very
      fast; `profile` and `tune`: not asked for; `rate_control`: bit rate, with the encoder's own constant quality when
      `v_bitrate` (kbit/s) is 0;
    - `channels`: 2; `sample_rate_src`: 48000 Hz; `sample_rate_dst`: the same as `sample_rate_src`; `sample_fmt`: signed
      16 bit; `a_bitrate`: 128 kbit/s;
    - `timeout_sec`: 0, that is, a live output that stalls is never given up.

    The record may be changed afterwards. TypeError for an unknown field, ValueError for a text that does not fit.
    """
    unknown = sorted(set(fields) - _NUMBERS)
    if unknown:
        raise TypeError(f"MovieInfo has no field {', '.join(unknown)}")
    info = MovieInfo()
    set_text(info, "url", url)
    set_text(info, "snapshot_path", snapshot_path)
    set_text(info, "metadata", metadata_text(metadata))
    set_other_urls(info, other_urls)

    width, height = fields.get("width", 0), fields.get("height", 0)
    width_src, height_src = fields.get("width_src", 0), fields.get("height_src", 0)
    fps, rate = fields.get("fps", 25), fields.get("sample_rate_src", 48000)
    defaults = {
        "no_video": not (width or width_src),
        "width": width_src,
        "height": height_src,
        "width_src": width,
        "height_src": height,
        "fps": fps,
        "gop_size": 2 * fps,
        "pix_fmt_src": PixelFormat.BGRA,
        "pix_fmt": PixelFormat.YUV420P,
        "colorspace": _COLORSPACE_NOT_SAID,
        "preset": Preset.VERYFAST,
        "profile": Profile.NONE,
        "tune": Tune.NONE,
        "no_audio": "channels" not in fields and "sample_rate_src" not in fields,
        "channels": 2,
        "sample_rate_src": rate,
        "sample_rate_dst": rate,
        "sample_fmt": SampleFormat.S16,
        "a_bitrate": 128,
    }
    for name, value in {**defaults, **fields}.items():
        setattr(info, name, value)
    return info


def now_usec() -> int:
    """The library's clock in microseconds: monotonic, in the neighbourhood of the wall clock. For time stamps."""
    return int(raw.MERU_current_sys_usec())


def _check(info: MovieInfo) -> None:
    """Refuses what would make the library end the process, since it could make no encoder or no scaler of it."""
    needed = [] if info.no_video else ["width", "height", "width_src", "height_src", "fps"]
    needed += [] if info.no_audio else ["channels", "sample_rate_src", "sample_rate_dst"]
    for name in needed:
        if getattr(info, name) <= 0:
            raise ValueError(f"{name} must be positive, not {getattr(info, name)}")


class Recorder(Session):
    """Records raw images and sound into a movie file, and into further files or live streams.

        info = merulib.movie_info("movie.mp4", width=640, height=360, fps=25, sample_rate_src=48000)
        with merulib.Recorder(info) as recorder:
            recorder.write_image(image, pts_usec)
            recorder.write_samples(samples, pts_usec)

    info: the description, copied with the texts that it points to.
    on_status: called with a code and a text when the start is over, and when the main output fails: 0 for a start that
        is confirmed; a positive StatusCode of one that failed; FFmpeg's negative code of a failure. On threads of the
        library, or in `start`. It may call any method. An exception in it goes to `sys.unraisablehook`.
    asynchronous: `start` does not wait until the outputs are open; for live streams. What is pushed before the start is
        confirmed is dropped, but fixes time 0.

    Times are microseconds on the clock of `now_usec`; the first stamp pushed is time 0 of the movie.

    Threads: one thread may push images while another pushes samples. All other methods are for any thread. A push waits
    while an output's queue is full, so a slow output holds the host back.

    When no encoder exists for the container, or the audio encoder cannot be opened with what the record asks for, the
    library ends the process. Only sizes and rates are checked here.
    """

    def __init__(
        self, info: MovieInfo, on_status: Optional[StatusFunction] = None, *, asynchronous: bool = False
    ) -> None:
        super().__init__(on_status, asynchronous)
        _check(info)
        self._info = MovieInfo.from_buffer_copy(info)
        # The copy has the addresses of the texts only; here are texts of its own.
        set_other_urls(self._info, [url for url in info.other_urls if url is not None])
        self._movie_time = 0

    def _call_start(self, number: int) -> Optional[int]:
        handle: Optional[int] = raw.MERU_start(self._info, status_callback, number, None, self._asynchronous)
        return handle

    def _call_stop(self, handle: Any) -> None:
        raw.MERU_stop(handle)

    def _await_outcome(self) -> None:
        self.wait_started(0)
        with self._changed:
            if self._started is None:
                self._failure = StartError(
                    "the recording did not start", None, "an encoder refused its settings; standard error says more"
                )
                self._raise_failure()

    def _look_before_end(self) -> None:
        self._movie_time = raw.MERU_movie_time(self._handle)

    def _raise_when_lost(self) -> None:
        """Further outputs may go on without the main one; without any, nothing is recorded any more."""
        if self._failure is None:
            return
        with self._changed:
            if isinstance(self._failure, StartError) or self._info.other_urls[0] is None:
                self._raise_failure()

    def write_image(self, image: Any, pts_usec: int, linesize: Optional[int] = None) -> bool:
        """Records one image.

        image: an object with the buffer protocol (bytes, bytearray, memoryview, an array of whatever shape), without
            gaps between its items: `height_src` rows of `width_src` pixels in `pix_fmt_src`, the top one first; the
            planes of a planar format follow each other. It is read before the call returns, and the caller's again
            afterwards.
        pts_usec: when it was taken.
        linesize: bytes from one row to the next, of the first plane; None when there is nothing between the rows.

        Returns whether the image was taken; False while the recording is paused or not started, and without video. An
        image whose stamp lies less than a frame after the one before is taken, and left out.

        Raises ValueError when the image is too small or the recording is over, and the failure of the start, or of the
        main output when there is no further one, since nothing is recorded then. The size of an image in a format that
        PixelFormat lacks is checked for its first plane only.
        """
        with borrowed(image) as (pixels, nbytes), self._call() as handle:
            self._raise_when_lost()
            linesize = checked_linesize(self._info, nbytes, linesize)
            return bool(raw.MERU_write_video_bgra(handle, pixels, nbytes, stamp(pts_usec), linesize))

    def write_samples(self, samples: Any, pts_usec: int) -> bool:
        """Records samples.

        samples: an object with the buffer protocol, without gaps: interleaved PCM of `channels` and `sample_fmt`; an
            incomplete sample at its end is ignored. The caller's again afterwards. None appends silence as long as
            from the stamp of the push before (of its first sample) to `pts_usec`.
        pts_usec: when the first sample was heard. Samples follow each other without gaps; the stamp counts where it
            differs by half a second or more.

        Returns whether the encoder was given at least one frame; False also while samples are kept for the next one.
        Raises as `write_image`.
        """
        if samples is None:
            with self._call() as handle:
                self._raise_when_lost()
                return bool(raw.MERU_write_audio_pcm(handle, None, 0, stamp(pts_usec)))
        with borrowed(samples) as (pcm, nbytes), self._call() as handle:
            self._raise_when_lost()
            return bool(raw.MERU_write_audio_pcm(handle, pcm, nbytes, stamp(pts_usec)))

    def pause(self) -> bool:
        """Pauses: what is pushed is dropped until `resume`, and that time, by the clock of `now_usec`, does not appear
        in the movie. Returns whether the recording has started."""
        with self._call() as handle:
            return bool(raw.MERU_pause(handle))

    def resume(self) -> bool:
        """Ends a pause. Returns whether one was open."""
        with self._call() as handle:
            return bool(raw.MERU_resume(handle))

    @property
    def is_paused(self) -> bool:
        """Whether a pause is open."""
        with self._call() as handle:
            return bool(raw.MERU_is_paused(handle))

    @property
    def movie_time(self) -> int:
        """How much is recorded, in microseconds: the time of the last image, or of the last samples without video. Also
        after the end."""
        try:
            with self._call() as handle:
                return int(raw.MERU_movie_time(handle))
        except ValueError:
            return self._movie_time

    @property
    def info(self) -> MovieInfo:
        """A copy of the session's record, with the values that the encoders made of it once the recording has started.
        Its `other_urls` are not for use after the end."""
        copy = MovieInfo()
        with self._call() as handle:
            if handle is not None:
                raw.MERU_get_mInfo(handle, ctypes.byref(copy))
        return copy

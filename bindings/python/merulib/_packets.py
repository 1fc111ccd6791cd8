"""Recording packets that are encoded already."""

from __future__ import annotations

from typing import Any, Callable, Iterable, Optional

from . import raw
from ._recorder import set_other_urls
from ._session import Session, StatusFunction, status_callback
from ._texts import Metadata, Path, borrowed, metadata_text, set_text, stamp
from .records import MovieInfo2


def packet_info(
    url: Path,
    *,
    video_format: Optional[str] = "h264",
    audio_format: Optional[str] = "aac",
    snapshot_path: Path = "",
    metadata: Metadata = "",
    other_urls: Iterable[Path] = (),
) -> MovieInfo2:
    """Describes a session of packets.

    video_format, audio_format: FFmpeg's names of the packets' formats; None for a medium that does not come.
    The others are those of `movie_info`.
    """
    info = MovieInfo2()
    set_text(info, "url", url)
    set_text(info, "snapshot_path", snapshot_path)
    set_text(info, "metadata", metadata_text(metadata))
    set_other_urls(info, other_urls)
    info.video_format = None if video_format is None else video_format.encode()
    info.audio_format = None if audio_format is None else audio_format.encode()
    return info


class PacketRecorder(Session):
    """Records H.264 and AAC that are encoded already, without encoding them again.

        with merulib.PacketRecorder(merulib.packet_info("camera.mp4")) as recorder:
            recorder.write_video_packet(picture, pts_usec)
            recorder.write_audio_packet(frame, pts_usec)

    info: the description, copied with the texts that it points to.
    on_status: called on threads of the library with a code and a text: 0 when the output is open, a negative code when
        the start, an input or the main output has failed. It may call any method. An exception in it goes to
        `sys.unraisablehook`.
    asynchronous: `start` does not wait until the output is open.

    Stamps are microseconds from the beginning of the movie, for both media on one clock.

    Threads: one thread may push video while another pushes audio. A push waits while 500 packets of its medium wait to
    be written, and nothing is written before each medium of the description has begun: who pushes both from one thread
    takes turns.
    """

    def __init__(
        self, info: MovieInfo2, on_status: Optional[StatusFunction] = None, *, asynchronous: bool = False
    ) -> None:
        super().__init__(on_status, asynchronous)
        self._info = MovieInfo2.from_buffer_copy(info)
        # The copy has the addresses of the texts only; here are texts of its own.
        set_other_urls(self._info, [url for url in info.other_urls if url is not None])
        self._info.video_format = info.video_format
        self._info.audio_format = info.audio_format

    def _call_start(self, number: int) -> Optional[int]:
        handle: Optional[int] = raw.MERU2_start(self._info, status_callback, number)
        return handle

    def _call_stop(self, handle: Any) -> None:
        raw.MERU2_stop(handle)

    def write_video_packet(self, packet: Any, pts_usec: int) -> None:
        """Pushes one picture.

        packet: an object with the buffer protocol that holds one access unit of an Annex B stream: start codes, the
            parameter sets where the stream has them. Copied. None asks for pictures that are held back for
            reordering to be passed on.
        pts_usec: when it is shown. Stamps may come out of order by up to six packets. With B-frames, when it is decoded,
            rising from packet to packet.

        Raises ValueError when the recording is over, and its failure when it has failed: nothing is recorded any more
        then.
        """
        self._write(raw.MERU2_write_video_packet, packet, pts_usec)

    def write_audio_packet(self, packet: Any, pts_usec: int) -> None:
        """As `write_video_packet`, with one ADTS frame of AAC."""
        self._write(raw.MERU2_write_audio_packet, packet, pts_usec)

    def _write(self, function: Callable[..., bool], packet: Any, pts_usec: int) -> None:
        with borrowed(b"" if packet is None else packet) as (data, size), self._call() as handle:
            if self._failure is not None:
                with self._changed:
                    self._raise_failure()
            function(handle, data, size, stamp(pts_usec))

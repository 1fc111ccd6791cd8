"""How many bytes an image takes: the library reads as many as its description says, whatever the buffer has."""

from __future__ import annotations

from typing import Dict, List, NamedTuple, Optional, Tuple

from .records import MovieInfo, PixelFormat


class Plane(NamedTuple):
    """A plane of a pixel format: the bytes of a column, and by how many bits width and height are halved."""

    nbytes: int
    halved_x: int = 0
    halved_y: int = 0

    def row(self, width: int) -> int:
        return self.nbytes * -(-width >> self.halved_x)

    def rows(self, height: int) -> int:
        return -(-height >> self.halved_y)


_PLANES: Dict[int, List[Plane]] = {
    PixelFormat.YUV420P: [Plane(1), Plane(1, 1, 1), Plane(1, 1, 1)],
    PixelFormat.YUV422P: [Plane(1), Plane(1, 1), Plane(1, 1)],
    PixelFormat.YUV444P: [Plane(1), Plane(1), Plane(1)],
    PixelFormat.NV12: [Plane(1), Plane(2, 1, 1)],
    PixelFormat.NV21: [Plane(1), Plane(2, 1, 1)],
    PixelFormat.GRAY8: [Plane(1)],
    PixelFormat.YUYV422: [Plane(4, 1)],
    PixelFormat.UYVY422: [Plane(4, 1)],
    PixelFormat.RGB24: [Plane(3)],
    PixelFormat.BGR24: [Plane(3)],
    PixelFormat.ARGB: [Plane(4)],
    PixelFormat.RGBA: [Plane(4)],
    PixelFormat.ABGR: [Plane(4)],
    PixelFormat.BGRA: [Plane(4)],
}


def _measure(info: MovieInfo, linesize: Optional[int]) -> Tuple[int, int]:
    planes = _PLANES.get(info.pix_fmt_src)
    if planes is None:
        if linesize is None:
            raise ValueError(f"pixel format {info.pix_fmt_src} has no known row size: give linesize")
        return linesize, linesize * info.height_src
    tight = [plane.row(info.width_src) for plane in planes]
    if linesize is None:
        linesize = tight[0]
    if linesize < tight[0]:
        raise ValueError(f"a row has {tight[0]} bytes, more than linesize {linesize}")
    strides = [-(-row * linesize // tight[0]) for row in tight]  # of the first plane the rest follows
    size = sum(stride * plane.rows(info.height_src) for stride, plane in zip(strides, planes))
    return linesize, size - (strides[-1] - tight[-1])  # behind the last row nothing is read


def checked_linesize(info: MovieInfo, nbytes: int, linesize: Optional[int]) -> int:
    """The linesize of an image, found when it is None. ValueError when the image does not fill `nbytes`."""
    linesize, needed = _measure(info, linesize)
    if not 0 < linesize < 2**31:
        raise ValueError(f"linesize {linesize} is out of range")
    if nbytes < needed:
        raise ValueError(f"an image of {info.width_src}x{info.height_src} takes {needed} bytes, not {nbytes}")
    return linesize

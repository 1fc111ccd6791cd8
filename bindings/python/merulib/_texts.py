"""Texts and buffers on their way into the library."""

from __future__ import annotations

import ctypes
import os
from contextlib import contextmanager
from typing import Any, Iterator, Mapping, Tuple, Union

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Metadata = Union[str, Mapping[str, str]]

_LARGEST_INT = 2**31 - 1
_LARGEST_STAMP = 2**63 - 1


def encode(text: Path, what: str) -> bytes:
    """The bytes of a path or an address. A null byte would end it in the middle: ValueError."""
    encoded = os.fsencode(text)
    if b"\0" in encoded:
        raise ValueError(f"{what} holds a null byte")
    return encoded


def set_text(record: ctypes.Structure, field: str, text: Path) -> None:
    """Fills a text field of a record; ValueError when it does not hold the text and its end."""
    encoded = encode(text, field)
    size = getattr(type(record), field).size
    if len(encoded) >= size:
        raise ValueError(f"{field} holds {size - 1} bytes at most, not {len(encoded)}")
    setattr(record, field, encoded)


def metadata_text(metadata: Metadata) -> str:
    """`key:value` pairs between semicolons, as the containers' metadata is handed over."""
    if isinstance(metadata, str):
        return metadata
    for key, value in metadata.items():
        if ";" in key or ":" in key or ";" in value:
            raise ValueError(f"metadata cannot hold ';', nor ':' in a key: {key!r}: {value!r}")
    return ";".join(f"{key}:{value}" for key, value in metadata.items())


def stamp(pts_usec: int) -> int:
    """The time stamp as it is; C would cut off what does not fit, so that is an OverflowError."""
    if not -_LARGEST_STAMP <= pts_usec <= _LARGEST_STAMP:
        raise OverflowError(f"a time stamp has 64 bits: {pts_usec}")
    return pts_usec


@contextmanager
def borrowed(buffer: Any) -> Iterator[Tuple[Any, int]]:
    """The memory behind an object with the buffer protocol, as an argument for a pointer, and its size in bytes.

    Bytes and what is writable are handed over in place, and cannot be resized meanwhile; what else is read-only is
    copied.
    """
    with memoryview(buffer) as view:
        size = view.nbytes
        if size > _LARGEST_INT:
            raise ValueError(f"a buffer of {size} bytes is too large")
        if not view.c_contiguous:
            raise ValueError("the buffer has gaps between its items: make it contiguous first")
        if size == 0:
            yield b"", 0
        elif isinstance(buffer, bytes):
            yield buffer, size
        elif view.readonly:
            yield view.tobytes(), size
        else:
            first = ctypes.c_char.from_buffer(view)
            try:
                yield ctypes.addressof(first), size
            finally:
                del first  # holds the buffer; the view could not be released before

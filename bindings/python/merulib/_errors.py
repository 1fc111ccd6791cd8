"""What the module raises."""

from __future__ import annotations

from typing import Optional


class MeruError(Exception):
    """A failure that the library reported.

    code: the number that the library gave, None when it gave none.
    text: what it said about it, in English.
    """

    def __init__(self, what: str, code: Optional[int], text: str) -> None:
        super().__init__(what, code, text)
        self.what = what
        self.code = code
        self.text = text

    def __str__(self) -> str:
        return f"{self.what}: {self.text}" + ("" if self.code is None else f" ({self.code})")


class StartError(MeruError):
    """A session that did not start. The code is one of StatusCode, or negative as FFmpeg's; None when an encoder
    refused its settings, which the library explains on standard error only."""


class RecordingError(MeruError):
    """The main output failed after the start. The code is FFmpeg's: the system's error number with a minus sign, or one
    of FFmpeg's own."""


class RepairError(MeruError):
    """A repair that made no complete movie. The code is one of RepairCode."""


class LibraryError(OSError):
    """The shared library cannot be used."""


class LibraryNotFoundError(LibraryError):
    """The shared library was not found, or could not be loaded. The message says what was tried."""


class LibraryFunctionError(LibraryError):
    """The shared library lacks a function: it is another library, or an older version. The message names both."""

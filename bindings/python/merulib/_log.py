"""The library's text log; one for the whole process. All of it is for any thread."""

from __future__ import annotations

from typing import Optional

from . import raw
from ._texts import Path, encode


def log_on(path: Optional[Path] = None) -> None:
    """Appends the log to a file, which stays open to the process's end; with None, or when the file cannot be opened,
    the log goes to standard error."""
    raw.MERU_Log_On(None if path is None else encode(path, "path"))


def log_level(level: int) -> None:
    """Sets what is logged: LogLevel.ERROR for failures only, which is so from the beginning; INFO for starts and ends
    as well; DEBUG for details; a negative number for nothing."""
    raw.MERU_Log_Level(level)


def log_off() -> None:
    """Sends the log to standard output; the level stays."""
    raw.MERU_Log_Off()

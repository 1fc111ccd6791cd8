"""Rebuilding movies that were cut short."""

from __future__ import annotations

import atexit
import ctypes
import threading
import time
from typing import Callable, Optional, Type

from . import raw
from ._errors import RepairError
from ._registry import Registry
from ._texts import Path, encode

ProgressFunction = Callable[[float], None]

_POLL_SEC = 0.02  # the library can be asked whether a repair runs, but not waited for

_reports = Registry()
_running = Registry()


@raw.MovieRepairCallback
def _repair_callback(progress: float, code: int, text: Optional[bytes], number: int) -> None:
    report = _reports.get(number)
    if report is not None:
        report.receive(progress, code, (text or b"").decode(errors="replace"))


@atexit.register
def _stop_all() -> None:
    """Ends the repairs that the program has forgotten, while Python still answers the library's callbacks."""
    for forgotten in _running.entries():
        forgotten.stop()


class _Report:
    """What the library has told of one repair."""

    def __init__(self, on_progress: Optional[ProgressFunction]) -> None:
        self._on_progress = on_progress
        self.progress = 0.0
        self.failure: Optional[RepairError] = None
        self.error: Optional[BaseException] = None  # of on_progress

    def receive(self, progress: float, code: int, text: str) -> None:
        if code < 0:
            self.failure = RepairError("the movie could not be repaired", code, text)
            return
        self.progress = progress
        if self._on_progress is None or self.error is not None:
            return
        try:
            self._on_progress(progress)
        except BaseException as error:  # it cannot pass through the library, so it is raised on the other side
            self.error = error

    def raise_what_happened(self) -> None:
        if self.error is not None:
            raise self.error
        if self.failure is not None:
            raise self.failure


def repair(broken: Path, index: Path, output: Path, on_progress: Optional[ProgressFunction] = None) -> None:
    """Rebuilds a movie that was cut short from its side index, and waits for the end.

    broken: the movie that was cut short. It and the index are only read.
    index: its side index (`snapshot_path` of the recording).
    output: the movie to make; an existing file is replaced.
    on_progress: called on this thread with 0.0 to 1.0, how much of the index is worked off. Once it has raised
        something it is called no more, and this is raised when the repair is over.

    Raises RepairError when no complete movie could be made. Damage is no failure: what cannot be restored is left out.
    The library also prints the progress on standard output. For any thread; other threads go on meanwhile.
    """
    paths = [encode(path, name) for path, name in ((broken, "broken"), (index, "index"), (output, "output"))]
    report = _Report(on_progress)
    number = _reports.add(report)
    try:
        done = raw.MERU_StartRepair_sync(*paths, _repair_callback, number)
    finally:
        _reports.remove(number)
    report.raise_what_happened()
    if not done:
        raise RepairError("the movie could not be repaired", None, "no reason was given")


class Repair:
    """A repair on a thread of the library. Parameters as those of `repair`, but `on_progress` runs on that thread.

        with merulib.Repair("cut.mp4", "cut.index", "repaired.mp4") as repair:
            while not repair.wait(0.1):
                print(f"{repair.progress:.0%}")

    The repair starts at once. Leaving the `with` block waits for it; leaving it with an exception breaks it off.
    """

    def __init__(
        self, broken: Path, index: Path, output: Path, on_progress: Optional[ProgressFunction] = None
    ) -> None:
        paths = [encode(path, name) for path, name in ((broken, "broken"), (index, "index"), (output, "output"))]
        self._report = _Report(on_progress)
        self._lock = threading.Lock()
        self._handle: Optional[int] = None  # guarded by _lock
        self._report_number = _reports.add(self._report)
        self._number = _running.add(self)
        try:
            self._handle = raw.MERU_StartRepair_Async(*paths, _repair_callback, self._report_number)
        finally:
            if self._handle is None:
                self.stop()
        if self._handle is None:
            raise MemoryError("the library could not make a repair")

    @property
    def progress(self) -> float:
        """0.0 to 1.0: how much of the index is worked off."""
        return self._report.progress

    @property
    def running(self) -> bool:
        """Whether the repair is still at work."""
        with self._lock:
            return bool(raw.MERU_Repair_IsRunning(self._handle))

    @property
    def failure(self) -> Optional[RepairError]:
        """Why the repair failed; None as long as it has not."""
        return self._report.failure

    def wait(self, timeout: Optional[float] = None) -> bool:
        """Waits `timeout` seconds, or without end, until the repair is over. Returns whether it is. Raises RepairError
        when it has failed, or what `on_progress` has raised."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while self.running:
            left = _POLL_SEC if deadline is None else deadline - time.monotonic()
            if left <= 0:
                return False
            time.sleep(min(left, _POLL_SEC))
        self._report.raise_what_happened()
        return True

    def stop(self) -> None:
        """Frees the repair, and breaks it off when it still runs: the movie made so far is completed. Raises nothing.

        No callback runs once this has returned. From inside `on_progress` it does not wait; no further callback comes.
        A second call does nothing. For any thread.
        """
        with self._lock:
            handle, self._handle = ctypes.c_void_p(self._handle), None
        if handle:
            raw.MERU_StopRepair(ctypes.byref(handle))
        _reports.remove(self._report_number)
        _running.remove(self._number)

    def __enter__(self) -> "Repair":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: object, trace: object) -> None:
        try:
            if kind is None:
                self.wait()
        finally:
            self.stop()

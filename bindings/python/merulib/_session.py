"""What recordings of images and of packets have in common: the life of a session, and its status callback."""

from __future__ import annotations

import atexit
import ctypes
import threading
from contextlib import contextmanager
from enum import Enum
from typing import Any, Callable, Iterator, Optional, Set, Type, TypeVar

from . import raw
from ._errors import MeruError, RecordingError, StartError
from ._registry import Registry

StatusFunction = Callable[[int, str], None]
_Self = TypeVar("_Self", bound="Session")


sessions = Registry()


@raw.MovieStatusCallback
def status_callback(code: int, text: Optional[bytes], number: int) -> None:
    session = sessions.get(number)
    if session is not None:
        session._report(code, (text or b"").decode(errors="replace"))


@atexit.register
def _stop_all() -> None:
    """Completes the movies that the program has forgotten, while Python still answers the library's callbacks."""
    for session in sessions.entries():
        try:
            session.stop()
        except MeruError:
            pass  # nobody is left to be told


class _State(Enum):
    NEW = 0
    OPEN = 1
    ENDING = 2
    OVER = 3

    def __str__(self) -> str:
        return ("has not been started", "is running already", "is over", "is over")[self.value]


class Session:
    """Base of Recorder and PacketRecorder; see there."""

    def __init__(self, on_status: Optional[StatusFunction], asynchronous: bool) -> None:
        self._on_status = on_status
        self._asynchronous = asynchronous
        self._changed = threading.Condition()
        # All that follows is guarded by _changed, but for the handle, which changes in no call's sight.
        self._state = _State.NEW
        self._calls = 0  # into the library; its session may not be ended meanwhile
        self._inside: Set[int] = set()  # threads that are in on_status
        self._starter = 0
        self._started: Optional[bool] = None  # None until the outcome of the start is known
        self._failure: Optional[MeruError] = None
        self._raised = False  # the failure, by some call
        self._handle: Optional[int] = None

    # What differs between the two kinds.

    def _call_start(self, number: int) -> Optional[int]:
        raise NotImplementedError

    def _call_stop(self, handle: Any) -> None:
        raise NotImplementedError

    def _look_before_end(self) -> None:
        """Called once before the session ends, with nothing else in the library."""

    # Callbacks

    def _report(self, code: int, text: str) -> None:
        thread = threading.get_ident()
        with self._changed:
            if self._state in (_State.NEW, _State.OVER):
                return
            self._note(code, text)
            # Another thread may report before the start has returned the session, which on_status may want to use.
            self._changed.wait_for(lambda: self._starter in (0, thread))
            self._inside.add(thread)
        try:
            if self._on_status is not None:
                self._on_status(code, text)
        finally:
            with self._changed:
                self._inside.discard(thread)

    def _note(self, code: int, text: str) -> None:
        if self._started is None:
            self._started = code == 0
            if code != 0:
                self._failure = StartError("the recording did not start", code, text)
        elif self._started and code < 0 and self._failure is None:
            self._failure = RecordingError("the main output failed", code, text)
        self._changed.notify_all()

    # Life

    def start(self: _Self) -> _Self:
        """Starts the session; once only. Returns it, so that `with recorder.start() as r` can be written, too.

        Waits for the outcome, unless the session is asynchronous: then use `wait_started`. Raises StartError when the
        start failed, after ending the session, and LibraryError when there is no library.
        """
        raw.load()
        with self._changed:
            if self._state is not _State.NEW:
                raise RuntimeError(f"the recording {self._state}")
            self._state = _State.OPEN
            self._calls += 1
            self._starter = threading.get_ident()
            self._number = sessions.add(self)
        try:
            self._handle = self._call_start(self._number)
        finally:
            with self._changed:
                self._starter = 0
                self._calls -= 1
                self._changed.notify_all()
            if self._handle is None:
                self._end()
        if self._handle is None:
            raise MemoryError("the library could not make a session")
        if not self._asynchronous:
            try:
                self._await_outcome()
            except BaseException:
                self._end()
                raise
        return self

    def _await_outcome(self) -> None:
        self.wait_started(None)

    def wait_started(self, timeout: Optional[float]) -> bool:
        """Waits `timeout` seconds, or without end, for the outcome of the start. For asynchronous starts.

        Returns whether the session has started; False also when it was stopped before. Raises StartError when the start
        failed; stop the session then. A video encoder that refuses its settings in an asynchronous start reports
        nothing, so give a time-out.
        """
        with self._changed:
            self._changed.wait_for(lambda: self._started is not None or self._state is _State.OVER, timeout)
            if isinstance(self._failure, StartError):
                self._raise_failure()
            return bool(self._started)

    def _raise_failure(self) -> None:
        """To be called with _changed held."""
        if self._failure is not None:
            self._raised = True
            raise self._failure

    @property
    def failure(self) -> Optional[MeruError]:
        """Why the start or the main output failed; None as long as neither has. For any thread."""
        with self._changed:
            return self._failure

    @property
    def handle(self) -> Optional[int]:
        """The session's handle, for functions of `merulib.raw`; None before the start and after the end. The caller
        sees to it that the session is not stopped meanwhile."""
        return self._handle

    @contextmanager
    def _call(self) -> Iterator[Optional[int]]:
        """Keeps the session from being ended. ValueError when it is not running."""
        with self._changed:
            if self._state is not _State.OPEN:
                raise ValueError(f"the recording {self._state}")
            self._calls += 1
        try:
            yield self._handle
        finally:
            with self._changed:
                self._calls -= 1
                self._changed.notify_all()

    def stop(self) -> None:
        """Ends the session: what was pushed is written, and the movie completed. Waits for that.

        First waits until calls of other threads into the session have returned; later calls raise ValueError. No
        callback runs once this has returned. From inside the session's own `on_status` it returns at once, and a thread
        completes the movie; another thread's `stop` waits for that one, and so does the end of the program.

        Raises RecordingError when the main output has failed, StartError when an asynchronous start has, unless another
        call has raised it before; the session is ended all the same. A second call does nothing. For any thread.
        """
        self._end()
        with self._changed:
            if self._state is _State.OVER and not self._raised:
                self._raise_failure()

    def _end(self) -> None:
        with self._changed:
            inside = threading.get_ident() in self._inside
            if self._state is _State.NEW:
                self._state = _State.OVER
            if not inside:
                self._changed.wait_for(lambda: self._state is not _State.ENDING)
            if self._state is not _State.OPEN:
                return
            self._state = _State.ENDING
        if inside:
            self._finish_elsewhere()
        else:
            self._finish()

    def _finish_elsewhere(self) -> None:
        """For a callback: calls of other threads must end first, and may in turn wait for it."""
        try:
            threading.Thread(target=self._finish, name="merulib stop").start()
        except RuntimeError:  # no thread left, or the program is ending: then it is stopped from there
            with self._changed:
                self._state = _State.OPEN
                self._changed.notify_all()
            raise

    def _finish(self) -> None:
        with self._changed:
            try:
                self._changed.wait_for(lambda: self._calls == 0)
            except BaseException:  # Ctrl-C: the session goes on, and can be ended later
                self._state = _State.OPEN
                self._changed.notify_all()
                raise
        try:
            if self._handle is not None:
                self._look_before_end()
                self._call_stop(ctypes.byref(ctypes.c_void_p(self._handle)))
        finally:
            self._handle = None
            sessions.remove(self._number)
            with self._changed:
                self._state = _State.OVER
                self._on_status = None
                self._changed.notify_all()

    def __enter__(self: _Self) -> _Self:
        with self._changed:
            running = self._state is _State.OPEN
        return self if running else self.start()

    def __exit__(self, kind: Optional[Type[BaseException]], error: object, trace: object) -> None:
        """Ends the session, as `stop` does. What it raises gives way to what the block has raised."""
        try:
            self.stop()
        except MeruError:
            if kind is None:
                raise

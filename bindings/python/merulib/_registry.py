"""Which object a callback of the library is for."""

from __future__ import annotations

import itertools
import os
import threading
from typing import Any, Dict, List


class Registry:
    """Maps the numbers that C callbacks carry to the objects they are for.

    The library calls the same two C functions for all sessions, and they live as long as the process: a callback may be
    on its way back into C while its session ends, and must not be freed under its feet. What is registered is kept
    alive.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._numbers = itertools.count(1)  # 0 would arrive as None
        self._entries: Dict[int, Any] = {}  # guarded by _lock
        if hasattr(os, "register_at_fork"):
            os.register_at_fork(after_in_child=self.forget)

    def add(self, entry: Any) -> int:
        with self._lock:
            number = next(self._numbers)
            self._entries[number] = entry
            return number

    def get(self, number: int) -> Any:
        with self._lock:
            return self._entries.get(number)

    def remove(self, number: int) -> None:
        with self._lock:
            self._entries.pop(number, None)

    def entries(self) -> List[Any]:
        with self._lock:
            return list(self._entries.values())

    def forget(self) -> None:
        """For a forked process: the library's threads have stayed with its parent, and so have the sessions."""
        self._lock = threading.Lock()
        self._entries = {}

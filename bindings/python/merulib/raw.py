"""The functions of the C headers, under their plain names and with their types.

    from merulib import raw
    raw.MERU_current_sys_usec()

A call lets go of the interpreter's lock until it returns, so other threads go on meanwhile, and callbacks get through.
What the headers say of ownership holds here without any help: whoever passes a callback or a text keeps it alive as
long as the header asks for. Recorder, PacketRecorder and Repair do all that by themselves.

The library is looked for when the first function is used, not when this module is imported.
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import sys
import threading
from ctypes import POINTER, c_bool, c_char_p, c_double, c_int, c_longlong, c_void_p
from pathlib import Path
from typing import Any, Dict, Iterator, List, Optional, Tuple

from ._errors import LibraryFunctionError, LibraryNotFoundError
from .records import AVRational, MovieInfo, MovieInfo2

MovieStatusCallback = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)
MovieRepairCallback = ctypes.CFUNCTYPE(None, c_double, c_int, c_char_p, c_void_p)

_SESSION = POINTER(c_void_p)
_REPAIR = [c_char_p, c_char_p, c_char_p, MovieRepairCallback, c_void_p]

#: name: (type of the result, types of the parameters). Frames, filters and streams of C are plain addresses.
PROTOTYPES: Dict[str, Tuple[Any, List[Any]]] = {
    "MERU_start": (c_void_p, [POINTER(MovieInfo), MovieStatusCallback, c_void_p, POINTER(MovieInfo), c_bool]),
    "MERU_stop": (None, [_SESSION]),
    "MERU_pause": (c_bool, [c_void_p]),
    "MERU_resume": (c_bool, [c_void_p]),
    "MERU_is_paused": (c_bool, [c_void_p]),
    "MERU_movie_time": (c_longlong, [c_void_p]),
    "MERU_write_video_bgra": (c_int, [c_void_p, c_void_p, c_int, c_longlong, c_int]),
    "MERU_write_audio_pcm": (c_int, [c_void_p, c_void_p, c_int, c_longlong]),
    "MERU_write_video_frame": (c_int, [c_void_p, c_void_p, POINTER(AVRational)]),
    "MERU_write_audio_frame": (c_int, [c_void_p, c_void_p, POINTER(AVRational)]),
    "MERU_add_audio_filter": (c_bool, [c_void_p, c_void_p]),
    "MERU_add_video_filter": (c_bool, [c_void_p, c_void_p]),
    "MERU_audio_dst_frame": (c_void_p, [c_void_p]),
    "MERU_video_dst_frame": (c_void_p, [c_void_p]),
    "MERU_get_mInfo": (c_bool, [c_void_p, POINTER(MovieInfo)]),
    "MERU_current_sys_usec": (c_longlong, []),
    "MERU_last_usec_pts": (c_longlong, [c_void_p]),
    "MERU_generate_testing_vFrame": (c_void_p, [c_void_p, POINTER(AVRational)]),
    "MERU_generate_testing_aFrame": (c_void_p, [c_void_p, POINTER(AVRational)]),
    "MERU2_start": (c_void_p, [POINTER(MovieInfo2), MovieStatusCallback, c_void_p]),
    "MERU2_write_video_packet": (c_bool, [c_void_p, c_void_p, c_int, c_longlong]),
    "MERU2_write_video_packet_ts": (c_bool, [c_void_p, c_void_p, c_int, c_longlong, c_longlong]),
    "MERU2_write_audio_packet": (c_bool, [c_void_p, c_void_p, c_int, c_longlong]),
    "MERU2_stop": (None, [_SESSION]),
    "MERU_StartRepair_Async": (c_void_p, _REPAIR),
    "MERU_StartRepair_sync": (c_bool, _REPAIR),
    "MERU_StopRepair": (None, [_SESSION]),
    "MERU_Repair_IsRunning": (c_bool, [c_void_p]),
    "MERU_Log_On": (None, [c_char_p]),
    "MERU_Log_On2": (None, [c_void_p]),
    "MERU_Log_Level": (None, [c_int]),
    "MERU_Log_Off": (None, []),
}

#: The library's file name. Its number is that of the binary interface, which this module is written for.
LIBRARY_NAME = "libMeruLib.1.dylib" if sys.platform == "darwin" else "libMeruLib.so.1"

#: The environment variable that names the library's file.
LIBRARY_VARIABLE = "MERULIB_LIBRARY"

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None  # guarded by _lock


def load() -> ctypes.CDLL:
    """Finds and loads the library, once; later calls give the same.

    It is the file that the environment variable MERULIB_LIBRARY names, and no other, when that is set. Else it is the
    first
    that can be loaded of: the file in the package's folder, the one in the folder around it, what the system's loader
    finds under its name, what ctypes.util.find_library does.

    Raises LibraryNotFoundError when there is none, and LibraryFunctionError when the one that was found lacks a
    function. May be called on any thread.
    """
    global _library
    with _lock:
        if _library is None:
            _library = _prepare(_find())
        return _library


def _places() -> Iterator[Tuple[str, str]]:
    """What to try in turn: what a failure calls it, and what the loader is given."""
    named = os.environ.get(LIBRARY_VARIABLE)
    if named:
        yield LIBRARY_VARIABLE, named
        return
    package = Path(__file__).resolve().parent
    yield "beside the package", str(package / LIBRARY_NAME)
    yield "beside the package", str(package.parent / LIBRARY_NAME)
    yield "the system's loader", LIBRARY_NAME
    found = ctypes.util.find_library("MeruLib.1" if sys.platform == "darwin" else "MeruLib")
    if found is not None and os.path.basename(found) == LIBRARY_NAME:
        yield "ctypes.util.find_library", found


def _find() -> ctypes.CDLL:
    tried = []
    for place, name in _places():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            tried.append(f"  {place}: {error if name in str(error) else f'{name}: {error}'}")
    raise LibraryNotFoundError(
        f"MeruLib's shared library cannot be loaded. Install it, or set {LIBRARY_VARIABLE} to its file. Tried:\n"
        + "\n".join(tried)
    )


def _prepare(library: ctypes.CDLL) -> ctypes.CDLL:
    for name, (result, parameters) in PROTOTYPES.items():
        try:
            function = getattr(library, name)
        except AttributeError:
            raise LibraryFunctionError(
                f"{library._name} has no function {name}: it is not MeruLib, or not the version that this module is for"
            ) from None
        function.restype = result
        function.argtypes = parameters
    return library


def __getattr__(name: str) -> Any:
    if name in PROTOTYPES:
        return getattr(load(), name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> List[str]:
    return sorted(set(globals()) | set(PROTOTYPES))

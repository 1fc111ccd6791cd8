"""MeruLib for Python: records raw images and sound, records packets that are encoded already, repairs movies.

    import merulib

    info = merulib.movie_info("movie.mp4", width=640, height=360, fps=25)
    with merulib.Recorder(info) as recorder:
        for n in range(50):
            recorder.write_image(bytes(640 * 360 * 4), n * 40000)

Recorder, PacketRecorder and Repair keep alive what the library needs, check the sizes of buffers, and raise what fails.
`merulib.raw` has the C functions as they are, `merulib.records` their records and numbers. Nothing but the standard
library is needed, and the shared library, which is found as `merulib.raw.load` says.
"""

from ._errors import (
    LibraryError,
    LibraryFunctionError,
    LibraryNotFoundError,
    MeruError,
    RecordingError,
    RepairError,
    StartError,
)
from ._log import log_level, log_off, log_on
from ._packets import PacketRecorder, packet_info
from ._recorder import Recorder, movie_info, now_usec
from ._repair import Repair, repair
from .records import (
    LogLevel,
    MovieInfo,
    MovieInfo2,
    PixelFormat,
    Preset,
    Profile,
    RateControl,
    RepairCode,
    SampleFormat,
    StatusCode,
    Tune,
)

__version__ = "1.0.0"

__all__ = [
    "LibraryError",
    "LibraryFunctionError",
    "LibraryNotFoundError",
    "LogLevel",
    "MeruError",
    "MovieInfo",
    "MovieInfo2",
    "PacketRecorder",
    "PixelFormat",
    "Preset",
    "Profile",
    "RateControl",
    "RecordingError",
    "Recorder",
    "Repair",
    "RepairCode",
    "RepairError",
    "SampleFormat",
    "StartError",
    "StatusCode",
    "Tune",
    "log_level",
    "log_off",
    "log_on",
    "movie_info",
    "now_usec",
    "packet_info",
    "repair",
]

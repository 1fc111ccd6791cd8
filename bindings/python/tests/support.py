"""What the tests share: folders, small recordings, and a look at what came of them."""

import array
import functools
import math
import os
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import merulib

SOURCE = Path(__file__).resolve().parents[3]
PACKAGE = Path(merulib.__file__).resolve().parent

WIDTH, HEIGHT, FPS, RATE = 64, 48, 25, 48000
FRAME_USEC = 1000000 // FPS
LONG_SEC = 20  # for what comes soon, but maybe not on a busy machine


class FolderTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="merulib-test-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def file(self, name):
        return str(self.folder / name)


def small_info(url, **fields):
    """Pictures and stereo sound, encoded without delay."""
    wanted = {
        "width": WIDTH,
        "height": HEIGHT,
        "fps": FPS,
        "sample_rate_src": RATE,
        "rate_control": merulib.RateControl.CQP,
        "qp": 10,
        "preset": merulib.Preset.ULTRAFAST,
        "tune": merulib.Tune.ZEROLATENCY,
    }
    wanted.update(fields)
    return merulib.movie_info(url, **wanted)


def picture_info(url, **fields):
    """Pictures alone."""
    return small_info(url, no_audio=True, **fields)


def grey(level, width=WIDTH, height=HEIGHT):
    return bytes([level, level, level, 255]) * (width * height)


@functools.lru_cache(maxsize=None)
def _piece_of_tone(n):
    per_image = RATE // FPS
    samples = array.array("h")
    for i in range(n * per_image, (n + 1) * per_image):
        value = int(10000 * math.sin(2 * math.pi * 440 * i / RATE))
        samples.extend((value, value))
    return samples


def tone(n):
    """The sound of image `n`: 440 Hz, stereo, 16 bit. Five images take a whole number of waves."""
    return _piece_of_tone(n % 5)[:]


def push_scene(recorder, images, first=0):
    for n in range(first, first + images):
        recorder.write_image(grey(n % 200 + 20), n * FRAME_USEC)
        recorder.write_samples(tone(n), n * FRAME_USEC)


def output_of(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          check=False)
    if done.returncode != 0 or done.stderr:
        raise AssertionError(f"{' '.join(command)}: {done.returncode}, {done.stderr.decode(errors='replace')}")
    return done.stdout


def streams(path):
    """What ffprobe finds and decodes: {"video": (codec, frames), "audio": (codec, frames)}."""
    table = output_of(
        "ffprobe", "-v", "error", "-count_frames", "-of", "csv=p=0",
        "-show_entries", "stream=codec_type,codec_name,nb_read_frames", path,
    )
    found = {}
    for line in table.decode().split():
        codec, kind, frames = line.split(",")[:3]
        found[kind] = (codec, int(frames))
    return found


def decoded_greys(path, width=WIDTH, height=HEIGHT):
    """The smallest and the largest level of each picture."""
    pixels = output_of("ffmpeg", "-v", "error", "-xerror", "-i", path, "-map", "0:v",
                       "-vf", "scale=out_range=full", "-pix_fmt", "gray", "-f", "rawvideo", "-")
    size = width * height
    pictures = [pixels[i : i + size] for i in range(0, len(pixels), size)]
    return [(min(picture), max(picture)) for picture in pictures]


def decoded_sound(path):
    """The samples of the first channel."""
    return array.array("h", output_of("ffmpeg", "-v", "error", "-xerror", "-i", path, "-map", "0:a",
                                      "-af", "pan=mono|c0=c0", "-f", "s16le", "-"))


def picture_sums(path):
    """A checksum of each decoded picture."""
    lines = output_of("ffmpeg", "-v", "error", "-xerror", "-i", path, "-map", "0:v", "-f", "framemd5", "-").decode()
    return [line.split(",")[-1].strip() for line in lines.splitlines() if not line.startswith("#")]


def eventually(condition):
    """Whether the condition comes true in good time."""
    deadline = time.monotonic() + LONG_SEC
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


def run_python(code, folder, environment=None, package=PACKAGE.parent):
    """Runs a program of its own. Returns its exit status, and what it printed on both streams."""
    env = dict(os.environ, PYTHONPATH=str(package), PYTHONDONTWRITEBYTECODE="1")
    env.update(environment or {})
    done = subprocess.run(
        [sys.executable, "-c", code], cwd=folder, env={k: v for k, v in env.items() if v is not None},
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=3 * LONG_SEC, check=False,
    )
    return done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")

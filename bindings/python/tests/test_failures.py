"""Failures arrive as exceptions, with the library's code and text."""

import errno
import sys
import threading
import unittest

import merulib
from support import FRAME_USEC, LONG_SEC, FolderTest, eventually, grey, picture_info, run_python, small_info

FULL_DISK = """
import errno, os, resource, threading
import merulib

info = merulib.movie_info("movie.mkv", width=64, height=48, fps=25)
lost = threading.Event()
told = []

def on_status(code, text):
    told.append((code, text))
    if code < 0:
        lost.set()

def push(recorder, images):
    for n in range(images):
        recorder.write_image(os.urandom(64 * 48 * 4), n * 40000)

recorder = merulib.Recorder(info, on_status)
recorder.start()
# Python sees to it that a file which gets too large is an error, and not the end of the process.
limit = lambda nbytes: resource.setrlimit(resource.RLIMIT_FSIZE, (nbytes, resource.RLIM_INFINITY))
"""


class FailuresTest(FolderTest):
    def cases(self):
        nowhere = self.file("no/movie.mp4")
        return [
            (small_info(nowhere), merulib.StatusCode.OPEN_FAILED, "Could not open url"),
            (small_info(str(self.folder)), merulib.StatusCode.OPEN_FAILED, "Could not open url"),
            (small_info("rtmp://127.0.0.1:1/live/key"), merulib.StatusCode.OPEN_FAILED, "Could not open url"),
            (
                small_info(self.file("movie.mp4"), metadata="moov_size:-1"),
                merulib.StatusCode.HEADER_FAILED,
                "error occurred when write header",
            ),
        ]

    def test_a_start_that_fails_raises_what_the_library_says(self):
        for info, code, text in self.cases():
            with self.subTest(info.url):
                told = []
                recorder = merulib.Recorder(info, lambda *args: told.append(args))
                with self.assertRaises(merulib.StartError) as caught:
                    recorder.start()
                self.assertEqual((caught.exception.code, caught.exception.text), (code, text))
                self.assertIn(f"{text} ({code:d})", str(caught.exception))
                self.assertEqual(told, [(code, text)])
                self.assertIs(recorder.failure, caught.exception)
                recorder.stop()  # is over already, and was told
                with self.assertRaises(ValueError):
                    recorder.write_image(grey(1), 0)

    def test_an_asynchronous_start_that_fails_raises_where_it_is_waited_for(self):
        for info, code, text in self.cases():
            with self.subTest(info.url):
                recorder = merulib.Recorder(info, asynchronous=True).start()
                with self.assertRaises(merulib.StartError) as caught:
                    recorder.wait_started(LONG_SEC)
                self.assertEqual((caught.exception.code, caught.exception.text), (code, text))
                with self.assertRaises(merulib.StartError):
                    recorder.write_image(grey(1), 0)
                recorder.stop()

    def test_an_asynchronous_start_that_fails_raises_at_the_end_else(self):
        recorder = merulib.Recorder(small_info(self.file("no/movie.mp4")), asynchronous=True).start()
        self.assertTrue(eventually(lambda: recorder.failure is not None))
        with self.assertRaises(merulib.StartError):
            recorder.stop()
        recorder.stop()

    def test_an_encoder_that_refuses_its_settings_raises_without_a_code(self):
        with self.assertRaises(merulib.StartError) as caught:
            merulib.Recorder(picture_info(self.file("movie.mp4"), width=63, height=47)).start()
        self.assertIsNone(caught.exception.code)
        self.assertIn("refused its settings", str(caught.exception))

    def test_what_the_block_raises_goes_before_a_failed_start(self):
        with self.assertRaises(KeyError):
            with merulib.Recorder(small_info(self.file("no/movie.mp4")), asynchronous=True) as recorder:
                self.assertTrue(eventually(lambda: recorder.failure is not None))
                raise KeyError

    def test_nothing_can_be_done_before_the_start_and_after_the_end(self):
        recorder = merulib.Recorder(small_info(self.file("movie.mp4")))
        calls = [
            lambda: recorder.write_image(grey(1), 0),
            lambda: recorder.write_samples(b"", 0),
            recorder.pause,
            recorder.resume,
            lambda: recorder.is_paused,
            lambda: recorder.info,
        ]
        for call in calls:
            with self.assertRaisesRegex(ValueError, "has not been started"):
                call()
        self.assertEqual(recorder.movie_time, 0)
        with recorder:
            recorder.write_image(grey(1), 0)
            with self.assertRaises(RuntimeError):
                recorder.start()
        for call in calls:
            with self.assertRaisesRegex(ValueError, "is over"):
                call()
        with self.assertRaises(RuntimeError):
            recorder.start()
        recorder.stop()

    def test_a_recorder_that_was_never_started_can_be_stopped(self):
        recorder = merulib.Recorder(small_info(self.file("movie.mp4")))
        recorder.stop()
        with self.assertRaises(RuntimeError):
            recorder.start()

    def test_a_packet_recorder_that_fails_raises_ffmpeg_s_code(self):
        for recorder_of in (
            lambda info: merulib.PacketRecorder(info).start(),
            lambda info: merulib.PacketRecorder(info, asynchronous=True).start().wait_started(LONG_SEC),
        ):
            with self.assertRaises(merulib.StartError) as caught:
                recorder_of(merulib.packet_info(self.file("no/movie.mp4")))
            self.assertEqual(caught.exception.code, -errno.ENOENT)
            self.assertTrue(caught.exception.text)

    def test_sound_that_never_came_is_told_at_the_end(self):
        told = []
        info = merulib.packet_info(self.file("movie.mp4"), video_format=None)
        with self.assertRaises(merulib.RecordingError) as caught:
            with merulib.PacketRecorder(info, lambda code, text: told.append((code, threading.get_ident()))):
                pass
        self.assertLess(caught.exception.code, 0)
        # While this thread waited inside the library, another one got through to Python.
        self.assertEqual(len(told), 2)
        self.assertNotEqual(told[1][1], threading.get_ident())

    @unittest.skipIf(sys.platform == "win32", "needs a limit of file sizes")
    def test_a_disk_that_gets_full_is_raised_by_the_next_push(self):
        code = FULL_DISK + """
limit(32 * 1024)
try:
    push(recorder, 100000)
except merulib.RecordingError as error:
    print(error.code == -errno.EFBIG, error.text, told[1:] == [(error.code, error.text)])
recorder.stop()
print("stopped")
"""
        status, printed, errors = run_python(code, self.folder)
        self.assertEqual((status, printed.splitlines()[-2:]), (0, ["True File too large True", "stopped"]), errors)

    @unittest.skipIf(sys.platform == "win32", "needs a limit of file sizes")
    def test_a_disk_that_gets_full_is_raised_at_the_end_of_the_block(self):
        code = FULL_DISK + """
try:
    with recorder:
        push(recorder, 10)
        assert recorder.failure is None
        limit(16)  # the rest, and the end of the movie
except merulib.RecordingError as error:
    print(error.code == -errno.EFBIG)
"""
        status, printed, errors = run_python(code, self.folder)
        self.assertEqual((status, printed.splitlines()[-1:]), (0, ["True"]), errors)


if __name__ == "__main__":
    unittest.main()

"""What lives how long: callbacks, sessions, and movies that a program forgets."""

import gc
import os
import threading
import unittest
import weakref

import merulib
from merulib import _session
from support import FRAME_USEC, LONG_SEC, FolderTest, eventually, grey, picture_info, run_python, streams

SCRIPT = """
import merulib, os, sys
recorder = merulib.Recorder(merulib.movie_info("movie.mp4", width=64, height=48, fps=25)).start()
for n in range(20):
    recorder.write_image(bytes([n]) * (64 * 48 * 4), n * 40000)
"""


class Callback:
    """A callback that can be watched."""

    def __init__(self):
        self.told = []

    def __call__(self, code, text):
        self.told.append((code, text, threading.get_ident()))


class LifetimeTest(FolderTest):
    def sessions(self):
        """One session of each kind and of each outcome, with a callback of its own."""
        good, bad = self.file("movie.mp4"), self.file("no/movie.mp4")
        for asynchronous in (False, True):
            for url in (good, bad):
                yield merulib.Recorder, picture_info(url), asynchronous
                yield merulib.PacketRecorder, merulib.packet_info(url), asynchronous

    def run_session(self, kind, info, asynchronous):
        callback = Callback()
        recorder = kind(info, callback, asynchronous=asynchronous)
        try:
            with recorder:
                recorder.wait_started(LONG_SEC)
        except merulib.MeruError:
            pass
        self.assertTrue(callback.told)
        return weakref.ref(callback), weakref.ref(recorder)

    def test_nothing_is_kept_of_a_session_that_is_over(self):
        for session in self.sessions():
            with self.subTest(session[0].__name__, url=session[1].url, asynchronous=session[2]):
                callback, recorder = self.run_session(*session)
                gc.collect()
                self.assertIsNone(callback())
                self.assertIsNone(recorder())
        self.assertEqual(_session.sessions.entries(), [])

    def test_threads_and_files_do_not_pile_up(self):
        def used():
            return threading.active_count(), len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))

        if not os.path.isdir("/proc/self/fd"):
            self.skipTest("open files cannot be counted")
        for session in self.sessions():
            self.run_session(*session)
        # A thread of the library that tells of a failed start may take a moment to be gone.
        before = used()
        for _ in range(5):
            for session in self.sessions():
                self.run_session(*session)
        self.assertTrue(eventually(lambda: all(now <= then for now, then in zip(used(), before))), (before, used()))

    def test_a_session_that_runs_is_kept_without_a_variable(self):
        callback = Callback()
        merulib.Recorder(picture_info(self.file("movie.mp4")), callback, asynchronous=True).start()
        gc.collect()
        self.assertTrue(eventually(lambda: callback.told))
        (session,) = _session.sessions.entries()
        session.stop()
        self.assertEqual([code for code, _, _ in callback.told], [0])

    def test_a_callback_may_use_and_stop_its_session(self):
        done = threading.Event()

        def on_status(code, text):
            self.assertTrue(recorder.write_image(grey(1), 0))
            recorder.stop()
            recorder.stop()
            done.set()

        path = self.file("movie.mp4")
        recorder = merulib.Recorder(picture_info(path), on_status, asynchronous=True)
        recorder.start()
        self.assertTrue(done.wait(LONG_SEC))
        recorder.stop()  # waits for the thread that completes the movie
        self.assertEqual(streams(path), {"video": ("h264", 1)})
        with self.assertRaisesRegex(ValueError, "is over"):
            recorder.write_image(grey(1), 0)

    def test_a_callback_inside_the_start_may_stop_its_session(self):
        recorder = merulib.Recorder(picture_info(self.file("movie.mp4")), lambda code, text: recorder.stop())
        recorder.start()
        recorder.stop()
        self.assertEqual(_session.sessions.entries(), [])

    def test_a_failed_session_may_be_stopped_by_its_callback(self):
        for kind, info in [
            (merulib.Recorder, picture_info(self.file("no/movie.mp4"))),
            (merulib.PacketRecorder, merulib.packet_info(self.file("no/movie.mp4"))),
        ]:
            stopped = threading.Event()

            def on_status(code, text):
                recorder.stop()
                stopped.set()

            recorder = kind(info, on_status, asynchronous=True)
            recorder.start()
            self.assertTrue(stopped.wait(LONG_SEC))
            with self.assertRaises(merulib.StartError):
                recorder.stop()
            recorder.stop()
        self.assertEqual(_session.sessions.entries(), [])

    def test_what_a_callback_raises_harms_nothing(self):
        code = """
import merulib, sys, threading
seen = threading.Event()
sys.unraisablehook = lambda unraisable: seen.set() if unraisable.exc_type is KeyError else None
def on_status(code, text):
    raise KeyError
info = merulib.movie_info("movie.mp4", width=64, height=48)
for asynchronous in (False, True):
    with merulib.Recorder(info, on_status, asynchronous=asynchronous) as recorder:
        assert seen.wait(20)
        assert recorder.wait_started(20)
        assert recorder.write_image(bytes(64 * 48 * 4), 0)
    seen.clear()
print("whole")
"""
        status, printed, errors = run_python(code, self.folder)
        self.assertEqual((status, printed.splitlines()[-1:]), (0, ["whole"]), errors)
        self.assertEqual(streams(self.file("movie.mp4")), {"video": ("h264", 1)})

    def test_stopping_waits_for_pushes_and_ends_them(self):
        path = self.file("movie.mp4")
        recorder = merulib.Recorder(picture_info(path)).start()
        pushed = threading.Semaphore(0)
        ends = []

        def push():
            n = 0
            try:
                while True:
                    recorder.write_image(grey(n % 200), n * FRAME_USEC)
                    pushed.release()
                    n += 1
            except ValueError as error:
                ends.append((str(error), n))

        thread = threading.Thread(target=push)
        thread.start()
        for _ in range(30):
            self.assertTrue(pushed.acquire(timeout=LONG_SEC))
        stoppers = [threading.Thread(target=recorder.stop) for _ in range(3)]
        for stopper in stoppers:
            stopper.start()
        for waiting in [thread, *stoppers]:
            waiting.join()
        ((text, images),) = ends
        self.assertEqual(text, "the recording is over")
        self.assertGreaterEqual(images, 30)
        self.assertEqual(streams(path), {"video": ("h264", images)})

    def test_other_threads_run_while_the_library_works(self):
        # A start waits for a server that does not answer: the thread that answers is one of Python's.
        import socket

        with socket.create_server(("127.0.0.1", 0)) as listener:
            port = listener.getsockname()[1]
            accepted = []

            def hang_up():
                connection, _ = listener.accept()
                accepted.append(connection.recv(1))
                connection.close()

            server = threading.Thread(target=hang_up)
            server.start()
            with self.assertRaises(merulib.StartError):
                merulib.Recorder(picture_info(f"rtmp://127.0.0.1:{port}/live/key")).start()
            server.join()
        self.assertEqual(len(accepted), 1)

    def test_a_movie_that_the_program_forgets_is_completed(self):
        endings = {"end": "", "exit": "sys.exit(0)", "collected": "del recorder", "error": "raise KeyError",
                   "session in a thread": "import threading; threading.Thread(target=recorder.pause).start()"}
        for name, ending in endings.items():
            with self.subTest(name):
                status, _, errors = run_python(SCRIPT + ending, self.folder)
                self.assertEqual(status, 1 if name == "error" else 0, errors)
                self.assertEqual(streams(self.file("movie.mp4")), {"video": ("h264", 20)})

    @unittest.skipUnless(hasattr(os, "fork"), "there is no fork")
    def test_a_forked_process_leaves_the_session_to_its_parent(self):
        code = SCRIPT + """
import warnings
warnings.simplefilter("ignore")
child = os.fork()
if child == 0:
    sys.exit(0)
assert os.waitpid(child, 0)[1] == 0
recorder.write_image(bytes(64 * 48 * 4), 20 * 40000)
recorder.stop()
"""
        status, _, errors = run_python(code, self.folder)
        self.assertEqual(status, 0, errors)
        self.assertEqual(streams(self.file("movie.mp4")), {"video": ("h264", 21)})

    def test_the_log_goes_where_it_is_sent(self):
        code = """
import merulib
merulib.log_on("first.log")
merulib.log_level(merulib.LogLevel.INFO)
def record():
    with merulib.Recorder(merulib.movie_info("movie.mp4", width=64, height=48)):
        pass
record()
merulib.log_level(-1)
size = len(open("first.log").read())
record()
print(size > 0, size == len(open("first.log").read()))
merulib.log_level(merulib.LogLevel.INFO)
merulib.log_off()
record()
"""
        status, printed, errors = run_python(code, self.folder)
        self.assertEqual(status, 0, errors)
        self.assertIn("True True\n", printed)
        self.assertIn("--- stop OK", (self.folder / "first.log").read_text())
        self.assertIn("--- stop OK", printed)


if __name__ == "__main__":
    unittest.main()

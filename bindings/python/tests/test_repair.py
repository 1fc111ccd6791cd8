"""Repairing movies that were cut short."""

import tempfile
import threading
import unittest
from pathlib import Path

import merulib
from merulib import _repair
from support import FPS, FolderTest, decoded_greys, picture_sums, push_scene, run_python, small_info, streams


class RepairTest(FolderTest):
    IMAGES = 24 * FPS  # so that the index has some tens of lines, and its progress is told more than once

    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory(prefix="merulib-test-") as name:
            folder = Path(name)
            with merulib.Recorder(small_info(folder / "whole.mp4", snapshot_path=folder / "cut.index")) as recorder:
                push_scene(recorder, cls.IMAGES)
            cls.sums = picture_sums(str(folder / "whole.mp4"))
            data = (folder / "whole.mp4").read_bytes()
            cls.cut_movie = data[: data.rindex(b"moov") - 4]
            cls.index = (folder / "cut.index").read_bytes()

    def setUp(self):
        super().setUp()
        (self.folder / "cut.mp4").write_bytes(self.cut_movie)
        (self.folder / "cut.index").write_bytes(self.index)
        self.paths = self.file("cut.mp4"), self.file("cut.index"), self.file("repaired.mp4")

    def check_repaired(self):
        path = self.file("repaired.mp4")
        # All but the last packet, of which the index does not know the size.
        self.assertGreaterEqual(streams(path)["video"][1], self.IMAGES - 1)
        sums = picture_sums(path)
        self.assertEqual(sums, self.sums[: len(sums)])

    def test_a_movie_without_its_table_is_rebuilt(self):
        told = []
        merulib.repair(*self.paths, lambda progress: told.append((progress, threading.get_ident())))
        self.check_repaired()
        self.assertEqual(told[-1], (1.0, threading.get_ident()))
        self.assertGreater(len(told), 2)
        self.assertEqual(told, sorted(told))

    def test_half_a_movie_gives_its_half(self):
        (self.folder / "cut.mp4").write_bytes(self.cut_movie[: len(self.cut_movie) // 2])
        merulib.repair(*(path.encode() for path in self.paths))
        found = len(decoded_greys(self.file("repaired.mp4")))
        self.assertGreater(found, self.IMAGES // 4)
        self.assertLess(found, self.IMAGES * 3 // 4)
        self.assertEqual(picture_sums(self.file("repaired.mp4")), self.sums[:found])

    def test_failures_raise_the_library_s_code(self):
        broken, index, output = self.paths
        for paths, code in [
            ((self.file("nothing.mp4"), index, output), merulib.RepairCode.NO_MOVIE),
            ((broken, self.file("nothing.index"), output), merulib.RepairCode.NO_INDEX),
            ((broken, index, self.file("no/movie.mp4")), merulib.RepairCode.WRITE_FAILED),
            ((broken, index, broken), merulib.RepairCode.WRITE_FAILED),
        ]:
            with self.subTest(code=code):
                with self.assertRaises(merulib.RepairError) as caught:
                    merulib.repair(*paths)
                self.assertEqual(caught.exception.code, code)
                self.assertTrue(caught.exception.text)
                with self.assertRaises(merulib.RepairError) as caught:
                    with merulib.Repair(*paths):
                        pass
                self.assertEqual(caught.exception.code, code)
        with self.assertRaises(ValueError):
            merulib.repair(broken, index, "a\0b")

    def test_what_the_progress_raises_comes_out(self):
        calls = []

        def fail(progress):
            calls.append(progress)
            raise KeyError("mine")

        with self.assertRaises(KeyError):
            merulib.repair(*self.paths, fail)
        with self.assertRaises(KeyError):
            merulib.Repair(*self.paths, fail).wait()
        self.assertEqual(len(calls), 2)
        self.check_repaired()

    def test_a_repair_in_the_background_is_waited_for(self):
        threads = set()
        with merulib.Repair(*self.paths, lambda progress: threads.add(threading.get_ident())) as repair:
            self.assertTrue(repair.wait())
            self.assertFalse(repair.running)
            self.assertEqual(repair.progress, 1.0)
        self.check_repaired()
        self.assertNotIn(threading.get_ident(), threads)
        repair.stop()
        self.assertFalse(repair.running)
        self.assertTrue(repair.wait(0))

    def test_leaving_the_block_waits_for_the_end(self):
        with merulib.Repair(*self.paths):
            pass
        self.check_repaired()

    def test_a_repair_that_runs_is_not_over(self):
        inside, go_on = threading.Event(), threading.Event()
        self.addCleanup(go_on.set)

        def hold(progress):
            inside.set()
            go_on.wait()

        with merulib.Repair(*self.paths, hold) as repair:
            self.assertTrue(inside.wait(20))
            self.assertTrue(repair.running)
            self.assertFalse(repair.wait(0.05))
            go_on.set()
        self.check_repaired()

    def test_an_exception_in_the_block_breaks_it_off(self):
        inside, go_on = threading.Event(), threading.Event()
        told = []

        def hold(progress):
            told.append(progress)
            inside.set()
            go_on.wait()

        with self.assertRaises(KeyError):
            with merulib.Repair(*self.paths, hold):
                self.assertTrue(inside.wait(20))
                # Whoever breaks the repair off waits for this callback, so it must go on from elsewhere.
                threading.Timer(0.5, go_on.set).start()
                raise KeyError
        self.assertLess(told[-1], 1.0)

    def test_a_repair_may_be_stopped_from_its_progress(self):
        stopped = threading.Event()
        ready = threading.Event()
        told = []

        def stop(progress):
            ready.wait()
            told.append(progress)
            repair.stop()
            stopped.set()

        repair = merulib.Repair(*self.paths, stop)
        ready.set()
        self.assertTrue(stopped.wait(20))
        self.assertTrue(repair.wait(20))
        self.assertEqual(len(told), 1)

    def test_nothing_is_kept_of_a_repair_that_is_over(self):
        with merulib.Repair(*self.paths, lambda progress: None):
            pass
        merulib.repair(*self.paths, lambda progress: None)
        self.assertEqual(_repair._reports.entries() + _repair._running.entries(), [])

    def test_a_forgotten_repair_lets_the_program_end(self):
        code = f"import merulib\nmerulib.Repair(*{self.paths!r}, print)\n"
        status, _, errors = run_python(code, self.folder)
        self.assertEqual(status, 0, errors)


if __name__ == "__main__":
    unittest.main()

"""Where the shared library is found, and what is said when it is not."""

import os
import shutil
import sys
import unittest
from pathlib import Path

from merulib import raw
from support import PACKAGE, FolderTest, run_python

LOAD = """
import merulib
from merulib import raw
try:
    print("loaded", raw.load()._name, merulib.now_usec() > 0)
except merulib.LibraryError as error:
    print(type(error).__name__, isinstance(error, OSError))
    print(error)
"""
NOTHING_INSTALLED = "from merulib import raw\nraw.LIBRARY_NAME = 'libMeruLib-not-there.so.1'\n" + LOAD


class LibraryTest(FolderTest):
    def setUp(self):
        super().setUp()
        shutil.copytree(PACKAGE, self.folder / "site" / "merulib", ignore=shutil.ignore_patterns("__pycache__"))
        self.library = str(Path(raw.load()._name).resolve())

    def run_copy(self, code, **environment):
        """Runs the copied package, which has no library unless the environment says where one is."""
        environment = {raw.LIBRARY_VARIABLE: None, "LD_LIBRARY_PATH": None, "DYLD_LIBRARY_PATH": None, **environment}
        status, printed, errors = run_python(code, self.folder, environment, self.folder / "site")
        self.assertEqual(status, 0, errors)
        return printed

    def test_the_environment_names_the_file(self):
        self.assertEqual(self.run_copy(LOAD, MERULIB_LIBRARY=self.library), f"loaded {self.library} True\n")

    def test_a_file_that_the_environment_names_is_the_only_one_tried(self):
        (self.folder / "site" / "merulib" / raw.LIBRARY_NAME).symlink_to(self.library)
        printed = self.run_copy(LOAD, MERULIB_LIBRARY="/nowhere/libMeruLib.so.1")
        self.assertIn("LibraryNotFoundError True\n", printed)
        self.assertIn("  MERULIB_LIBRARY: /nowhere/libMeruLib.so.1: ", printed)
        self.assertNotIn("beside", printed)

    def test_it_is_found_beside_the_package(self):
        for place in ("site/merulib", "site"):
            link = self.folder / place / raw.LIBRARY_NAME
            link.symlink_to(self.library)
            with self.subTest(place):
                self.assertEqual(self.run_copy(LOAD), f"loaded {link.parent.resolve() / link.name} True\n")
            link.unlink()

    @unittest.skipUnless(sys.platform.startswith("linux"), "the loader's variable has another name")
    def test_the_system_s_loader_finds_it(self):
        folder = self.folder / "lib"
        folder.mkdir()
        (folder / raw.LIBRARY_NAME).symlink_to(self.library)
        self.assertEqual(self.run_copy(LOAD, LD_LIBRARY_PATH=str(folder)), f"loaded {raw.LIBRARY_NAME} True\n")

    def test_what_was_tried_is_said_when_there_is_none(self):
        printed = self.run_copy(NOTHING_INSTALLED)
        self.assertIn("LibraryNotFoundError True\n", printed)
        self.assertIn("set MERULIB_LIBRARY to its file", printed)
        package = (self.folder / "site").resolve() / "merulib"
        self.assertIn(f"  beside the package: {package}{os.sep}libMeruLib-not-there.so.1: ", printed)
        self.assertIn(f"  beside the package: {package.parent}{os.sep}libMeruLib-not-there.so.1: ", printed)
        self.assertIn("  the system's loader: libMeruLib-not-there.so.1: ", printed)

    def test_a_file_that_is_no_library_is_told_with_the_loader_s_reason(self):
        text = self.folder / "text.so"
        text.write_text("not a library")
        printed = self.run_copy(LOAD, MERULIB_LIBRARY=str(text))
        self.assertRegex(printed, r"LibraryNotFoundError True\n(.*\n)*  MERULIB_LIBRARY: .*text\.so: \S+")

    @unittest.skipUnless(sys.platform.startswith("linux"), "needs some other library")
    def test_a_library_that_lacks_a_function_is_named_with_it(self):
        printed = self.run_copy(LOAD, MERULIB_LIBRARY="libm.so.6")
        self.assertIn("LibraryFunctionError True\nlibm.so.6 has no function MERU_start", printed)

    def test_importing_needs_no_library(self):
        printed = self.run_copy("import merulib\nprint(merulib.movie_info('a.mp4', width=2, height=2).width)",
                                MERULIB_LIBRARY="/nowhere")
        self.assertEqual(printed, "2\n")

    def test_a_start_without_a_library_leaves_the_recorder_as_it_was(self):
        code = """
import merulib, os
recorder = merulib.Recorder(merulib.movie_info("a.mp4", width=64, height=48))
try:
    recorder.start()
except merulib.LibraryNotFoundError:
    os.environ["MERULIB_LIBRARY"] = os.environ["LATER"]
    with recorder:
        print(recorder.write_image(bytes(64 * 48 * 4), 0))
"""
        self.assertEqual(self.run_copy(code, MERULIB_LIBRARY="/nowhere", LATER=self.library), "True\n")


if __name__ == "__main__":
    unittest.main()

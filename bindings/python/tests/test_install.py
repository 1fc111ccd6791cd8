"""The package can be installed by pip."""

import importlib.util
import os
import shutil
import subprocess
import sys
import unittest
from importlib import metadata

from merulib import raw
from support import LONG_SEC, PACKAGE, FolderTest, run_python


def has_tools():
    """Whether a package can be built here, without fetching anything."""
    if importlib.util.find_spec("pip") is None:
        return False
    try:
        setuptools = int(metadata.version("setuptools").split(".")[0])
    except metadata.PackageNotFoundError:
        return False
    # The newer ones make wheels by themselves.
    return setuptools >= 71 or (setuptools >= 61 and importlib.util.find_spec("wheel") is not None)


class InstallTest(FolderTest):
    def test_the_installed_package_finds_the_library(self):
        if not has_tools():  # not as a decorator: some interpreters call a program without any test that ran a failure
            self.skipTest("pip, or what it builds packages with, is missing")
        source = self.folder / "source"
        source.mkdir()
        for name in ("pyproject.toml", "README.md"):
            shutil.copy(PACKAGE.parent / name, source)
        shutil.copytree(PACKAGE, source / "merulib", ignore=shutil.ignore_patterns("__pycache__"))
        site = self.folder / "site"
        done = subprocess.run(
            [sys.executable, "-m", "pip", "install", "--no-index", "--no-deps", "--no-build-isolation", "--no-compile",
             "--disable-pip-version-check", "--target", str(site), str(source)],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=6 * LONG_SEC, check=False,
        )
        self.assertEqual(done.returncode, 0, done.stdout.decode(errors="replace"))
        installed = {path.name for path in (site / "merulib").iterdir()}
        self.assertEqual(installed - {"__pycache__"}, set(os.listdir(PACKAGE)) - {"__pycache__"})
        code = "import merulib\nprint(merulib.__file__)\nprint(merulib.now_usec() > 0)"
        status, printed, errors = run_python(code, self.folder, {raw.LIBRARY_VARIABLE: raw.load()._name}, site)
        self.assertEqual(status, 0, errors)
        self.assertEqual(printed, f"{site / 'merulib' / '__init__.py'}\nTrue\n")


if __name__ == "__main__":
    unittest.main()

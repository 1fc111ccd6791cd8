#!/usr/bin/env python3
"""Runs the blocks of Python in the documents, or checks those of the shell.

  run_blocks.py python SOURCE LIBRARY    each block, as a program of its own
  run_blocks.py sh SOURCE MERU           what uses `meru` is run, but `meru screen`, which must get as far as to its display;
                                         of the rest, everything that is named must exist

The folder in which the blocks run has a recording that was cut short, cut.mp4 with cut.index, and encoded streams,
camera.h264 and camera.aac.
"""

import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

TIMEOUT_SEC = 60


class Wrong(Exception):
    """A block that is not right."""


def blocks(document, language):
    """The blocks of a language: (line, text)."""
    found, text, start = [], None, 0
    for number, line in enumerate(document.read_text(encoding="utf-8").splitlines(), 1):
        if line.startswith("```"):
            if text is None:
                text, start, wanted = [], number, line[3:].strip() == language
            else:
                if wanted:
                    found.append((start, "\n".join(text) + "\n"))
                text = None
        elif text is not None:
            text.append(line)
    if text is not None:
        raise Wrong(f"{document}: the block in line {start} does not end")
    return found


def run(command, folder, environment=None):
    done = subprocess.run(command, cwd=folder, env=dict(os.environ, **(environment or {})), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=TIMEOUT_SEC, check=False)
    if done.returncode != 0:
        raise Wrong(f"exit status {done.returncode}\n{done.stdout.decode(errors='replace')}")


class PythonBlocks:
    def __init__(self, source, library):
        self.environment = {
            "PYTHONPATH": str(source / "bindings" / "python"),
            "PYTHONDONTWRITEBYTECODE": "1",
            "MERULIB_LIBRARY": str(library),
        }

    def prepare(self, folder):
        code = """
import merulib
info = merulib.movie_info("cut.mp4", snapshot_path="cut.index", width=160, height=120, fps=25, channels=2)
with merulib.Recorder(info) as recorder:
    for n in range(75):
        recorder.write_image(bytes([n, n, n, 255]) * (160 * 120), n * 40000)
        recorder.write_samples(bytes(1920 * 4), n * 40000)
"""
        run([sys.executable, "-c", code], folder, self.environment)

    def check(self, text, folder):
        run([sys.executable, "-X", "dev", "-W", "error", "-c", text], folder, self.environment)


class ShellBlocks:
    def __init__(self, source, meru):
        self.source = source
        self.meru = Path(meru)
        self.environment = {"PATH": f"{self.meru.parent}{os.pathsep}{os.environ['PATH']}"}
        self.packages = None  # where a block has made Debian packages
        presets = json.loads((source / "CMakePresets.json").read_text(encoding="utf-8"))
        self.presets = {
            kind: {preset["name"] for preset in presets[f"{kind}Presets"] if not preset.get("hidden")}
            for kind in ("configure", "build", "test")
        }

    def prepare(self, folder):
        made = ["--size", "160x120", "--seconds", "3", "-o", "cut.mp4", "--index", "cut.index"]
        run([str(self.meru), "record", "--test", *made], folder)

    def check(self, text, folder):
        run(["bash", "-n", "-c", text], folder)
        for line in text.splitlines():
            for words in self.commands(line):
                self.check_command(words, folder)

    @staticmethod
    def commands(line):
        """The commands of a line, as lists of words."""
        lexer = shlex.shlex(line, posix=True, punctuation_chars=True)
        lexer.whitespace_split = True
        command = []
        for word in lexer:
            if word in ("&&", "||", ";"):
                yield command
                command = []
            elif re.fullmatch(r"[();<>|&]+", word):
                raise Wrong(f"what {word!r} does cannot be checked: {line}")
            else:
                command.append(word)
        if command:
            yield command

    def check_command(self, words, folder):
        if words[0] == "sudo":
            words = words[1:]
        program = words[0]
        if words[:2] == ["meru", "screen"]:
            self.check_screen(words, folder)
        elif program == "meru":
            run(words, folder, self.environment)
        elif "/" in program:
            self.need(os.access(self.source / program, os.X_OK), f"{program} is no program of the source tree")
        elif program in ("cmake", "ctest"):
            self.check_presets(words)
        elif words[:4] == ["python3", "-m", "pip", "install"]:
            self.need((self.source / words[4] / "pyproject.toml").is_file(), f"{words[4]} cannot be installed")
        elif program == "cpack":
            self.check_packages(words)
        elif words[:2] == ["apt", "install"]:
            self.need(words[2:] == [f"./{self.packages}/*.deb"], f"no packages are made for {' '.join(words)!r}")
        elif words != ["ldconfig"]:
            raise Wrong(f"this check knows nothing of the command {program!r}")

    def check_screen(self, words, folder):
        """The display is opened when all that was typed has been found right."""
        command = [*words, "--display", "none"]
        done = subprocess.run(command, cwd=folder, env=dict(os.environ, **self.environment), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=TIMEOUT_SEC, check=False)
        said = done.stderr.decode(errors="replace")
        self.need(re.search("cannot open the display|without X11", said), f"exit status {done.returncode}\n{said}")

    def check_presets(self, words):
        kind = "test" if words[0] == "ctest" else "build" if "--build" in words else "configure"
        for option, value in zip(words, words[1:]):
            if option == "--preset":
                self.need(value in self.presets[kind], f"there is no preset {value!r} to {kind}")
            if option == "--install":
                self.need(Path(value).name in self.presets["configure"], f"no preset makes {value}")

    def check_packages(self, words):
        config = Path(words[words.index("--config") + 1])
        made = config.name == "CPackConfig.cmake" and config.parent.name in self.presets["configure"]
        self.need(made, f"no preset makes {config}")
        self.packages = words[words.index("-B") + 1]

    @staticmethod
    def need(condition, text):
        if not condition:
            raise Wrong(text)


def prepare(checker, folder):
    """What the blocks find in their folder."""
    checker.prepare(folder)
    movie = folder / "cut.mp4"
    with open(movie, "r+b") as file:
        file.truncate(movie.stat().st_size // 2)
    ffmpeg = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
    run([*ffmpeg, "-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25", "-t", "2", "-c:v", "libx264", "-bf", "0",
         "-x264-params", "aud=1", "camera.h264"], folder)
    run([*ffmpeg, "-f", "lavfi", "-i", "sine", "-t", "2", "-c:a", "aac", "camera.aac"], folder)


def main(language, source, tool):
    source = Path(source).resolve()
    checker = {"python": PythonBlocks, "sh": ShellBlocks}[language](source, tool)
    documents = [source / "README.md", source / "CONTRIBUTING.md", *sorted(source.glob("docs/*.md")),
                 source / "bindings" / "python" / "README.md"]
    count = failures = 0
    with tempfile.TemporaryDirectory(prefix="merulib-docs-") as name:
        folder = Path(name)
        prepare(checker, folder)
        for document in documents:
            for line, text in blocks(document, language):
                count += 1
                try:
                    checker.check(text, folder)
                except (Wrong, subprocess.TimeoutExpired) as error:
                    failures += 1
                    print(f"FAILED: {document.relative_to(source)}:{line}: {error}")
    print(f"{count} blocks, {failures} of them wrong")
    return 1 if failures or count < 5 else 0


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] not in ("python", "sh"):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))

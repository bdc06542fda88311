#!/usr/bin/env python3
"""Compiles and runs the programs of a page of docs/.

Usage: snippets_test.py PAGE PROJECT_DIR BUILD_DIR CXX [SANITIZERS]

A program is a ```cpp block that contains "int main"; other blocks are not looked at. It is compiled with
warnings as errors against the built library, run in an empty folder, and has to end with status 0. Where
a ```text block is the next thing behind it, at most a line of prose between, its standard output must be
that text. A first line "// run with: WORD..." gives it arguments, of which CAMERA becomes the address
of a test camera.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
SECONDS = 60


def programs(page):
    """(line number, source, expected output or None) of each program."""
    text = page.read_text()
    blocks = list(BLOCK.finditer(text))
    for block, following in zip(blocks, blocks[1:] + [None]):
        if block[1] != "cpp" or "int main" not in block[2]:
            continue
        shown = following and following[1] == "text" and text[block.end():following.start()].strip().count("\n") == 0
        yield text.count("\n", 0, block.start()) + 1, block[2], following[2] if shown else None


class Camera:
    """A test camera, started when a program asks for one."""

    def __init__(self, build):
        self.program = build / "tools/orvanta"
        self.process = None
        self.url = None

    def address(self):
        if self.process is None:
            # What GStreamer keeps until its process ends is no leak of ours.
            self.process = subprocess.Popen([self.program, "camera", "--port", "0"], stdout=subprocess.PIPE, text=True,
                                            env={"ASAN_OPTIONS": "detect_leaks=0", "PATH": "/usr/bin:/bin"})
            self.url = self.process.stdout.readline().split()[0]
        return self.url

    def close(self):
        if self.process is not None:
            self.process.terminate()
            self.process.wait()


def main():
    page, project, build = (Path(each).resolve() for each in sys.argv[1:4])
    compiler, *sanitizers = sys.argv[4:]
    camera = Camera(build)
    tried = failed = 0
    with tempfile.TemporaryDirectory() as work:
        for line, source, expected in programs(page):
            tried += 1
            name = f"{page.name}:{line}"
            program = Path(work) / f"line{line}"
            program.with_suffix(".cpp").write_text(source)
            command = [compiler, "-std=c++20", "-Wall", "-Wextra", "-Werror", f"-I{project}", f"{program}.cpp", "-o",
                       program, f"-L{build}/cms", f"-Wl,-rpath,{build}/cms", "-lorvanta-cms"]
            if sanitizers:
                command += ["-g1", f"-fsanitize={sanitizers[0]}"]
            asked = re.match(r"// run with: (.*)\n", source)
            empty = Path(work) / f"in{line}"
            empty.mkdir()
            try:
                subprocess.run(command, check=True, text=True)
                arguments = [camera.address() if each == "CAMERA" else each for each in asked[1].split()] if asked else []
                run = subprocess.run([program, *arguments], cwd=empty, capture_output=True, text=True, timeout=SECONDS)
            except (subprocess.SubprocessError, OSError) as error:
                print(f"{name}: {error}")
                failed += 1
                continue
            if run.returncode != 0:
                print(f"{name}: status {run.returncode}\n{run.stdout}{run.stderr}")
                failed += 1
            elif expected is not None and run.stdout != expected:
                print(f"{name}: the page shows\n{expected}but it prints\n{run.stdout}")
                failed += 1
            else:
                print(f"{name}: runs" + (" and prints what the page shows" if expected is not None else ""))
    camera.close()
    if not tried:
        print(f"{page.name}: no program")
    return failed > 0 or not tried


sys.exit(main())

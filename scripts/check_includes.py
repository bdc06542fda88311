#!/usr/bin/env python3
"""Compiles each source by itself with clang, without making code: in the trees whose folders are united a
source could live on what its neighbours include.
Usage: check_includes.py BUILD FOLDER...     BUILD is configured with ORVANTA_UNITE=OFF
"""
import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys


def command_of(entry):
    words = [word for word in shlex.split(entry["command"]) if not word.startswith(("-fsanitize", "-fno-sanitize"))]
    compiler = next(i for i, word in enumerate(words) if word.endswith(("c++", "g++")))
    output = words.index("-o")
    del words[output : output + 2]
    return ["clang++", *words[compiler + 1 :], "-fsyntax-only", "-Wthread-safety", "-Werror"]


def compile_alone(entry):
    done = subprocess.run(command_of(entry), cwd=entry["directory"], capture_output=True, text=True, check=False)
    if done.returncode:
        print(done.stderr, flush=True)
    return done.returncode == 0


def main():
    build, *folders = sys.argv[1:]
    root = pathlib.Path(__file__).resolve().parent.parent
    wanted = tuple(f"{root}/{folder}/" for folder in folders)
    entries = {}
    for entry in json.loads(pathlib.Path(build, "compile_commands.json").read_text(encoding="utf-8")):
        if entry["file"].startswith(wanted):
            entries[entry["file"]] = entry
    if not entries:
        print(f"{build}: no source of {', '.join(folders)} is compiled there")
        return 1
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(compile_alone, entries.values()))
    print(f"{len(results)} sources compiled by themselves, {results.count(False)} of them do not")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())

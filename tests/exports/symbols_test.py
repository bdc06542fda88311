#!/usr/bin/env python3
"""Looks every name of interface.txt up in the dynamic symbol table of the built library.

Usage: symbols_test.py LIBRARY PROJECT_DIR

Plain functions must be there by their own names, members by their classes'. A member without a symbol may be
defined in the public header of its class, as the compiler then puts it into every client application, or be
pure virtual. Names
that nobody has made yet stand in missing_names.txt; everything else that is not there is a failure.
"""
import re
import subprocess
import sys
from pathlib import Path

# What programs expect of the C library must not come from this one.
TAKEN = {"syslog", "vsyslog", "openlog", "closelog"}


def interface(path):
    """Yields (class or None, name, symbol)."""
    for line in path.read_text().splitlines():
        line = line.partition("#")[0].strip()
        if renamed := re.fullmatch(r"(\w+) = (\w+)", line):
            yield None, renamed[1], renamed[2]
        elif members := re.fullmatch(r"([\w:]+): (.*)", line):
            yield from ((members[1], name, name) for name in members[2].split())
        else:
            yield from ((None, name, name) for name in line.split())


def symbols(library):
    """The defined names of the dynamic table: unmangled ones, and members as (class, name)."""
    def table(*options):
        run = subprocess.run(["nm", "--dynamic", "--defined-only", "--format=posix", *options, library],
                             check=True, capture_output=True, text=True)
        return run.stdout.splitlines()

    plain = {line.split(" ")[0].split("@")[0] for line in table()}
    members = set()
    for line in table("--demangle"):
        if found := re.match(r"((?:\w+::)*)(~?\w+)(?:\[abi:\w+\])?\(", line):
            members.add((found[1][:-2], found[2]))
    return plain, members


def class_text(project, name):
    """The definition of a class in the public headers."""
    for header in sorted((project / "cms").rglob("*.h")):
        if "internal" in header.parts:
            continue
        text = header.read_text()
        if found := re.search(rf"^(?:class|struct)\s+(?:CMS_\w+(?:\([^)]*\))?\s+)*{name}\b[^;{{]*\{{(.*?)^\}};", text,
                              re.MULTILINE | re.DOTALL):
            return found[1]
    return ""


def is_inline(text, name):
    return re.search(rf"(?<![\w~]){name}\([^;{{}}]*\)[^;{{}}]*(?:\{{|= (?:default|0);)", text) is not None


def is_inline_below(project, owner, name):
    """Whether a public header defines the member behind the class."""
    definition = re.compile(rf"^inline .*\b{owner}::{name}\(", re.MULTILINE)
    return any(definition.search(header.read_text()) for header in (project / "cms").rglob("*.h"))


def main():
    library, project = sys.argv[1], Path(sys.argv[2])
    here = project / "tests/exports"
    plain, members = symbols(library)
    allowed = set(line for line in (here / "missing_names.txt").read_text().split("\n")
                  if line and not line.startswith("#"))
    known, absent = set(), set()
    for owner, name, symbol in interface(here / "interface.txt"):
        full = f"{owner}::{name}" if owner else name
        assert full not in known, f"{full} is listed twice"
        known.add(full)
        if owner is None:
            present = symbol in plain
        else:
            text = class_text(project, owner.split("::")[-1])
            present = (owner, name) in members or is_inline(text, name) or is_inline_below(project, owner, name)
        if not present:
            absent.add(full)
    failures = [f"not exported: {name}" for name in sorted(absent - allowed)]
    failures += [f"missing_names.txt has a name that interface.txt has not: {name}" for name in sorted(allowed - known)]
    failures += [f"would take the C library's place: {name}" for name in sorted(TAKEN & plain)]
    print(*failures, sep="\n")
    for name in sorted((allowed & known) - absent):
        print(f"exported by now, remove it from missing_names.txt: {name}")
    print(f"{len(known)} names, {len(known) - len(absent)} exported, {len(absent & allowed)} still to be made")
    return bool(failures)


sys.exit(main())

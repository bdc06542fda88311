#!/usr/bin/env python3
"""Checks which room's objects need whose symbols: what check_arrows.py proves of includes, for what is linked.

Usage: check_links.py BUILD      a built tree; exit status 1 when there are breaches
"""

import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

from check_arrows import LEVELS, room_of


def source_of(path):
    """cms/net/udp_client.cpp, or for the sources of a folder compiled as one, cms/net/*.cpp."""
    united = re.fullmatch(r"unity_(?:\d+_)?(cms_\w+?)_cxx\.cxx\.o", path.name)
    if united:
        return united.group(1).replace("_", "/") + "/*.cpp"
    parts = path.with_suffix("").parts
    return "cms/" + "/".join(parts[parts.index("cms_objects.dir") + 1 :])


def symbols_of(path):
    """What an object defines for others, and what it needs of others."""
    listed = subprocess.run(["nm", "-C", path], capture_output=True, text=True, check=True)
    defined, needed = set(), set()
    for line in listed.stdout.splitlines():
        kind, name = line[17:18], line[19:]
        if kind == "U":
            needed.add(name)
        elif kind in "TDBR":  # not weak: one object's own
            defined.add(name)
    return defined, needed


def main():
    objects = sorted(Path(sys.argv[1], "cms").rglob("cms_objects.dir/**/*.o"))
    if not objects:
        sys.exit(f"no objects in {sys.argv[1]}: build it first")
    home, needs = {}, defaultdict(set)
    for path in objects:
        room = room_of(source_of(path))
        defined, needed = symbols_of(path)
        home.update(dict.fromkeys(defined, room))
        needs[room] |= needed
    found = [
        f"{room} may not need {home[name]}: {name}"
        for room in needs
        for name in sorted(needs[room] & home.keys())
        if home[name] != room and LEVELS[home[name]] >= LEVELS[room]
    ]
    print("\n".join(found) if found else f"the links of {len(objects)} objects follow the arrows")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

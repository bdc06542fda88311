#!/usr/bin/env python3
"""Every thread of the library has a name of its own, and docs/architecture.md lists them all.

Usage: thread_names_test.py PROJECT_DIR
"""

import re
import sys
from collections import Counter
from pathlib import Path

# Threads start here and nowhere else; the second is behind the two thread classes of the interface.
STARTERS = ("cms/runtime/internal/named_thread.cpp", "cms/runtime/internal/native_thread.cpp")
START = re.compile(r"std::j?thread\s*[({]|std::async\s*\(|pthread_create\s*\(|= std::j?thread\b")
# Where a name is given: to a NamedThread, a ThreadTeam or a thread class, or to those that pass it on.
NAME = re.compile(r'(?:\b(?:Start|StartDetached|SetName|Turns)|: EachClientSRManager)\(\s*"([^"]*)"')
COMMENT = re.compile(r"//.*")


def main():
    project = Path(sys.argv[1])
    names, wrong = Counter(), []
    for path in sorted((project / "cms").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        code = COMMENT.sub("", path.read_text())
        place = path.relative_to(project).as_posix()
        if START.search(code) and place not in STARTERS:
            wrong.append(f"{place}: starts a thread by itself, not as a NamedThread")
        names.update(NAME.findall(code))
    table = (project / "docs/architecture.md").read_text().partition("\n## Threads\n")[2].partition("\n## ")[0]
    listed = Counter(name.removesuffix("N") for name in re.findall(r"^\| `([^`]*)` \|", table, re.MULTILINE))
    wrong += [f"{name}: does not begin with cms-" for name in names if not name.startswith("cms-")]
    wrong += [f"{name}: more than 15 bytes" for name in names if len(name) > 15]
    wrong += [f"{name}: {count} kinds of threads have this name" for name, count in names.items() if count > 1]
    wrong += [f"{name}: is not in the table of docs/architecture.md" for name in sorted(names.keys() - listed.keys())]
    wrong += [f"{name}: the table of docs/architecture.md has it, the library has not"
              for name in sorted(listed.keys() - names.keys())]
    wrong += [f"{name}: stands twice in the table" for name, count in listed.items() if count > 1]
    print("\n".join(wrong) if wrong else f"{len(names)} names, as in the table")
    return 1 if wrong or not names else 0


if __name__ == "__main__":
    sys.exit(main())

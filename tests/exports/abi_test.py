#!/usr/bin/env python3
"""The binary interface is the one that was promised: exported names, sizes of public types.

Usage: abi_test.py LIBRARY PROJECT_DIR [--update]      --update writes tests/exports/abi.list anew
"""

import difflib
import re
import subprocess
import sys
import tempfile
from pathlib import Path

OPENING = re.compile(
    r"^(?:namespace (?P<room>\w+)"
    r"|(?:class|struct) (?:CMS_[A-Z_]+(?:\([^)]*\))? )*(?P<type>\w+)[^;{]*) \{$"
)


def types_of(header):
    """The complete types that a header defines outside other types, with their namespaces."""
    rooms, depth, template = [], 0, False
    for line in header.read_text(encoding="utf-8").splitlines():
        code = line.split("//")[0].rstrip()
        match = OPENING.match(code)
        if match and depth == len(rooms):
            if match["room"]:
                rooms.append(match["room"])
            elif not template:
                yield "::".join([*rooms, match["type"]])
        template = code.startswith("template")
        depth += code.count("{") - code.count("}")
        del rooms[depth:]



def sizes(project):
    headers = [
        path for path in (project / "cms").rglob("*.h")
        if "internal" not in path.parts and (project / "cms" / "view") not in path.parents  # another library
    ]
    types = sorted({name for path in headers for name in types_of(path)})
    with tempfile.TemporaryDirectory() as folder:
        source = Path(folder, "sizes.cpp")
        rows = "\n".join(
            f'  std::printf("{name} %zu %zu\\n", sizeof({name}), alignof({name}));' for name in types
        )
        source.write_text(f'#include <cstdio>\n#include "cms/cms.h"\nint main() {{\n{rows}\n}}\n')
        program = Path(folder, "sizes")
        subprocess.run(["g++", "-std=c++20", "-I", project, source, "-o", program], check=True)
        return subprocess.run([program], capture_output=True, text=True, check=True).stdout


def symbols(library):
    """Names that programs can link with: nothing weak, nothing of a class's hidden state."""
    listed = subprocess.run(
        ["nm", "-DC", "--defined-only", library], capture_output=True, text=True, check=True
    ).stdout
    names = {line[19:] for line in listed.splitlines() if line[17:18] in "TDBR"}
    return "".join(f"{name}\n" for name in sorted(names) if not re.search("_asan", name))


def main():
    library, project = sys.argv[1], Path(sys.argv[2])
    kept = project / "tests/exports/abi.list"
    now = f"# type, size, alignment\n{sizes(project)}\n# names\n{symbols(library)}"
    if "--update" in sys.argv:
        kept.write_text(now, encoding="utf-8")
        return 0
    promised = kept.read_text(encoding="utf-8")
    if now == promised:
        print("the binary interface is as promised")
        return 0
    difference = difflib.unified_diff(
        promised.split("\n"), now.split("\n"), "promised", "built", n=0, lineterm=""
    )
    print("\n".join(difference))
    print(
        "A version that is out keeps what it promised; in a new minor version, and before one is out:\n"
        "tests/exports/abi_test.py LIBRARY PROJECT_DIR --update"
    )
    return 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks which file includes which (see docs/architecture.md, "The arrows"). Prints every breach.

Usage: check_arrows.py [TREE]      exit status 1 when there are breaches
"""

import re
import sys
from pathlib import Path

# A room may include itself and the rooms of lower levels; never its neighbours of one level.
LEVELS = {
    "exports": 6,
    "httpserver": 5,
    "ipcam": 5,
    "playback": 5,
    "streaming": 5,
    "view": 5,
    "live": 4,
    "audio": 3,
    "net": 3,
    "recording": 3,
    "probes": 2,
    "live/media": 1,
    "runtime": 0,
}

# The stream probes are for everybody who has frames.
PROBES = ("cms/streaming/stream_probes", "cms/streaming/internal/bit_reader", "cms/streaming/internal/nal_unit")

# Of a folder's internal headers cms/exports/ may include all, and other folders these.
SHARED_INTERNALS = {
    "cms/audio/internal/block_decoder.h",
    "cms/live/media/internal/adts.h",
    "cms/live/media/internal/bit_reader.h",
    "cms/live/media/internal/borrowed_packet.h",
    "cms/live/media/internal/codec_map.h",
    "cms/live/media/internal/fisheye_picture.h",
    "cms/live/media/internal/library_silence.h",
    "cms/live/media/internal/picture_converter.h",
    "cms/live/media/internal/video_codec.h",
    "cms/net/internal/listening_socket.h",
    "cms/net/internal/socket_address.h",
    "cms/net/internal/socket_io.h",
    "cms/net/internal/thread_team.h",
    "cms/net/internal/tls_library.h",
    "cms/net/internal/tls_stream.h",
    "cms/net/internal/wait_ready.h",
    "cms/recording/internal/database_file.h",
    "cms/recording/internal/database_locks.h",
    "cms/recording/internal/database_paths.h",
    "cms/recording/internal/record_bytes.h",
    "cms/recording/site/internal/site_gaps.h",
    "cms/recording/site/internal/site_recording.h",
    "cms/runtime/internal/cancel_gate.h",
    "cms/runtime/internal/named_thread.h",
    "cms/runtime/internal/turns.h",
    "cms/streaming/internal/bit_reader.h",
    "cms/streaming/internal/nal_unit.h",
}

# A library of its own, which not everybody has.
OPTIONAL = "cms/view/"

# What the library is built with stays out of the headers that client applications include.
FOREIGN = re.compile(r"(libav\w+|libsw\w+|openssl|curl|gst|glib|png|nlohmann|CLI|SDL\w*|fontconfig)(/|\.h|$)")

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def without_extension(path):
    return path.rsplit(".", 1)[0]


def room_of(path):
    """The folder of the library that counts: cms/recording/site/... is of "recording"."""
    if without_extension(path) in PROBES:
        return "probes"
    folders = path.split("/")[1:-1]
    return next(name for name in ("/".join(folders[:2]), folders[0]) if name in LEVELS or "/" not in name)


def is_public_header(path):
    return path.startswith("cms/") and path.endswith(".h") and "/internal/" not in path


def breaches_of_library_file(path, target):
    """Why the library's file `path` may not include the library's header `target`; None if it may."""
    if is_public_header(path) and "/internal/" in target:
        return "a public header includes an internal one"
    if path == "cms/cms.h":
        return None
    if target == "cms/cms.h":
        return "cms/cms.h is for client applications"
    room, target_room = room_of(path), room_of(target)
    for name in (room, target_room):
        if name not in LEVELS:
            return f"the folder {name} has no level in {Path(__file__).name}"
    if room != target_room and LEVELS[target_room] >= LEVELS[room]:
        return f"{room} may not include {target_room}"
    if (
        "/internal/" in target
        and target not in SHARED_INTERNALS
        and room != "exports"
        and target.split("/")[1] != path.split("/")[1]
    ):
        return "an internal header of another folder"
    return None


def breaches_of_file(tree, path):
    text = (tree / path).read_text(encoding="utf-8")
    if path.endswith(".h") and "#pragma once" not in text:
        yield "no #pragma once"
    for bracket, target in INCLUDE.findall(text):
        if is_public_header(path) and FOREIGN.match(target):
            yield f"a public header includes {target}"
        if bracket == "<":
            if target.startswith("cms/") and not path.startswith("examples/"):
                yield f"<{target}> is written with quotes"
            continue
        if not (tree / target).is_file():
            yield f'"{target}" is not a path from the top of the tree'
        elif path.startswith("cms/"):
            if not target.startswith("cms/"):
                yield f"the library includes {target}"
            elif reason := breaches_of_library_file(path, target):
                yield f"{target}: {reason}"
        elif path.split("/")[0] in ("tools", "examples", "fleet"):
            if "/internal/" in target:
                yield f"{target}: a client application includes an internal header"
            elif target.split("/")[0] == "fleet" and path.startswith("tools/fleet/"):
                continue
            elif target.split("/")[0] not in ("cms", path.split("/")[0]):
                yield f"{target}: a client application needs nothing but the library"


def reached_from(tree, path):
    reached, left = set(), [path]
    while left:
        path = left.pop()
        if path not in reached and (tree / path).is_file():
            reached.add(path)
            left += [target for _, target in INCLUDE.findall((tree / path).read_text())]
    return reached


def breaches(tree):
    files = sorted(
        path.relative_to(tree).as_posix()
        for folder in ("cms", "fleet", "tools", "examples", "tests", "fuzz", "bench")
        for path in (tree / folder).rglob("*")
        if path.suffix in (".h", ".cpp") and path.is_file()
    )
    for path in files:
        for reason in breaches_of_file(tree, path):
            yield f"{path}: {reason}"
    if "cms/cms.h" in files:
        reached = reached_from(tree, "cms/cms.h")
        for path in files:
            if is_public_header(path) and not path.startswith(OPTIONAL) and path not in reached:
                yield f"cms/cms.h: does not reach {path}, which client applications may use"


def main():
    tree = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    found = list(breaches(tree))
    print("\n".join(found) if found else "every include follows the arrows")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

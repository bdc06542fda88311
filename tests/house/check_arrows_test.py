#!/usr/bin/env python3
"""One breach of each kind is found, and what is allowed is not called a breach."""

import subprocess
import sys
import tempfile
from pathlib import Path

CHECKER = Path(__file__).resolve().parents[2] / "scripts/check_arrows.py"

# file -> (what it includes, words of the breach expected or "" for none)
TREE = {
    "cms/runtime/api.h": ([], ""),
    "cms/runtime/text.h": (['"cms/net/tcp_client.h"'], "runtime may not include net"),
    "cms/net/tcp_client.h": (['"cms/runtime/api.h"', "<vector>"], ""),
    "cms/net/tcp_client.cpp": (['"cms/net/tcp_client.h"', '"cms/net/internal/io.h"'], ""),
    "cms/net/udp_client.h": (['"cms/net/internal/io.h"'], "a public header includes an internal one"),
    "cms/net/short_name.h": (['"tcp_client.h"'], "not a path from the top"),
    "cms/net/internal/io.h": (["<openssl/evp.h>"], ""),
    "cms/live/media/buffer.h": (['"cms/runtime/api.h"'], ""),
    "cms/live/media/raw_buffer.cpp": (['"cms/net/tcp_client.h"'], "live/media may not include net"),
    "cms/live/decoder.h": (["<libavcodec/avcodec.h>"], "a public header includes libavcodec"),
    "cms/live/decoder.cpp": (["<libavcodec/avcodec.h>", '"cms/recording/recorder.h"'], ""),
    "cms/recording/recorder.h": (['"cms/live/media/buffer.h"', '"cms/streaming/stream_probes.h"'], ""),
    "cms/recording/recorder.cpp": (['"cms/live/decoder.h"'], "recording may not include live"),
    "cms/streaming/stream_probes.h": ([], ""),
    "cms/audio/player.cpp": (['"cms/streaming/client.h"'], "audio may not include streaming"),
    "cms/httpserver/server.cpp": (['"cms/net/internal/io.h"'], "an internal header of another folder"),
    "cms/streaming/client.h": (['"cms/live/decoder.h"'], ""),
    "cms/exports/probes.h": (['"cms/streaming/stream_probes.h"'], ""),
    "cms/exports/codecs.h": ([], ""),
    "cms/newcomer/a.h": (['"cms/runtime/api.h"'], "newcomer has no level"),
    "cms/cms.h": (
        [
            '"cms/exports/probes.h"',  # and with it the stream probes
            '"cms/live/decoder.h"',
            '"cms/net/short_name.h"',
            '"cms/net/udp_client.h"',
            '"cms/newcomer/a.h"',
            '"cms/recording/recorder.h"',
            '"cms/runtime/text.h"',
            '"cms/streaming/client.h"',
        ],
        "does not reach cms/exports/codecs.h",
    ),
    "tools/live.cpp": (['"cms/cms.h"', "<CLI/CLI.hpp>"], ""),
    "tools/peek.cpp": (['"cms/net/internal/io.h"'], "a client application includes an internal"),
    "tests/net/io_test.cpp": (['"cms/net/internal/io.h"'], ""),
}


def main():
    with tempfile.TemporaryDirectory() as folder:
        for name, (includes, _) in TREE.items():
            path = Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("#pragma once\n" + "".join(f"#include {i}\n" for i in includes))
        checked = subprocess.run([CHECKER, folder], capture_output=True, text=True, check=False)
    found = checked.stdout.splitlines()
    wrong = [] if checked.returncode == 1 else [f"exit status {checked.returncode}"]
    for name, (_, expected) in TREE.items():
        mine = [line for line in found if line.startswith(name + ":")]
        if len(mine) != bool(expected) or any(expected not in line for line in mine):
            wrong.append(f"{name}: expected {expected!r}, found {mine}")
    print("\n".join(wrong + [checked.stderr]) if wrong else "all as expected")
    return 1 if wrong else 0


sys.exit(main())

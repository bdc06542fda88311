#!/usr/bin/env python3
"""A larger fleet than this machine could record, on a real engine: what it costs at rest, and how long a dead
recorder's cameras wait for another one. Times count half as much again, as in fleet_demo_test.py.

Usage: fleet_simulate_test.py ORVANTA_FLEET
"""

import json
import os
import shutil
import subprocess
import sys

from fleet_recordings_test import memory

RECORDERS, CAMERAS = 6, 240


def main():
    if not shutil.which("etcd"):
        print("skipped: etcd-server is not installed")
        return 77
    done = subprocess.run(
        [sys.argv[1], "simulate", "--recorders", str(RECORDERS), "--cameras", str(CAMERAS), "--seconds", "5", "--json"],
        stdout=subprocess.PIPE, env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0", TMPDIR=memory() or "/tmp"), timeout=110, check=False,
    )
    print(done.stdout.decode())
    if done.returncode != 0:
        print(f"the simulation ended with {done.returncode}")
        return 1
    figures = json.loads(done.stdout)
    wrong = []
    # A renewal each second, and room for one look of each that joined; nobody asks without a reason.
    if figures["requests_per_second"] > RECORDERS * 1.2:
        wrong.append("at rest more is asked than signs of life")
    if not CAMERAS / RECORDERS / 2 <= figures["killed_cameras"] <= CAMERAS / RECORDERS * 1.5:
        wrong.append("the recorders have not about as much as each other")
    if not 0 < figures["claimed_ms"] <= 9_000 or not 0 < figures["recorded_ms"] <= 15_000:
        wrong.append("the dead one's cameras waited too long")
    if figures["claims_refused"] > figures["killed_cameras"] / 10:
        wrong.append("several recorders ran for the same cameras")
    print("\n".join(wrong) or "all as promised")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

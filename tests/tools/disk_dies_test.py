#!/usr/bin/env python3
"""A disk that dies while it is recorded onto: an ext4 file system whose device has no more room below it, so that writing fails
as on a broken one. Its site goes on on the other disk; the site that was there all the time loses no picture.

It needs root to make such a disk; without it, or where nothing can be mounted, it ends with 77.

Usage: disk_dies_test.py ORVANTA
"""

import json
import os
import signal
import subprocess
import sys
import tempfile

from numbered_pictures import holes_of, recordings
from orvanta_process import LIMIT, Orvanta, wait_for

SKIPPED = 77
PROGRAM = sys.argv[1]
ROOM_MB, DISK_MB = 48, 256


def make_disk(work):
    """The mounted disk, and the folder in whose little room it really lies."""
    room, disk = os.path.join(work, "room"), os.path.join(work, "dying")
    for folder in (room, disk):
        os.mkdir(folder)
    image = os.path.join(room, "image")
    for command in (["mount", "-t", "tmpfs", "-o", f"size={ROOM_MB}m", "none", room], ["truncate", "-s", f"{DISK_MB}M", image],
                    ["mkfs.ext4", "-q", "-m", "0", "-J", "size=4", image], ["mount", "-o", "loop", image, disk]):
        done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=LIMIT)
        if done.returncode != 0:
            print(f"skipped: {' '.join(command)}: {done.stderr.strip()}")
            sys.exit(SKIPPED)
    return disk, room


def take_all_room(room):
    with open(os.path.join(room, "rest"), "wb", buffering=0) as rest:
        try:
            while True:
                rest.write(bytes(1 << 16))
        except OSError:
            pass


def status_of(data):
    asked = subprocess.run([PROGRAM, "status", "--data", data, "--json"], capture_output=True, check=False, timeout=LIMIT)
    return json.loads(asked.stdout) if asked.returncode in (0, 1) else None


def check(work):
    disk, room = make_disk(work)
    well = os.path.join(work, "well")
    config, log_file = os.path.join(work, "recorder.toml"), os.path.join(work, "log")
    with Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--fps", "10", "--gop", "5", "--key-size",
                 "100000") as camera, open(log_file, "w+", encoding="utf-8") as log:
        url = camera.start["cameras"][0]["url"]
        with open(config, "w", encoding="utf-8") as text:
            for path in (disk, well):
                text.write(f'[[disks]]\npath = "{path}"\nfree = "1 MiB"\n')
            for site, path in ((1, disk), (2, well)):
                text.write(f'[[sites]]\nnumber = {site}\nurl = "{url}"\ntransport = "tcp"\ndisk = "{path}"\n'
                           'file-size = "1 MiB"\n')
        recorder = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", PROGRAM, "record", "--config", config], stderr=log)
        try:
            wait_for(lambda: len(recordings(disk, 1)) >= 2 and len(recordings(well, 2)) >= 2, "both sites are recorded")
            take_all_room(room)
            wait_for(lambda: len(recordings(well, 1)) >= 2, "the site of the dead disk goes on on the other one")
            status = status_of(well)
            assert all(site["recording"] == "recording" for site in status["sites"]), status
            assert [each["path"] for each in status["disks"] if not each["usable"]] == [disk], status["disks"]
            recorder.send_signal(signal.SIGTERM)
            assert recorder.wait(LIMIT) in (0, 1)  # 1: the dead disk did not answer
            log.seek(0)
            assert f"the disk {disk} fails" in log.read()
        except BaseException:
            log.seek(0)
            print(log.read()[-8000:], file=sys.stderr)
            raise
        finally:
            recorder.kill()
            recorder.wait()
    for site in (1, 2):
        count, holes = holes_of(PROGRAM, well, site, work)
        print(f"site {site}: {count} pictures on the well disk, holes {holes}")
        assert count > 0 and not holes, (site, holes)


if os.geteuid() != 0:
    print("skipped: only root can make a disk that dies")
    sys.exit(SKIPPED)
if sys.argv[2:] != ["--inside"]:
    if subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        print("a mount namespace cannot be made here")  # as in a chroot
        sys.exit(SKIPPED)
    # What is mounted there ends with it.
    os.execvp("unshare", ["unshare", "--mount", sys.executable, __file__, PROGRAM, "--inside"])
with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
    check(folder)
    for mounted in ("dying", "room"):
        subprocess.run(["umount", "--lazy", os.path.join(folder, mounted)], check=False)
print("a disk that dies stops its sites only, and they go on on another one")

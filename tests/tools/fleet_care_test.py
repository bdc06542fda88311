#!/usr/bin/env python3
"""What an operator does with a fleet, with a real engine, recorders and cameras: a group without room, a recorder
emptied for its maintenance and filled again, and an engine that lost everything.

Usage: fleet_care_test.py ORVANTA_FLEET ORVANTA_CAMERA
"""

import json
import shutil
import signal
import sys
import tempfile
import time

from fleet_recordings_test import Fleet, expect

CAMERAS = 6


def holders(fleet):
    return {each["camera"]: each["recorder"] for each in fleet.json("cameras")[0]["cameras"]}


def counts(fleet):
    held = list(holders(fleet).values())
    return [held.count("rec1"), held.count("rec2")]


def check(fleet):
    with open(f"{fleet.folder}/camera.log", encoding="utf-8") as file:
        urls = [each["url"] for each in json.loads(file.readline())["cameras"]]
    for i, url in enumerate(urls):
        done = fleet.run("camera", "add", f"cam{i}", "--url", url)
        expect(done.returncode == 0, done.stderr)
    fleet.wait(lambda: fleet.run("status").returncode == 0, "they are not recorded")
    expect(min(counts(fleet)) >= 2, f"not shared out: {counts(fleet)}")

    # Nobody is of this group: one goes to others, one may not and is told of.
    for name, more in (("far", ()), ("stays", ("--stay",))):
        done = fleet.run("camera", "add", name, "--url", urls[0], "--group", "south", *more)
        expect(done.returncode == 0, done.stderr)
    fleet.wait(lambda: "far" in holders(fleet) and holders(fleet)["far"], "a group without room does not spill")
    unplaced = fleet.json("cameras", "--unplaced")[0]["cameras"]
    expect([each["camera"] for each in unplaced] == ["stays"], f"without a place: {unplaced}")
    expect(fleet.run("status").returncode == 1, "all is well, and one camera is not recorded")
    for name in ("far", "stays"):
        expect(fleet.run("camera", "remove", name).returncode == 0, "camera remove")

    drained, code = fleet.json("drain", "rec1", "--wait")
    expect(code == 0 and drained["cameras"] == 0 and counts(fleet) == [0, CAMERAS], f"drained: {drained}")
    expect(fleet.run("undrain", "rec1").returncode == 0, "undrain")
    planned = fleet.json("rebalance", "--dry-run")[0]["moves"]
    # Behind a minute they even out by themselves.
    expect(planned or min(counts(fleet)) >= 2, "there is nothing to even out")
    expect({each["from"] for each in planned} <= {"rec2"}, f"planned: {planned}")
    fleet.json("rebalance")
    fleet.wait(lambda: min(counts(fleet)) >= 2 and not fleet.json("moves")[0]["moves"], "not evened out")
    fleet.wait(lambda: fleet.run("status").returncode == 0, "evening out stopped a recording")

    saved, code = fleet.json("backup", f"{fleet.folder}/backup")
    expect(code == 0 and saved["cameras"] == CAMERAS, f"the backup: {saved}")
    expect(fleet.run("camera", "set", "cam0", "--off").returncode == 0, "camera set")  # nobody records it
    fleet.wait(lambda: fleet.run("status").returncode == 0, "one that is off is missed")
    before = holders(fleet)
    engine = fleet.running["etcd"]
    engine.send_signal(signal.SIGKILL)
    engine.wait()
    shutil.rmtree(fleet.engine)
    fleet.start("etcd", engine.args)
    fleet.wait(lambda: fleet.run("adopt", "--seconds", "1").returncode == 0, "nobody comes back")
    adopted, code = fleet.json("adopt", "--seconds", "20")
    expect(code == 0 and adopted["cameras"] >= CAMERAS - 1 and adopted["recorders"] == 2, f"adopted: {adopted}")
    restored, code = fleet.json("restore", f"{fleet.folder}/backup")
    expect(code == 0 and restored["cameras"] == CAMERAS - adopted["cameras"], f"restored: {restored}")
    fleet.wait(lambda: fleet.run("status").returncode == 0, "not all that was lost is recorded again")
    after = holders(fleet)
    moved = [name for name in after if name != "cam0" and after[name] != before[name]]
    expect(not moved and len(after) == CAMERAS, f"an empty engine moved {moved}")


def main():
    if not shutil.which("etcd"):
        print("skipped: etcd-server is not installed")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        begun = time.time()
        fleet = Fleet(sys.argv[1], sys.argv[2], folder, cameras=CAMERAS, capacity=10)
        try:
            check(fleet)
        except AssertionError as wrong:
            print(wrong)
            return 1
        finally:
            fleet.end()
    print(f"all as expected, in {time.time() - begun:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())

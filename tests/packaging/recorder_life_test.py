#!/usr/bin/env python3
"""The recorder's packages on a Debian of their own: installed, configured for two cameras, run as the unit runs them,
first without their disk, killed, upgraded, and left alone until the disk is full and longer; then nothing that is kept
may be missing or torn.

The system is the running one under an overlay, without this project's tree, and its /var/lib/orvanta is a small disk.
It needs root; without it, or where nothing can be mounted, it ends with 77.

Usage: recorder_life_test.py FOLDER      FOLDER has the packages
"""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SKIPPED = 77
LIMIT = 60  # seconds that any single thing may take
DATA = "/var/lib/orvanta"
DISK_MB, FREE_MB = 96, 32
GOP = 1  # second
WRITTEN = 5  # seconds within which everything is on the disk
ANSWER = 3  # seconds for the camera's answer, and for times in whole seconds
UNIT = "usr/lib/systemd/system/orvanta-recorder.service"


def say(text):
    print(f"== {text}", flush=True)


def wait_for(condition, what, limit=LIMIT):
    end = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < end, f"waited {limit} s in vain: {what}"
        time.sleep(0.2)


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, check=False, **options)
    assert done.returncode == 0, f"{command}: status {done.returncode}\n{done.stdout[-3000:]}{done.stderr[-3000:]}"
    return done.stdout


def mount(*arguments):
    done = subprocess.run(["mount", *map(str, arguments)], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        print(f"skipped: cannot mount: {done.stderr.strip()}")
        sys.exit(SKIPPED)


class Debian:
    """The system that the packages are installed into."""

    def __init__(self, work):
        mount("-t", "tmpfs", "none", work)
        self.root = work / "root"
        for each in (self.root, work / "upper", work / "work"):
            each.mkdir()
        mount("-t", "overlay", "overlay", "-o", f"lowerdir=/,upperdir={work}/upper,workdir={work}/work", self.root)
        mount("-t", "proc", "proc", self.root / "proc")
        mount("--rbind", "/dev", self.root / "dev")
        # Nothing of what is developed is there, but what the packages bring.
        project = Path(__file__).resolve().parents[2].relative_to("/")
        for hidden in ("tmp", "run", project):
            if (self.root / hidden).is_dir():
                mount("-t", "tmpfs", "-o", "mode=1777", "none", self.root / hidden)
        disk = work / "disk"
        with open(disk, "wb") as image:
            image.truncate(DISK_MB << 20)
        run("mkfs.ext4", "-q", "-m", "0", disk)
        self.disk = disk

    def mount_disk(self):
        owner = self.path(DATA).stat()
        mount("-o", "loop", self.disk, self.path(DATA))
        os.chown(self.path(DATA), owner.st_uid, owner.st_gid)
        (self.path(DATA) / "lost+found").rmdir()

    def path(self, inside):
        return self.root / inside.lstrip("/")

    def command(self, *words, user="root:root"):
        return [shutil.which("chroot"), "--userspec", user, str(self.root), *words]

    def run(self, *words, **options):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "DEBIAN_FRONTEND": "noninteractive"}
        return run(*self.command(*words), env=environment, **options)

    def install(self, packages):
        inside = self.path("/tmp/packages")
        shutil.rmtree(inside, ignore_errors=True)
        inside.mkdir()
        for package in recorder_packages(packages):
            shutil.copy(package, inside)
        self.run("dpkg", "--force-unsafe-io", "-i", *(f"/tmp/packages/{each.name}" for each in inside.iterdir()))


class Recorder:
    """The service as its unit has it; no systemd is there."""

    def __init__(self, debian):
        self.debian = debian
        unit = debian.path(UNIT).read_text()
        self.start_command = re.search(r"^ExecStart=(.*)$", unit, re.M)[1].split()
        self.user = re.search(r"^User=(.*)$", unit, re.M)[1] + ":" + re.search(r"^Group=(.*)$", unit, re.M)[1]
        self.umask = int(re.search(r"^UMask=(.*)$", unit, re.M)[1], 8)
        self.process = None
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self.manager.bind(str(debian.path("/run/notify")))
        os.chmod(debian.path("/run/notify"), 0o777)
        self.log = open(debian.path("/tmp/log"), "a", encoding="utf-8")

    def start(self):
        environment = {"PATH": "/usr/bin:/bin", "NOTIFY_SOCKET": "/run/notify", "LC_ALL": "C"}
        self.process = subprocess.Popen(self.debian.command(*self.start_command, user=self.user), env=environment,
                                        stderr=self.log, umask=self.umask)
        wait_for(self.is_ready, "READY=1")

    def is_ready(self):
        assert self.process.poll() is None, f"the recorder ended with {self.process.returncode}"
        with contextlib.suppress(BlockingIOError):
            return b"READY=1" in self.manager.recv(4096)
        return False

    def start_again(self, how):
        """The seconds, by the clock on the wall, in which nobody was there to record, and those until both sites are recorded."""
        begin = time.time()
        assert self.end(how) == (0 if how == signal.SIGTERM else -how)
        self.start()
        ready = time.time()
        wait_for(self.records, "both sites are recorded again")
        return begin, ready, time.time()

    def end(self, how):
        self.process.send_signal(how)
        return self.process.wait(LIMIT)

    def status(self):
        asked = subprocess.run(self.debian.command("orvanta", "status", "--data", DATA, "--json"), capture_output=True,
                               text=True, timeout=LIMIT, check=False)
        return json.loads(asked.stdout) if asked.returncode in (0, 1) else None

    def records(self):
        """Whether both sites are being recorded, and have been since the program began."""
        status = self.status()
        return status and all(site["recording"] == "recording" and site["recorded_bytes"] > 0
                              for site in status["sites"]) and status


def recorder_packages(folder):
    return [each for each in folder.glob("*.deb")
            if re.match(r"liborvanta-cms[0-9.]+_|orvanta-cms-tools_|orvanta-recorder_", each.name)]


def packages_of_tomorrow(packages, to):
    """The same ones with a higher version."""
    to.mkdir()
    for package in recorder_packages(packages):
        content = to / "content"
        run("dpkg-deb", "--raw-extract", package, content)
        control = content / "DEBIAN/control"
        text = control.read_text()
        version = re.search(r"^Version: (.*)$", text, re.M)[1]
        control.write_text(text.replace(version, version + "+tomorrow"))
        run("dpkg-deb", "-Znone", "--build", content, to / package.name)
        shutil.rmtree(content)
    return version + "+tomorrow"


def installed_version(debian):
    return debian.run("dpkg-query", "--show", "--showformat", "${Version}", "orvanta-recorder")


def free_mb(debian):
    disk = os.statvfs(debian.path(DATA))
    return disk.f_bavail * disk.f_frsize / (1 << 20)


def camera_of(debian):
    # Key pictures are filled up: a disk is full soon, and little is encoded.
    process = subprocess.Popen(
        debian.command("orvanta", "camera", "--json", "--port", "0", "--count", "2", "--size", "320x240", "--fps", "10",
                       "--gop", "10", "--key-size", "1500000", user="nobody:nogroup"),
        stdout=subprocess.PIPE, stdin=subprocess.PIPE, env={"PATH": "/usr/bin:/bin", "HOME": "/tmp"})
    line = process.stdout.readline()
    assert line, "the cameras do not start"
    return [each["url"] for each in json.loads(line)["cameras"]]


def configure(debian, urls):
    text = f'[[disks]]\npath = "{DATA}"\nmount = "{DATA}"\nfree = "{FREE_MB} MiB"\n'
    for number, url in enumerate(urls, 1):
        text += f'[[sites]]\nnumber = {number}\nname = "Camera {number}"\nurl = "{url}"\nfile-size = "4 MiB"\n'
    debian.path("/etc/orvanta/recorder.toml").write_text(text)
    debian.run("chgrp", "orvanta", "/etc/orvanta/recorder.toml")
    debian.run("orvanta", "record", "--config", "/etc/orvanta/recorder.toml", "--check")


def fill(debian, recorder):
    """Waits until the disk was full a while ago; it never really was, and no frame was dropped for it."""
    least = DISK_MB
    end = time.monotonic() + LIMIT
    removed = 0
    while removed < 6:
        assert time.monotonic() < end, f"{removed} recordings were removed, {least:.0f} MB were free"
        least = min(least, free_mb(debian))
        status = recorder.status()
        removed = status["disks"][0]["removed_files"]
        time.sleep(0.2)
    assert least > 1, f"only {least:.1f} MB were free"
    assert least < FREE_MB, f"{least:.1f} MB are free: it was not full"
    for site in status["sites"]:
        assert site["dropped"] <= 20 and not site.get("gap"), site  # in front of the first key frame
    return least, removed


def check_what_is_there(debian, holes):
    """Recordings, indexes, records and what a search finds are the same, without a hole but where nobody ran."""
    data = debian.path(DATA)
    files = {f"/{each.relative_to(debian.root)}" for each in data.rglob("*.drv")}
    others = [each for each in data.rglob("*") if each.is_file() and each.parent.name != "orvanta"
              and each.suffix not in (".drv", ".idx", ".DB") and each.name != "RecordDB"]
    assert not others, others
    assert {f"/{each.relative_to(debian.root)}"[:-4] for each in data.rglob("*.idx")} == {each[:-4] for each in files}
    repaired = json.loads(debian.run("orvanta", "repair", "--data", DATA, "--json"))
    assert repaired["repaired"] == repaired["removed"] == repaired["failed"] == repaired["missing"] == 0, repaired
    assert repaired["files"] == len(files), (repaired, files)
    database = json.loads(debian.run("orvanta", "db", "--data", DATA, "--json"))
    listed = {f"{DATA}/recordings/" + "/".join(each["file"].split("\\")[-2:]) for each in database["records"]}
    assert listed == files, listed ^ files
    found = json.loads(debian.run("orvanta", "search", "--data", DATA, "--from", "2020-01-01", "--to", "2100-01-01", "--json"))
    assert {each for span in found["spans"] for each in span["files"]} == files
    frames = 0
    for each in files:
        seen = json.loads(debian.run("orvanta", "inspect", each, "--json"))
        assert seen["end"] == "whole" and seen["skipped_bytes"] == seen["bad_checks"] == seen["idx_mismatches"] == 0, seen
        frames += seen["frames"]
    for site in (1, 2):
        records = sorted((each for each in database["records"] if each["site"] == site), key=lambda each: each["start"])
        assert records, f"nothing of site {site} is left"
        for before, behind in zip(records, records[1:]):
            lost = behind["start"] - before["end"]
            assert lost <= 2 or any(begin - unwritten - 2 <= before["end"] and behind["start"] <= end + 1
                                    and lost <= unwritten + ready - begin + GOP + ANSWER
                                    for begin, ready, end, unwritten in holes), (before, behind, holes)
    return len(files), frames


def inside(packages):
    with contextlib.ExitStack() as at_the_end:
        work = Path(tempfile.mkdtemp())
        at_the_end.callback(work.rmdir)
        at_the_end.callback(subprocess.run, ["umount", "--recursive", "--lazy", work], check=False)
        debian = Debian(work)
        say("installed")
        debian.install(packages)
        assert debian.run("stat", "-c", "%U:%G:%a", DATA) == "orvanta:orvanta:750\n"
        configure(debian, camera_of(debian))
        recorder = Recorder(debian)
        holes = []
        try:
            recorder.start()
            time.sleep(3)
            assert not list(debian.path(DATA).iterdir()), "the place of a disk that is not mounted is recorded into"
            debian.mount_disk()
            wait_for(recorder.records, "both sites are recorded")

            say("killed")
            holes.append((*recorder.start_again(signal.SIGKILL), WRITTEN))

            say("upgraded")
            version = packages_of_tomorrow(packages, work / "tomorrow")
            configuration = debian.path("/etc/orvanta/recorder.toml").read_text()
            debian.install(work / "tomorrow")
            assert installed_version(debian) == version
            assert debian.path("/etc/orvanta/recorder.toml").read_text() == configuration
            assert recorder.process.poll() is None and recorder.records(), "an upgrade ends nothing by itself"
            holes.append((*recorder.start_again(signal.SIGTERM), 0))
            begin, ready, end, _ = holes[-1]
            say(f"ready {ready - begin:.1f} s and recorded again {end - begin:.1f} s after the stop")

            least, removed = fill(debian, recorder)
            say(f"full: {removed} recordings were removed, {least:.1f} MB of {FREE_MB} were free at least")
            assert recorder.end(signal.SIGTERM) == 0
            files, frames = check_what_is_there(debian, holes)
            say(f"{files} recordings of {frames} frames are there, whole, listed and found")
        except BaseException:
            print(debian.path("/tmp/log").read_text(errors="replace")[-20000:])
            raise
        debian.run("dpkg", "--purge", "orvanta-recorder")
        assert any(debian.path(DATA).rglob("*.drv")), "recordings outlive the package"


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: only root can make a system of its own")
        sys.exit(SKIPPED)
    if sys.argv[1] != "--inside":
        # What is mounted and started there ends with it.
        os.execvp("unshare", ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", sys.executable,
                              __file__, "--inside", sys.argv[1]])
    inside(Path(sys.argv[2]).resolve())
    print("all as expected")

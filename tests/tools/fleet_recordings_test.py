#!/usr/bin/env python3
"""Recordings of two recorders as one, with a real engine, recorders and a camera: a camera moves, then one
recorder dies. And what is told to Prometheus, and kept in a backup.

Usage: fleet_recordings_test.py ORVANTA_FLEET ORVANTA_CAMERA
"""

import json
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def openssl(folder, command):
    subprocess.run(["openssl", *command.split()], cwd=folder, check=True, capture_output=True)


def make_certificates(folder):
    """As an operator does: an authority, and one certificate for both ends."""
    key = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
    openssl(folder, f"req -x509 {key} -keyout ca.key -out ca.pem -subj /O=authority")
    openssl(folder, f"req -x509 {key} -keyout other.key -out other.pem -subj /O=Fleet")
    openssl(folder, f"req {key} -keyout fleet.key -out fleet.csr -subj /O=Fleet")
    with open(f"{folder}/fleet.ext", "w", encoding="utf-8") as file:
        file.write("subjectAltName=IP:127.0.0.1\nextendedKeyUsage=serverAuth,clientAuth\n")
    openssl(folder, "x509 -req -in fleet.csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile fleet.ext -out fleet.pem")


def memory():
    """Where engines write here: they wait for their disk at every change, and one that other tests keep busy makes them
    late for everybody."""
    return "/dev/shm" if os.path.isdir("/dev/shm") and shutil.disk_usage("/dev/shm").free > 1 << 30 else None


class Fleet:
    def __init__(self, program, camera, folder, cameras=1, capacity=100):
        self.program, self.folder, self.running = program, folder, {}
        make_certificates(folder)
        self.tls = ("--ca", f"{folder}/ca.pem", "--cert", f"{folder}/fleet.pem", "--key", f"{folder}/fleet.key")
        self.context = ssl.create_default_context(cafile=f"{folder}/ca.pem")
        self.context.load_cert_chain(f"{folder}/fleet.pem", f"{folder}/fleet.key")
        self.url = f"http://127.0.0.1:{free_port()}"
        peer = f"http://127.0.0.1:{free_port()}"
        self.engine = tempfile.mkdtemp(prefix="orvanta-engine-", dir=memory())
        self.start("etcd", ["etcd", "--data-dir", self.engine, "--listen-client-urls", self.url,
                            "--advertise-client-urls", self.url, "--listen-peer-urls", peer,
                            "--initial-advertise-peer-urls", peer, "--initial-cluster", f"default={peer}"])
        self.start("camera", [camera, "--port", "0", "--size", "320x240", "--fps", "10", "--gop", "10", "--json",
                              "--count", str(cameras)])
        self.wait(lambda: self.run("init", "--secret-key", f"{folder}/key").returncode != 2, "no engine")
        self.ports = {}
        for name in ("rec1", "rec2"):
            port = self.ports[name] = free_port()
            self.start(name, [program, "run", "--engine", self.url, "--secret-key", f"{folder}/key", "--name", name,
                              "--data", f"{folder}/{name}", "--port", str(port), "--url", f"https://127.0.0.1:{port}",
                              *self.tls, "--tls", "--open-metrics", "--capacity", str(capacity)])

    def start(self, name, command):
        with open(f"{self.folder}/{name}.log", "w", encoding="utf-8") as log:
            self.running[name] = subprocess.Popen(command, stdout=log, stderr=log, env=ENVIRONMENT)

    def run(self, *arguments):
        words = 2 if arguments[0] == "camera" else 1
        return subprocess.run([self.program, *arguments[:words], "--engine", self.url, *self.tls,
                               *arguments[words:]],
                              env=ENVIRONMENT, timeout=100, capture_output=True, text=True, check=False)

    def json(self, *arguments):
        done = self.run(*arguments, "--json")
        expect(done.stdout, done.stderr)
        return json.loads(done.stdout), done.returncode

    def wait(self, is_true, what, limit=60):
        until = time.time() + limit
        while not is_true():
            expect(time.time() < until, what)
            time.sleep(0.3)

    def end(self):
        for process in reversed(self.running.values()):
            process.terminate()
        for process in self.running.values():
            try:
                process.wait(45)
            except subprocess.TimeoutExpired:
                process.kill()
        shutil.rmtree(self.engine, ignore_errors=True)


def check(fleet):
    key = ("--secret-key", f"{fleet.folder}/key")
    with open(f"{fleet.folder}/camera.log", encoding="utf-8") as file:
        url = json.loads(file.readline())["cameras"][0]["url"]
    expect(fleet.run("camera", "add", "door", "--url", url).returncode == 0, "camera add")
    fleet.wait(lambda: fleet.run("status").returncode == 0, "it is not recorded")
    begun = int(time.time()) + 1
    first = fleet.json("cameras")[0]["cameras"][0]["recorder"]
    second = "rec2" if first == "rec1" else "rec1"
    time.sleep(8)
    moved, code = fleet.json("move", "door", "--to", second)
    expect(code == 0 and moved["moved"], f"the move: {moved}")
    time.sleep(20)  # the one before records six seconds on, and the newest five are in memory

    def search():
        return fleet.json("search", *key, "--from", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(begun)),
                          "--to", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(begun + 20)))

    found, code = search()
    spans = found["spans"]
    print(json.dumps(found, indent=1))
    expect(code == 0 and found["complete"], "it is not complete, and all live")
    expect([each["recorder"] for each in spans] == [first, second], "not one after the other")
    expect(spans[0]["to_ms"] == spans[1]["from_ms"], "a seam that is none")
    expect(any(each["recorder"] == first for each in found["also_at"]), "nobody is told of what is there twice")
    window = ("--from", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(begun + 1)),
              "--to", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(begun + 18)))
    clip, code = fleet.json("export", *key, "--camera", "door", *window, f"{fleet.folder}/clip.mkv")
    print(clip)
    # 18 seconds, and up to one in front of them from the last key frame; ten frames each.
    expect(code == 0 and 17 <= clip["duration"] <= 20 and 170 <= clip["frames"] <= 200, f"the clip is {clip}")
    expect(clip["skipped"] == 0 and clip["skipped_frames"] == 0, "the seam is damaged")
    played = fleet.run("play", *key, *window, "--json", "--", "--speed", "4")
    expect(played.returncode == 0 and json.loads(played.stdout), played.stderr)

    base = f"https://127.0.0.1:{fleet.ports[second]}"
    for shown in ([], ["--cert", f"{fleet.folder}/other.pem", "--key", f"{fleet.folder}/other.key"]):
        stranger = subprocess.run(["curl", "-sSi", "--cacert", f"{fleet.folder}/ca.pem", *shown, f"{base}/metrics"],
                                  capture_output=True, timeout=20, check=False)
        expect(stranger.returncode != 0 and not stranger.stdout, f"a stranger is told {stranger.stdout}")
    with urllib.request.urlopen(f"{base}/metrics", timeout=10, context=fleet.context) as answer:
        text = answer.read().decode()
    expect('orvanta_fleet_camera_up{camera="door",copy="0"} 1' in text, text)
    expect("orvanta_fleet_lease_confirmed 1" in text and "orvanta_fleet_unplaced_cameras 0" in text, text)
    if shutil.which("promtool"):
        done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True, check=False)
        expect(done.returncode == 0, done.stderr)
    for path in ("claims", "recordings?site=1&from=0&to=9", "file?name=recordings&from=0&to=9", "metrics"):
        try:
            urllib.request.urlopen(f"{base}/auth/{path}", timeout=10, context=fleet.context).close()
            raise AssertionError(f"{path} is told to anybody")
        except urllib.error.HTTPError as refused:
            expect(refused.code == 401, f"{path}: {refused.code}")

    saved, code = fleet.json("backup", f"{fleet.folder}/backup")
    expect(code == 0 and saved["cameras"] == 1, f"the backup: {saved}")
    expect(os.stat(f"{fleet.folder}/backup").st_mode & 0o077 == 0, "others may read the backup")
    for damaged in ("1e300", "-1", "9223372036854775807", '"1"'):
        with open(f"{fleet.folder}/damaged", "w", encoding="utf-8") as file:
            file.write(f'{{"generation": {damaged}, "keys": []}}')
        refused = fleet.run("restore", f"{fleet.folder}/damaged")
        expect(refused.returncode != 0 and "this is no backup" in refused.stderr, f"{damaged}: {refused}")
    restored, code = fleet.json("restore", f"{fleet.folder}/backup")
    expect(code == 0 and restored == {"cameras": 0, "recorders": 0, "generation": 2}, f"restored: {restored}")
    fleet.wait(lambda: fleet.run("status").returncode == 0, "restoring stopped a recording")

    fleet.running[first].send_signal(signal.SIGKILL)
    fleet.running[first].wait()
    month = time.strftime("%Y-%m", time.gmtime(begun))
    expect(first in str(fleet.json("search", "--month", month)[0]["days"]), "the catalogue forgot who is away")
    fleet.wait(lambda: search()[1] == 1 and "since" in str(search()[0]["holders"]), "it does not say since when")
    found, code = search()
    expect(not found["complete"] and found["missing"][0]["recorder"] == first, f"what is missing: {found}")
    lost = fleet.run("export", *key, "--camera", "door", *window, f"{fleet.folder}/part.mkv")
    expect(lost.returncode == 1 and first in lost.stderr, "half of it was exported as if it were all")
    part, code = fleet.json("export", *key, "--camera", "door", "--partial", *window, f"{fleet.folder}/part.mkv")
    expect(code == 0 and 0 < part["frames"] < clip["frames"], f"with a part missing: {part}")


def main():
    if not shutil.which("etcd"):
        print("skipped: etcd-server is not installed")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        fleet = Fleet(sys.argv[1], sys.argv[2], folder)
        try:
            check(fleet)
        except AssertionError as wrong:
            print(wrong)
            return 1
        finally:
            fleet.end()
    print("all as expected")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""The commands that configure a fleet, with a real engine: what they write, what they refuse, how they end.

Usage: fleet_commands_test.py ORVANTA_FLEET
"""

import http.server
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

from fleet_recordings_test import memory

ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Fleet:
    def __init__(self, program, folder):
        self.program, self.folder = program, folder
        self.url, peer = (f"http://127.0.0.1:{free_port()}" for _ in range(2))
        self.log = open(f"{folder}/log", "w", encoding="utf-8")
        self.engine = subprocess.Popen(
            ["etcd", "--data-dir", f"{folder}/data", "--listen-client-urls", self.url, "--advertise-client-urls",
             self.url, "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
             "--initial-cluster", f"default={peer}"],
            stdout=self.log, stderr=self.log,
        )
        while self.run("init", "--secret-key", f"{folder}/key").returncode == 2:
            time.sleep(0.2)

    def run(self, *arguments):
        words = [] if arguments[0] == "camera" else [arguments[0]]
        rest = arguments[1:]
        if arguments[0] == "camera":
            words, rest = list(arguments[:2]), arguments[2:]
        engine = () if "--engine" in rest else ("--engine", self.url)
        return subprocess.run([self.program, *words, *engine, *rest], env=ENVIRONMENT, timeout=60,
                              capture_output=True, text=True, check=False)

    def json(self, *arguments):
        done = self.run(*arguments, "--json")
        return json.loads(done.stdout), done.returncode


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def check(fleet):
    key = ("--secret-key", f"{fleet.folder}/key")
    expect(os.stat(f"{fleet.folder}/key").st_mode & 0o077 == 0, "others may read the key")
    expect(fleet.run("status").returncode == 0, "a fleet without cameras is not well")
    with open(f"{fleet.folder}/password", "w", encoding="utf-8") as file:
        file.write("s3cret,x\n")
    added = fleet.run("camera", "add", "door", "--url", "rtsp://192.0.2.1/live", "--user", "rec", *key,
                      "--camera-password-file", f"{fleet.folder}/password", "--group", "north", "--isolated", "stop")
    expect(added.returncode == 0, added.stderr)
    for wrong in (("add", "door", "--url", "rtsp://192.0.2.1/"), ("add", "gate", "--url", "rtsp://u:p@192.0.2.1/"),
                  ("add", "a b", "--url", "rtsp://192.0.2.1/"), ("set", "gate", "--weight", "2")):
        expect(fleet.run("camera", *wrong).returncode != 0, f"{wrong} was taken")
    status, code = fleet.json("status")
    expect(code == 1 and status["unplaced"] == 1, f"nobody records it, and the status says {status}")
    problems, code = fleet.json("check")
    expect(code == 1 and len(problems["problems"]) >= 3, f"the check finds only {problems}")

    dump = subprocess.run(["strings", "-a", f"{fleet.folder}/data/member/wal/0000000000000000-0000000000000000.wal"],
                          capture_output=True, text=True, check=False).stdout
    expect("rtsp://192.0.2.1/live" in dump or not dump, "this is not where the engine writes")
    expect("s3cret" not in dump, "the password is in the engine in the clear")

    with open(f"{fleet.folder}/in.csv", "w", encoding="utf-8") as file:
        file.write('camera,url,name,password,weight\ngate,rtsp://192.0.2.2/,"Gate, ""north""",p,3\n'
                   "door,rtsp://192.0.2.9/,,,\n")
    expect(fleet.run("camera", "import", f"{fleet.folder}/in.csv").returncode == 2, "passwords without a key")
    made, _ = fleet.json("camera", "import", f"{fleet.folder}/in.csv", *key)
    expect(made == {"cameras": 2, "made": 1}, f"the import says {made}")
    text = fleet.run("camera", "export").stdout
    expect('gate,"Gate, ""north""",rtsp://192.0.2.2/,' in text and "rtsp://192.0.2.9/" in text, text)
    with open(f"{fleet.folder}/out.csv", "w", encoding="utf-8") as file:
        file.write(text)
    again, code = fleet.json("camera", "import", f"{fleet.folder}/out.csv")
    expect(code == 0 and again["made"] == 0 and fleet.run("camera", "export").stdout == text, "it does not come back as it was")
    cameras, _ = fleet.json("cameras")
    expect(sorted(each["site"] for each in cameras["cameras"]) == [1, 2], "the site numbers changed")
    expect(fleet.run("camera", "remove", "gate").returncode == 0 and fleet.run("camera", "remove", "gate").returncode == 1,
           "removing")
    check_lost_answer(fleet)
    fleet.engine.kill()
    fleet.engine.wait()
    expect(fleet.run("status").returncode == 2, "the engine is dead, and the status does not say so")


class LostAnswers(http.server.BaseHTTPRequestHandler):
    """A member that does what it is asked for, and whose answer to what changes something never comes."""

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        with urllib.request.urlopen(urllib.request.Request(self.server.engine + self.path, body)) as answered:
            answer = answered.read()
        if self.path.endswith("/txn"):
            self.server.lost += 1
            self.server.ends.wait()
            return
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *_):
        pass


def check_lost_answer(fleet):
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), LostAnswers) as member:
        member.engine, member.lost, member.ends = fleet.url, 0, threading.Event()
        threading.Thread(target=member.serve_forever).start()
        try:
            members = f"http://127.0.0.1:{member.server_port},{fleet.url},{fleet.url}"
            added = fleet.run("camera", "add", "late", "--url", "rtsp://192.0.2.3/", "--engine", members)
            expect(added.returncode == 0 and member.lost == 1, f"{member.lost} lost: {added.stderr}")
        finally:
            member.ends.set()
            member.shutdown()
    numbers = [each["site"] for each in fleet.json("cameras")[0]["cameras"] if each["camera"] == "late"]
    expect(numbers == [3], f"it was added as {numbers}")


def check_private_folders(fleet):
    """Passwords are in them: what a recorder that was killed left goes with the next one's start, and no other goes."""
    memory_folder = f"{fleet.folder}/memory"
    os.mkdir(memory_folder)
    os.mkdir(f"{fleet.folder}/elsewhere")
    os.symlink(f"{fleet.folder}/elsewhere", f"{memory_folder}/orvanta-fleet-linked")
    os.mkdir(f"{memory_folder}/orvanta-fleet-of-others")
    foreign = set(os.listdir(memory_folder))
    running = {}

    def own():
        return set(os.listdir(memory_folder)) - foreign

    def start(name):
        before = own()
        running[name] = subprocess.Popen(
            [fleet.program, "run", "--engine", fleet.url, "--secret-key", f"{fleet.folder}/key", "--name", name,
             "--data", f"{fleet.folder}/{name}"],
            env=dict(ENVIRONMENT, RUNTIME_DIRECTORY=memory_folder), stdout=fleet.log, stderr=fleet.log)
        until = time.time() + 60
        while not any(os.path.exists(f"{memory_folder}/{made}/recorder.toml") for made in own() - before):
            expect(time.time() < until, f"{name} makes no folder: {own()}")
            time.sleep(0.05)
        return (own() - before).pop()

    try:
        killed, lives = start("killed"), start("lives")
        running["killed"].kill()
        running["killed"].wait()
        expect(own() == {killed, lives}, f"there are {own()}")
        later = start("later")
        expect(own() == {lives, later}, f"{killed} was left, or more removed than that: {own()}")
    finally:
        for process in running.values():
            process.terminate()
        for process in running.values():
            process.wait(60)
    expect(not own(), f"left behind: {own()}")
    expect(foreign <= set(os.listdir(memory_folder)) and os.path.isdir(f"{fleet.folder}/elsewhere"), "too much is gone")


def main():
    if not shutil.which("etcd"):
        print("skipped: etcd-server is not installed")
        return 77
    with tempfile.TemporaryDirectory(dir=memory()) as folder:
        fleet = Fleet(sys.argv[1], folder)
        try:
            check(fleet)
            check_private_folders(fleet)
        except AssertionError as wrong:
            print(wrong)
            return 1
        finally:
            fleet.engine.kill()
            fleet.engine.wait()
            fleet.log.close()
    print("all as expected")
    return 0


if __name__ == "__main__":
    sys.exit(main())

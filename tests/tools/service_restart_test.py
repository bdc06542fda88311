#!/usr/bin/env python3
"""A recorder that is stopped and started again at once, as systemd restarts it after an upgrade: what both of them recorded
of a camera that numbers its pictures, over UDP and over TCP, has each picture from the first to the last one, but for a
hole in between that is no longer than a start of the program and the camera's way to the next key picture.

Beside them are a camera and a hook that accept and never answer: nobody may be waited for in between.

Usage: service_restart_test.py ORVANTA
"""

import contextlib
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time

from numbered_pictures import holes_of, recordings
from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]
FPS, GOP = 25, 5
TRANSPORTS = ("udp", "tcp")
# The most that lies between two recorders: a stop, a start in runs of the program that only read the file, the camera's answer.
STARTS, SECONDS = 2, 2


class Recorder:
    def __init__(self, folder, config):
        self.data = os.path.join(folder, "data")
        self.config = os.path.join(folder, "recorder.toml")
        with open(self.config, "w", encoding="utf-8") as text:
            text.write(f'data = "{self.data}"\n{config}')
        self.log = open(os.path.join(folder, "log"), "a+", encoding="utf-8")
        self.start()

    def start(self):
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", PROGRAM, "record", "--config", self.config],
                                        stderr=self.log)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(LIMIT) == 0

    def record(self):
        """Until each site has another two files: a seam lies between them."""
        before = {site: len(recordings(self.data, site)) for site, _ in enumerate(TRANSPORTS, 1)}
        wait_for(lambda: all(len(recordings(self.data, site)) >= count + 2 for site, count in before.items()),
                 "two recordings of each site")

    def seconds_of_a_start(self):
        begin = time.monotonic()
        subprocess.run([PROGRAM, "record", "--config", self.config, "--check"], check=True, capture_output=True, timeout=LIMIT)
        return time.monotonic() - begin


def check(folder, silent):
    port = silent.getsockname()[1]
    with contextlib.ExitStack() as at_the_end:
        camera = at_the_end.enter_context(Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--fps", str(FPS),
                                                  "--gop", str(GOP), "--key-size", "60000"))
        url = camera.start["cameras"][0]["url"]
        # As long as anybody looks, the numbers go on.
        looks = at_the_end.enter_context(subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "ffmpeg", "-v", "quiet", "-rtsp_transport", "tcp", "-i", url, "-c", "copy",
             "-f", "null", "-"], stdin=subprocess.DEVNULL))
        at_the_end.callback(looks.kill)
        sites = "".join(f'[[sites]]\nnumber = {site}\nurl = "{url}"\ntransport = "{transport}"\nfile-size = "1 MiB"\n'
                        for site, transport in enumerate(TRANSPORTS, 1))
        recorder = Recorder(folder, f'[[hooks]]\nname = "silent"\npost = "http://127.0.0.1:{port}/"\n{sites}'
                                    f'[[sites]]\nnumber = 3\nurl = "rtsp://127.0.0.1:{port}/silent"\n')
        at_the_end.callback(lambda: recorder.process.kill())
        try:
            recorder.record()
            starts = [recorder.seconds_of_a_start()]
            begin = time.monotonic()
            recorder.stop()
            stopped = time.monotonic() - begin
            before = {site: recordings(recorder.data, site) for site, _ in enumerate(TRANSPORTS, 1)}
            recorder.start()
            recorder.record()
            starts.append(recorder.seconds_of_a_start())
            recorder.stop()
        except BaseException:
            recorder.log.seek(0)
            print(recorder.log.read(), file=sys.stderr)
            raise
        assert looks.poll() is None, "nobody looked at the camera in between"
    longest = GOP + FPS * (SECONDS + STARTS * max(starts))
    for site, transport in enumerate(TRANSPORTS, 1):
        count, holes = holes_of(PROGRAM, recorder.data, site, folder)
        print(f"{transport}: {count} pictures, stopped in {stopped:.2f} s, a start {max(starts):.2f} s, holes {holes}")
        assert len(holes) <= 1, (transport, holes)
        for recording, lost in holes:
            assert recording not in before[site] and lost <= longest, (transport, recording, lost, longest)


with tempfile.TemporaryDirectory() as work, socket.create_server(("127.0.0.1", 0)) as nobody:
    check(work, nobody)
print("nothing is lost but from a stop to the key picture behind the next start")

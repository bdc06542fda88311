#!/usr/bin/env python3
"""What it costs `orvanta serve` to be watched: processor time of its process, unwatched and watched by so many browsers.

Usage: page_cost.py ORVANTA [SECONDS [CAMERAS]]     CAMERAS: the program that makes the cameras, if it is another one

Four cameras: two of 1080p at 4 Mbit/s, one of 720p, one of 640x480 MJPEG. A browser is a connection that reads all
that the page asks for; "pictures" is the answer that a browser gets that plays none of it.
"""

import os
import socket
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests/tools"))
from orvanta_process import Orvanta, wait_for  # noqa: E402

PROGRAM = sys.argv[1]
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 20
CAMERA_PROGRAM = sys.argv[3] if len(sys.argv) > 3 else PROGRAM
CAMERAS = (("1920x1080", "h264", 4000), ("1920x1080", "h264", 4000), ("1280x720", "h264", 2000), ("640x480", "mjpeg", None))


class Browser:
    def __init__(self, port, target):
        self.bytes = 0
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.sendall(f"GET {target} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        try:
            while part := self.socket.recv(1 << 20):
                self.bytes += len(part)
        except OSError:
            pass

    def end(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.socket.close()


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measure(server, count, target):
    browsers = [Browser(server.start["port"], target) for _ in range(count)]
    time.sleep(4)  # until the key pictures are through
    before, start = processor_seconds(server.process.pid), time.monotonic()
    received = sum(browser.bytes for browser in browsers)
    time.sleep(SECONDS)
    passed = time.monotonic() - start
    cost = (processor_seconds(server.process.pid) - before) * 1000 / passed
    rate = (sum(browser.bytes for browser in browsers) - received) * 8 / 1e6 / passed
    for browser in browsers:
        browser.end()
    return cost, rate


def main():
    with tempfile.TemporaryDirectory() as folder:
        cameras = []
        for size, codec, rate in CAMERAS:
            arguments = ["--port", "0", "--size", size, "--codec", codec, "--fps", "25", "--gop", "25"]
            cameras.append(Orvanta(CAMERA_PROGRAM, "camera", *arguments, *(["--bitrate", str(rate)] if rate else [])))
        with Orvanta(PROGRAM, "serve", "--port", "0", "--data", folder,
                     *(camera.start["cameras"][0]["url"] for camera in cameras)) as server:
            print("| watched by | processor ms a second | above unwatched | Mbit/s to all |\n|---|---|---|---|")
            time.sleep(5)
            unwatched, _ = measure(server, 0, "")
            print(f"| nobody | {unwatched:.1f} | - | - |")
            for count, target, name in ((1, "/video", "1 browser"), (10, "/video", "10 browsers"),
                                        (1, "/live", "1 browser, pictures")):
                cost, rate = measure(server, count, target)
                print(f"| {name} | {cost:.1f} | {cost - unwatched:.1f} | {rate:.1f} |", flush=True)
            wait_for(lambda: server.end() == 0, "the end")
        for camera in cameras:
            camera.end()


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""What showing costs above decoding: `orvanta view` with 16 cameras, beside one ffplay.

Usage: view_share.py BUILD_DIR [SECONDS]       (a release build; needs Xvfb, ffmpeg with ffplay)

All look at the same test cameras, 1280x720 at 25 pictures a second, over TCP, in windows of one Xvfb:
ffplay in a window of a tile's size, ours in one of 1280x720. Times are processor seconds a second of
the looking processes alone, from their second 3 on. Bare decoding of a stream is `ffmpeg -f null`, of the
same number of threads (1) as ffplay and our decoders have.

    ours   = (view of 16 - 16 x bare) / 16
    theirs = ffplay of 1 - bare of 1

ffplay and bare decoding are run three at a time and divided by three, so that their share is no accident. A viewer that did
not get to decode everything, as on a busy machine, is cheap for that reason alone: then there is no figure, and status 2.
"""

import json
import os
import subprocess
import sys
import time

BUILD = sys.argv[1]
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 20
CAMERAS, PEERS, WARM = 16, 3, 3.0
FPS, FEWEST = 25, 24  # pictures a second: of the camera, and decoded of each stream for a figure


def start(*command, environment=None, output=subprocess.DEVNULL):
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], env=environment, stdout=output,
                            stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)


def processor_seconds(process):
    with open(f"/proc/{process.pid}/stat") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measure(processes):
    """Processor seconds a second of all of them together."""
    time.sleep(WARM)
    begin, before = time.monotonic(), sum(map(processor_seconds, processes))
    time.sleep(SECONDS)
    used = (sum(map(processor_seconds, processes)) - before) / (time.monotonic() - begin)
    for process in processes:
        assert process.poll() is None, f"{process.args} ended while it was measured"
        process.terminate()
    return used


def main():
    read, write = os.pipe()
    server = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "Xvfb", "-displayfd", str(write), "-screen", "0",
                               "1600x900x24", "-nolisten", "tcp"], pass_fds=[write])
    os.close(write)
    with os.fdopen(read) as answer:
        environment = {**os.environ, "DISPLAY": ":" + answer.readline().strip(), "SDL_AUDIODRIVER": "dummy"}
    camera = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", f"{BUILD}/tools/orvanta", "camera", "--port", "0", "--size", "1280x720",
         "--fps", str(FPS), "--json"], stdout=subprocess.PIPE)
    url = json.loads(camera.stdout.readline())["cameras"][0]["url"]
    bare = measure([start("ffmpeg", "-v", "error", "-threads", "1", "-rtsp_transport", "tcp", "-i", url, "-an", "-f",
                          "null", "-") for _ in range(PEERS)]) / PEERS
    ffplay = measure([start("ffplay", "-v", "error", "-threads", "1", "-rtsp_transport", "tcp", "-an", "-x", "320",
                            "-y", "180", "-i", url, environment=environment) for _ in range(PEERS)]) / PEERS
    began = time.monotonic()
    viewer = start(f"{BUILD}/tools/orvanta-view", *[url] * CAMERAS, "--transport", "tcp", "--json",
                   environment=environment, output=subprocess.PIPE)
    view = measure([viewer])
    lasted = time.monotonic() - began - 1  # a second to open
    tiles = json.loads(viewer.communicate(timeout=60)[0])["tiles"]
    decoded = sum(tile["decoded"] for tile in tiles) / CAMERAS / lasted
    ours, theirs = view / CAMERAS - bare, ffplay - bare
    print(f"bare decoding   {1000 * bare:7.1f} ms a second and stream")
    print(f"ffplay          {1000 * ffplay:7.1f} ms, above bare decoding {1000 * theirs:6.1f} ms")
    print(f"view of {CAMERAS}      {1000 * view / CAMERAS:7.1f} ms, above bare decoding {1000 * ours:6.1f} ms")
    print(f"ours / theirs   {ours / theirs:7.2f}")
    camera.kill()
    server.kill()
    if decoded < FEWEST:
        print(f"no figure: {decoded:.1f} of {FPS} pictures a second and stream were decoded, the machine is too busy")
        return 2
    return 0 if ours <= theirs else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""orvanta view in a real window under Xvfb, driven by keys and mouse; the test camera numbers its
pictures, and the numbers are read from what the window shows.

Usage: view_test.py ORVANTA [LOSSES]      Status 77 where there is no Xvfb or xdotool.
"""

import glob
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.parse

from orvanta_process import Orvanta, wait_for

PROGRAM = sys.argv[1]
LOSSES = int(sys.argv[2]) if len(sys.argv) > 2 else 3  # of 16 streams each
WIDTH, HEIGHT = 1280, 720
PICTURE = (640, 360)

for needed in ("Xvfb", "xdotool"):
    if not shutil.which(needed):
        print(f"skipped: {needed} is not installed")
        sys.exit(77)


class Picture:
    """A PNG as grey bytes."""

    def __init__(self, path):
        probe = subprocess.run(
            ["ffprobe", "-v", "error", "-show_entries", "stream=width,height", "-of", "csv=p=0", path],
            check=True, capture_output=True, text=True).stdout
        self.width, self.height = map(int, probe.strip().split(","))
        self.grey = subprocess.run(
            ["ffmpeg", "-v", "error", "-i", path, "-f", "rawvideo", "-pix_fmt", "gray", "-"],
            check=True, capture_output=True).stdout

    def at(self, x, y):
        return self.grey[int(y) * self.width + int(x)]

    def number(self, left=0, top=0, scale=1.0):
        """The camera's number in the picture that lies there; None when there is none."""
        bits = [self.at(left + (16 * i + 8) * scale, top + 14 * scale) > 128 for i in range(16)]
        value = sum(bit << (15 - i) for i, bit in enumerate(bits))
        number, check = value >> 4, value & 15
        return number if check == check_of(number) else None


def check_of(number):
    return (number ^ number >> 4 ^ number >> 8 ^ 0x5) & 15


class Display:
    def __init__(self):
        read, write = os.pipe()
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "Xvfb", "-displayfd", str(write), "-screen", "0",
             f"{WIDTH}x{HEIGHT}x24", "-nolisten", "tcp"], pass_fds=[write], stderr=subprocess.DEVNULL)
        os.close(write)
        with os.fdopen(read) as answer:
            self.name = ":" + answer.readline().strip()
        assert self.name != ":", "Xvfb did not start"

    def end(self):
        self.process.kill()
        self.process.wait()


class View:
    """A viewer that fills the display."""

    def __init__(self, display, folder, *arguments):
        self.environment = {**os.environ, "DISPLAY": display.name, "SDL_VIDEODRIVER": "x11",
                            "ALSA_CONFIG_PATH": f"{folder}/asound.conf",
                            "ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=64"}
        self.folder = folder
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", PROGRAM, "view", *arguments, "--json", "--size",
             f"{WIDTH}x{HEIGHT}", "--pictures", folder], env=self.environment, stdout=subprocess.PIPE)
        wait_for(lambda: self.xdotool("search", "--onlyvisible", "--name", "^Orvanta$"), "the window")
        self.xdotool("mousemove", str(WIDTH // 2), str(HEIGHT // 2))
        # A window is seen before its program asks for keys: the first ones may go to nobody.
        for path in wait_for(self.answers, "the viewer hears a key"):
            os.remove(path)

    def xdotool(self, *arguments):
        return subprocess.run(["xdotool", *arguments], env=self.environment, capture_output=True,
                              text=True, check=False).stdout

    def key(self, *keys):
        self.xdotool("key", *keys)

    def click(self, x, y, times=1):
        self.xdotool("mousemove", str(x), str(y), "click", "--repeat", str(times), "--delay", "50", "1")

    def answers(self):
        self.key("p")
        end = time.monotonic() + 1
        while not (pictures := glob.glob(f"{self.folder}/wall*.png")) and time.monotonic() < end:
            time.sleep(0.05)
        return pictures

    def written(self, key, kind):
        before = set(glob.glob(f"{self.folder}/{kind}*.png"))
        self.key(key)
        path = wait_for(lambda: set(glob.glob(f"{self.folder}/{kind}*.png")) - before,
                        f"{key} writes a picture").pop()

        def whole():
            with open(path, "rb") as file:
                return file.read().endswith(b"IEND\xaeB`\x82")
        wait_for(whole, f"{path} is whole")
        picture = Picture(path)
        os.remove(path)
        return picture

    def wall(self):
        return self.written("p", "wall")

    def end(self):
        self.key("q")
        output = self.process.communicate(timeout=60)[0]
        assert self.process.returncode == 0, self.process.returncode
        return json.loads(output)


def watches_cameras(display, folder):
    with Orvanta(PROGRAM, "camera", "--count", "4", "--port", "0", "--fps", "10", "--size",
                 f"{PICTURE[0]}x{PICTURE[1]}") as cameras:
        urls = [camera["url"] for camera in cameras.start["cameras"]]
        dead = "rtsp://127.0.0.1:9/none"
        view = View(display, folder, *urls, dead, "--transport", "tcp")
        # Every camera in its cell of the grid: a 3x3 one, and the last row is empty.
        wall = wait_for(lambda: all_lit(view.wall(), 4), "four cameras are seen")
        assert wall.at(WIDTH / 2, HEIGHT * 5 / 6) < 40, "there is no eighth tile"
        view.key("2")
        first = view.written("s", "tile2")
        assert (first.width, first.height) == PICTURE, (first.width, first.height)
        before = first.number()
        assert before is not None
        # Alone it is shown in the size of the window, newer than before.
        view.key("Return")

        def newer():
            shown = tile_number_large(view.wall())
            return shown is not None and (shown - before) % 4096 in range(1, 2000)
        wait_for(newer, "the second camera alone, and its pictures go on")
        # Three clicks of the wheel at the left upper corner: a block of the number is larger.
        view.xdotool("mousemove", "2", "2", "click", "--repeat", "4", "4")
        wait_for(lambda: tile_number_large(view.wall()) is None, "zoomed")
        view.key("0", "Escape")
        wait_for(lambda: all_lit(view.wall(), 4), "all are seen again")
        told = view.end()
        assert len(told["tiles"]) == 5
        for tile in told["tiles"][:4]:
            assert 0 < tile["shown"] <= tile["decoded"], tile
        assert told["tiles"][4]["shown"] == 0
        cameras.end()


def connections(port):
    """How many are established to that port."""
    with open("/proc/net/tcp", encoding="utf-8") as file:
        rows = [line.split() for line in file][1:]
    return sum(int(row[2].split(":")[1], 16) == int(port) and row[3] == "01" for row in rows)


def all_lit(wall, count, columns=3):
    """The wall when the first tiles of a grid have a picture."""
    lit = all(max(wall.at(WIDTH / columns * (i % columns + 0.5), HEIGHT / columns * (i // columns + share))
                  for share in (0.3, 0.5, 0.7)) > 40 for i in range(count))
    return wall if lit else None


def tile_number_large(wall):
    """Of the only tile, in the whole window; the caption leaves the lower edge of the number's blocks."""
    return wall.number(0, 0, WIDTH / PICTURE[0])


def plays_recordings(display, folder):
    data = f"{folder}/data"
    with Orvanta(PROGRAM, "camera", "--port", "0", "--fps", "10", "--size",
                 f"{PICTURE[0]}x{PICTURE[1]}") as camera:
        subprocess.run([PROGRAM, "record", camera.start["cameras"][0]["url"], "--data", data, "--transport",
                        "tcp", "--seconds", "8", "--json"], check=True, stdout=subprocess.DEVNULL)
        camera.end()
    view = View(display, folder, "--data", data)
    view.key("k", "1")  # pauses; selects
    numbers = [view.written("s", "tile1").number()]
    for key, by in (("Right", 1), ("Right", 1), ("Left", -1), ("Right", 1), ("Left", -1), ("Left", -1)):
        view.key(key)
        wanted = (numbers[-1] + by) % 4096
        wait_for(lambda wanted=wanted: view.written("s", "tile1").number() == wanted, f"{key}: {wanted}")
        numbers.append(wanted)
    view.key("Home")
    first = numbers[0]
    wait_for(lambda: view.written("s", "tile1").number() <= first, "the first picture")
    view.click(WIDTH - 4, HEIGHT - 5)  # the end of the bar
    wait_for(lambda: (view.written("s", "tile1").number() - first) % 4096 > 50, "the end")
    last = view.written("s", "tile1").number()
    view.key("j")  # backward
    wait_for(lambda: 0 < (last - view.written("s", "tile1").number()) % 4096 < 2000, "plays backward")
    told = view.end()
    assert told["tiles"][0]["shown"] > 5, told


def hears_and_records(display, folder):
    """The sound of the tile that is selected, live and recorded; a recording of one camera of two."""
    heard, data = f"{folder}/heard", f"{folder}/kept"
    with open(f"{folder}/asound.conf", "w", encoding="utf-8") as file:
        file.write(f"pcm.nothing {{ type null }}\npcm.heard {{ type file slave.pcm nothing file '{heard}' format raw }}\n")

    def sound():
        return os.path.getsize(heard) if os.path.exists(heard) else 0

    with Orvanta(PROGRAM, "camera", "--count", "2", "--port", "0", "--fps", "10", "--size", "320x240", "--audio",
                 "pcmu") as cameras:
        view = View(display, folder, *[each["url"] for each in cameras.start["cameras"]], "--transport", "tcp",
                    "--record", data, "--device", "heard")
        wait_for(lambda: all_lit(view.wall(), 2, 2), "both are seen")
        view.key("1", "r", "a")
        wait_for(lambda: sound() > 30_000, "the sound of a camera")
        view.key("a")
        wait_for(lambda: sound() == [time.sleep(0.5), sound()][1], "silence")
        view.key("r")
        told = view.end()["tiles"]
        assert told[0]["recorded"] > 20 and told[1]["recorded"] == 0, told
        cameras.end()
    records = json.loads(subprocess.run([PROGRAM, "db", "--json", "--data", data], check=True, capture_output=True).stdout)
    assert len(records["records"]) == 1, records
    os.remove(heard)
    view = View(display, folder, "--data", data, "--device", "heard", "--site", "1")
    view.key("1", "Home", "a")
    wait_for(lambda: sound() > 5_000, "the sound of a recording")
    view.key("r")  # is told, and ends nothing
    view.end()


def options_are_read(display, folder):
    environment = {**os.environ, "DISPLAY": display.name, "ASAN_OPTIONS": "detect_leaks=0"}

    def run(*arguments):
        return subprocess.run([PROGRAM, "view", *arguments], env=environment, capture_output=True, check=False,
                              text=True, timeout=120)
    dead = "rtsp://127.0.0.1:9/none"
    for arguments, expected in (((), "--data"), ((dead, "--data", folder), "--data"), ((dead,) * 17, "16"),
                                ((dead, "--size", "12"), "1280x720"), (("--data", folder, "--record", folder), "--record"),
                                ((dead, "--dewarp", "camera", "--circle", "1"), "--circle"), ((dead, "--font", "/none"), "font")):
        done = run(*arguments)
        assert done.returncode != 0 and expected in done.stderr, (arguments, done)
    done = run(dead, "--seconds", "1", "--full-screen", "--dewarp", "panorama", "--json")
    assert done.returncode == 0 and json.loads(done.stdout)["walls_drawn"] > 0, done
    del environment["DISPLAY"]
    done = run(dead)
    assert done.returncode != 0 and "no display answers" in done.stderr, done


def loses_cameras(display, folder, times):
    """As over weeks: what is lost and found again costs no memory and no descriptor."""
    sites = 16
    port = "0"
    view = None

    def held():
        with open(f"/proc/{view.process.pid}/status", encoding="utf-8") as file:
            memory = next(int(line.split()[1]) for line in file if line.startswith("VmRSS:")) / 1024
        return len(os.listdir(f"/proc/{view.process.pid}/fd")), memory
    history = []
    for turn in range(times + 1):
        with Orvanta(PROGRAM, "camera", "--port", port, "--fps", "5", "--size", "160x120") as camera:
            url = camera.start["cameras"][0]["url"]
            port = str(urllib.parse.urlsplit(url).port)
            view = view or View(display, folder, *[url] * sites, "--transport", "tcp")
            wait_for(lambda: connections(port) == sites, f"all are received, {turn}", 120)
            time.sleep(1)
            history.append(held())
    told = view.end()
    assert len(told["tiles"]) == sites
    print(f"descriptors and MB while {sites * times} streams were lost: {history}")
    assert max(each[0] for each in history[1:]) <= history[0][0] + 2, history
    assert history[-1][1] < history[1][1] + 24, history


def main():
    display = Display()
    with tempfile.TemporaryDirectory() as folder:
        try:
            for check, *more in ((watches_cameras,), (plays_recordings,), (hears_and_records,), (options_are_read,),
                                 (loses_cameras, LOSSES)):
                check(display, folder, *more)
                print(f"{check.__name__}: good")
        finally:
            display.end()
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(main())

#!/usr/bin/env python3
"""`orvanta onvif HOST ptz` moves a test camera, and its picture with it; a move that is interrupted ends.

Usage: ptz_test.py ORVANTA
"""

import json
import signal
import subprocess
import sys
import urllib.parse
import urllib.request

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]


class Camera(Orvanta):
    def __init__(self, *options):
        super().__init__(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery", "--ptz", "--size", "320x240",
                         "--user", "admin", "--password", "pw", *options)
        self.host = urllib.parse.urlsplit(self.start["cameras"][0]["onvif_url"]).netloc
        self.url = self.start["cameras"][0]["url"]

    def looks(self):
        with urllib.request.urlopen(f"http://{self.host}/control/ptz", timeout=LIMIT) as answer:
            return json.load(answer)

    def command(self, *arguments):
        return [PROGRAM, "onvif", self.host, "--user", "admin", "--password", "pw", "--json", "ptz", *arguments]

    def ptz(self, *arguments):
        done = subprocess.run(self.command(*arguments), capture_output=True, check=False, timeout=LIMIT)
        assert done.returncode == 0, (arguments, done)
        return json.loads(done.stdout)

    def colour(self):
        """Of the picture's middle."""
        picture = subprocess.run(
            ["ffmpeg", "-v", "error", "-rtsp_transport", "tcp", "-i", self.url, "-frames:v", "1", "-f", "rawvideo",
             "-pix_fmt", "rgb24", "-"], capture_output=True, check=True, timeout=LIMIT).stdout
        middle = (100 * 320 + 160) * 3
        return picture[middle:middle + 3]


def differs(one, other):
    return max(abs(a - b) for a, b in zip(one, other)) > 60


for style in ("plain", "prefixes,attributes"):
    with Camera("--onvif-style", style) as camera:
        limits = camera.ptz("limits")
        assert limits["AbsolutePanTilt"]["x"] == [-1, 1] and limits["AbsoluteZoom"]["x"] == [0, 1], limits
        assert limits["HomeSupported"] and limits["MaximumNumberOfPresets"] == 32, limits

        middle = camera.colour()
        camera.ptz("left", "--seconds", "1", "--speed", "0.8")
        left = camera.looks()
        assert -1 <= left["pan"] < -0.5 and not left["moving"] and left["tilt"] == 0, left
        assert differs(camera.colour(), middle), "the picture moves"
        camera.ptz("set-preset", "gate & <yard>")
        camera.ptz("in", "--seconds", "0.5", "--speed", "1")
        assert 0.3 < camera.looks()["zoom"] <= 1, camera.looks()
        camera.ptz("to", "--", "0.25", "-0.5", "0")
        wait_for(lambda: not camera.looks()["moving"], "the camera is there")
        assert camera.ptz("status")["Position"] == {"pan": 0.25, "tilt": -0.5, "zoom": 0}
        camera.ptz("set-home")
        camera.ptz("by", "0.5", "-", "0.5")
        wait_for(lambda: not camera.looks()["moving"], "the camera is there")
        looks = camera.looks()
        assert abs(looks["pan"] - 0.75) < 0.01 and looks["tilt"] == -0.5 and looks["zoom"] == 0.5, looks
        camera.ptz("home")
        wait_for(lambda: camera.looks()["pan"] == 0.25, "home")
        camera.ptz("preset", "gate & <yard>")
        wait_for(lambda: camera.looks()["pan"] == left["pan"], "the preset")
        presets = camera.ptz("presets")["Presets"]
        assert [each["Name"] for each in presets] == ["gate & <yard>"], presets
        assert abs(presets[0]["PTZPosition"]["pan"] - left["pan"]) < 1e-5, presets
        camera.ptz("remove-preset", presets[0]["token"])
        assert camera.ptz("presets")["Presets"] == []

        # Interrupted, it stops the camera, which would have gone on for half a minute.
        with subprocess.Popen(camera.command("right", "--seconds", "30", "--speed", "0.02"),
                              stdout=subprocess.PIPE) as moving:
            wait_for(lambda: camera.looks()["moving"], "it moves")
            moving.send_signal(signal.SIGINT)
            moving.wait(LIMIT)
        assert not camera.looks()["moving"]
        gone = subprocess.run(camera.command("preset", "nowhere"), capture_output=True, check=False, timeout=LIMIT)
        assert gone.returncode == 1 and b"no preset nowhere" in gone.stderr, gone
print("cameras move and stop")

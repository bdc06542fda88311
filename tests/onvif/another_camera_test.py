#!/usr/bin/env python3
"""The commands onvif ... against a camera of other parentage (another_camera.py), which checks what it is sent.

Usage: another_camera_test.py ORVANTA
"""

import json
import os
import subprocess
import sys
import tempfile
import urllib.parse

from another_camera import PASSWORD, SNAPSHOT, USER, AnotherCamera

sys.path.insert(1, os.path.join(os.path.dirname(__file__), "..", "tools"))
from orvanta_process import Orvanta  # pylint: disable=wrong-import-position

PROGRAM = sys.argv[1]
LIMIT = 60


def command(camera, *arguments, password=PASSWORD):
    return [PROGRAM, "onvif", camera.host, "--user", USER, "--password", password, "--json", *arguments]


def run(camera, *arguments, **options):
    return subprocess.run(command(camera, *arguments, **options), capture_output=True, check=False, timeout=LIMIT)


def good(camera, *arguments):
    done = run(camera, *arguments)
    assert done.returncode == 0 and not camera.wrong, (arguments, done, camera.wrong, camera.asked)
    return json.loads(done.stdout)


def first_version():
    with AnotherCamera() as camera:
        assert good(camera, "info")["Manufacturer"] == "Another"
        profile = good(camera, "media")["Profiles"][1]
        assert profile["Uri"] == "rtsp://127.0.0.1/q?a=1&b=2", profile  # at the host that was asked
        video = profile["VideoEncoderConfiguration"]
        assert video["Resolution"] == {"Width": 1920, "Height": 1080} and video["Quality"] == 70.5, video
        good(camera, "set-clock", "--zone", "UTC0")
        assert good(camera, "set-ntp", "192.0.2.1", "2001:db8::1", "ntp.example")["Servers"] == ["ntp.example", "2001:db8::1"]
        assert good(camera, "users")["Users"] == [{"Username": "operator", "UserLevel": "Administrator"}]
        good(camera, "set-password", "operator", "a<b>&c")
        assert good(camera, "relays")["RelayOutputs"][0]["token"] == "r&1"
        good(camera, "set-relay", "r&1", "on")
        assert good(camera, "hostname")["Name"] == "gate-camera"
        good(camera, "set-hostname", "gate-2")
        good(camera, "reboot", "--yes")
        snapshot(camera)

        camera.busy = True
        done = run(camera, "media")
        assert done.returncode == 1 and b"fault reason" in done.stderr, done
        camera.busy = False
        done = run(camera, "media", password="wrong")
        assert done.returncode == 1 and b"password is wrong" in done.stderr, done
        assert not camera.wrong, camera.wrong


def snapshot(camera):
    with tempfile.NamedTemporaryFile() as file:
        good(camera, "snapshot", file.name)
        assert file.read() == SNAPSHOT


def broken_second_version():
    """What is listed and does not work is asked for elsewhere, and what comes from a stream whose address is of another
    network is received."""
    for broken in ("fault", "cut"):
        with Orvanta(PROGRAM, "camera", "--port", "0", "--fps", "10", "--size", "320x240") as real:
            port = urllib.parse.urlsplit(real.start["cameras"][0]["url"])
            stream = f"rtsp://192.0.2.10:{port.port}{port.path}"
            with AnotherCamera(broken=broken, stream=stream) as camera:
                assert "H264" in json.dumps(good(camera, "media")["Options"])
                assert camera.second_asked <= (2 if broken == "cut" else 1), camera.second_asked  # libcurl tries once more
                done = subprocess.run(
                    [PROGRAM, "live", f"onvif://{USER}:{urllib.parse.quote(PASSWORD)}@{camera.host}", "--transport", "tcp",
                     "--seconds", "3", "--json"], capture_output=True, check=False, timeout=LIMIT)
                assert done.returncode == 0 and b'"frames"' in done.stdout, done
            real.end()
    with AnotherCamera(second=True) as camera:
        camera.busy = True
        done = run(camera, "media")
        assert done.returncode == 1 and b"fault reason" in done.stderr, done


def second_version():
    with AnotherCamera(second=True, stream="rtsp://user@192.0.2.10:554/h265") as camera:
        answer = good(camera, "media")
        video = answer["Profiles"][0]["VideoEncoderConfiguration"]
        assert (video["Encoding"], video["Resolution"]["Width"]) == ("H265", 3840), video
        assert answer["Profiles"][0]["Uri"] == "rtsp://user@127.0.0.1:554/h265", answer
        assert "H265" in json.dumps(answer["Options"]), answer
        snapshot(camera)
        good(camera, "ptz", "preset", "The gate")
        assert camera.moves[-1][1]["PresetToken"] == "gate", camera.moves


def moves():
    with AnotherCamera() as camera:
        good(camera, "ptz", "left", "--speed", "0.5", "--seconds", "0.2")
        name, sent = camera.moves[0]
        assert name == "ContinuousMove" and float(sent["PanTilt"]["x"]) == -0.25, sent
        assert sent["ProfileToken"] == "quality_h264" and sent["Timeout"].startswith("PT"), sent
        assert camera.moves[-1][0] == "Stop", camera.moves
        good(camera, "ptz", "to", "--", "-0.5", "0.25")
        name, sent = camera.moves[-1]
        assert name == "AbsoluteMove" and (float(sent["PanTilt"]["x"]), float(sent["PanTilt"]["y"])) == (-0.5, 0.25), sent
        assert sent["PanTilt"]["space"].endswith("PositionGenericSpace"), sent
        done = run(camera, "ptz", "by", "0.1", "0")
        assert done.returncode == 1 and b"cannot be moved so" in done.stderr, done  # it has no such space
        for job in (("home",), ("set-home",), ("remove-preset", "The gate"), ("set-preset", "New")):
            good(camera, "ptz", *job)
        assert [name for name, _ in camera.moves[-4:]] == ["GotoHomePosition", "SetHomePosition", "RemovePreset",
                                                           "SetPreset"], camera.moves


def events():
    with AnotherCamera() as camera:
        motion = "tns1:RuleEngine/CellMotionDetector/Motion"
        camera.tell(motion, "IsMotion", "false", "Initialized", rule="M")
        with subprocess.Popen(command(camera, "events", "--seconds", "6"), stdout=subprocess.PIPE) as heard:
            lines = [json.loads(heard.stdout.readline())]
            camera.tell("tns1:RuleEngine/LineDetector/Crossed", "ObjectId", "15")
            camera.tell(motion, "IsMotion", "true", "Changed", rule="M")
            camera.tell(motion, "IsMotion", "true", "Changed", rule="M")  # no news
            camera.tell(motion, "IsMotion", "0", "Changed", rule="M")
            lines += [json.loads(line) for line in heard.stdout]
            assert heard.wait(LIMIT) == 0
        assert not camera.wrong, camera.wrong
        assert [(each["kind"], each["state"], each["initial"]) for each in lines] == [
            ("motion", "off", True), ("line", None, False), ("motion", "on", False), ("motion", "off", False)], lines
        crossed = lines[1]
        assert crossed["source"] == {"VideoSourceConfigurationToken": "1", "Rule": "MyImportantFence1"}, crossed
        assert crossed["data"] == {"ObjectId": "15"}, crossed
        assert abs(crossed["camera_ms"] - crossed["received_ms"] - 5 * 3600 * 1000) < 5000, crossed
        assert not camera.subscribed and "Renew" in camera.asked and camera.asked[-1] == "Unsubscribe", camera.asked


first_version()
broken_second_version()
second_version()
moves()
events()
print("a camera of other parentage is understood, and understands")

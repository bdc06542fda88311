#!/usr/bin/env python3
"""What installers do over ONVIF, against test cameras over HTTPS and behind HTTP Digest: media of the second version of
the service, pictures, the clock, users, relays.

Usage: onvif_installer_test.py ORVANTA
"""

import json
import os
import subprocess
import sys
import tempfile
import time

from orvanta_process import LIMIT, Orvanta

PROGRAM = sys.argv[1]
PASSWORD = "p&\"ä<w>"


class Camera(Orvanta):
    def __init__(self, *options):
        super().__init__(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery", "--user", "admin",
                         "--password", PASSWORD, *options)
        self.host = self.start["cameras"][0]["onvif_url"].removesuffix("/onvif/device_service").removeprefix("http://")

    def run(self, *arguments, password=PASSWORD):
        """Status, the JSON object, and what was said on standard error."""
        done = subprocess.run([PROGRAM, "onvif", self.host, "--user", "admin", "--password", password, "--json",
                               *arguments], capture_output=True, check=False, timeout=LIMIT)
        errors = done.stderr.decode()
        assert password not in errors, errors
        return done.returncode, json.loads(done.stdout) if done.stdout else None, errors

    def good(self, *arguments, **options):
        status, answer, errors = self.run(*arguments, **options)
        assert status == 0, (arguments, errors)
        return answer


def media_and_pictures(work):
    with Camera("--codec", "h265", "--audio", "aac", "--media2", "--onvif-login", "digest-sha256") as camera:
        answer = camera.good("media")
        video = answer["Profiles"][0]["VideoEncoderConfiguration"]
        assert video["Encoding"] == "H265" and video["Resolution"] == {"Width": 640, "Height": 360}, answer
        assert answer["Profiles"][0]["AudioEncoderConfiguration"]["Encoding"] == "AAC", answer
        assert answer["Profiles"][0].get("Uri") == camera.start["cameras"][0]["url"], answer
        assert "H265" in json.dumps(answer["Options"]), answer["Options"]
        path = os.path.join(work, "picture.jpg")
        assert camera.good("snapshot", path)["Bytes"] == os.path.getsize(path)
        size = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of",
                               "csv=p=0", path], capture_output=True, check=True, timeout=LIMIT).stdout
        assert size.strip() == b"mjpeg,640,360", size
        status, _, errors = camera.run("snapshot", os.path.join(work, "none", "x.jpg"))
        assert status == 1 and "none/x.jpg" in errors, errors
        status, _, errors = camera.run("media", password="another")
        assert status == 1 and "password is wrong" in errors, errors
    with Camera("--onvif-login", "digest-qop") as camera:  # the first version alone
        assert camera.good("media")["Profiles"][0]["VideoEncoderConfiguration"]["Encoding"] == "H264"
    with Camera("--onvif-login", "basic") as camera:
        status, _, errors = camera.run("users")
        assert status == 1 and "Basic, which is not allowed" in errors, errors
        assert camera.good("--allow-basic", "users")["Users"][0]["Username"] == "admin"


def https(work):
    with Camera("--onvif-tls", "--certificate", os.path.join(work, "camera.pem"), "--transports", "tcp") as camera:
        assert camera.host.startswith("https://"), camera.host
        pinned = ("--fingerprint", camera.start["certificate_sha256"])
        assert camera.good(*pinned, "hostname") == {"Name": "camera"}
        assert camera.good("--insecure", "hostname") == {"Name": "camera"}
        for refused in ((), ("--fingerprint", "AB" * 32)):
            for job in ("hostname", "info"):
                status, _, errors = camera.run(*refused, job)
                assert status == 1 and "certificate" in errors, errors
        assert camera.good(*pinned, "info")["Manufacturer"] == "Orvanta"
        assert camera.good("--insecure", "profiles")["Profiles"]
        done = subprocess.run([PROGRAM, "param", camera.host, "--user", "admin", "--password", PASSWORD, *pinned, "name"],
                              capture_output=True, check=True, timeout=LIMIT)
        assert b"ProdShortName" in done.stdout, done
        done = subprocess.run([PROGRAM, "onvif", camera.host, "--user", "admin", "--password", PASSWORD, *pinned, "--json",
                               "events", "--seconds", "2"], capture_output=True, check=True, timeout=LIMIT)
        assert b"MotionAlarm" in done.stdout, done


def jobs():
    with Camera("--onvif-clock", "-7000") as camera:
        camera.good("set-clock", "--zone", "CET-1CEST,M3.5.0,M10.5.0/3")
        assert abs(camera.good("clock")["SecondsAhead"]) <= 2
        camera.good("set-clock", "--time", "2031-02-03T04:05:06Z")
        ahead = camera.good("clock")["SecondsAhead"] + time.time()
        assert abs(ahead - 1927857906) <= 60, ahead
        camera.good("set-clock", "--ntp")
        assert camera.good("set-ntp", "192.0.2.7") == {"FromDHCP": False, "Servers": ["192.0.2.7"]}
        assert camera.good("set-hostname", "gate-7") == {"Name": "gate-7"}
        assert camera.good("relays")["RelayOutputs"][0]["IdleState"] == "closed"
        camera.good("set-relay", "Relay0", "on")
        assert camera.good("relays")["RelayOutputs"][0]["IdleState"] == "open"
        status, _, errors = camera.run("set-relay", "Relay9", "on")
        assert status == 1 and "no such relay" in errors, errors
        camera.good("set-password", "admin", "another")
        assert camera.run("users")[0] == 1
        assert camera.good("users", password="another")["Users"] == [
            {"Username": "admin", "UserLevel": "Administrator"}]
        assert camera.run("reboot", password="another")[0] == 2
        camera.good("reboot", "--yes", password="another")


with tempfile.TemporaryDirectory() as folder:
    media_and_pictures(folder)
    https(folder)
    jobs()
print("cameras are set up")

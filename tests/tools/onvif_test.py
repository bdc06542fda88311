#!/usr/bin/env python3
"""The commands onvif, param and live against the test camera, in the styles of several firmwares.

A signed request takes a second, so the cases run beside each other, each with a camera of its own.

Usage: onvif_test.py ORVANTA
"""

import base64
import datetime
import hashlib
import json
import os
import subprocess
import sys
import tempfile
import time
import urllib.parse
from concurrent.futures import ThreadPoolExecutor

from orvanta_process import LIMIT, Orvanta

PROGRAM = sys.argv[1]
USER = "ädmin <&>\"'"
PASSWORD = "p@ß:/?#[]!$&'()*+,;=%20<>\"\\ é€"


class Camera(Orvanta):
    def __init__(self, *options, style="plain"):
        super().__init__(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery",
                         "--onvif-style", style, "--user", USER, "--password", PASSWORD, *options)
        self.host = urllib.parse.urlsplit(self.start["cameras"][0]["onvif_url"]).netloc
        self.rtsp = self.start["cameras"][0]["url"]


def run(command, camera, *arguments, password=PASSWORD, zone="UTC0"):
    """Status, the JSON object, and what was said on standard error."""
    done = subprocess.run(
        [PROGRAM, command, camera.host, "--user", USER, "--password", password, "--json", *arguments],
        capture_output=True, check=False, timeout=2 * LIMIT, env={**os.environ, "TZ": zone})
    errors = done.stderr.decode()
    assert PASSWORD not in errors and password not in errors, errors
    assert errors.count("\n") <= 1, errors
    return done.returncode, json.loads(done.stdout) if done.stdout else None, errors


def good(command, camera, *arguments, **options):
    status, answer, errors = run(command, camera, *arguments, **options)
    assert status == 0, (command, arguments, errors)
    return answer


def is_reached_by_ipv6(bind):
    with Camera("--bind", bind, "--size", "320x240") as camera:
        assert camera.host.startswith("[::1]:"), camera.host
        assert good("onvif", camera, "info")["Model"] and good("param", camera, "name")
        quote = urllib.parse.quote
        url = f"onvif://{quote(USER, safe='')}:{quote(PASSWORD, safe='')}@{camera.host}"
        live = subprocess.run([PROGRAM, "live", url, "--frames", "3", "--seconds", str(LIMIT), "--json"],
                              capture_output=True, check=False, timeout=2 * LIMIT)
        assert live.returncode == 0 and json.loads(live.stdout)["streams"][0]["width"] == 320, live.stderr


def sets_and_reads_back(style):
    with Camera("--auth", "digest", style=style) as camera:
        info = good("onvif", camera, "info")
        assert (info["Manufacturer"], info["HardwareId"]) == ("Orvanta", "ORV-TC1"), info

        profiles = good("onvif", camera, "profiles")["Profiles"]
        assert [each["token"] for each in profiles] == ["Profile1", "Profile2"], profiles
        assert profiles[0]["VideoEncoderConfiguration"]["Resolution"] == {"Width": 640, "Height": 360}

        options = good("onvif", camera, "options", "--token", "VideoEncoder1")["Options"]
        assert {"Width": 320, "Height": 240} in options["H264"]["ResolutionsAvailable"], options
        if "sparse" not in style:
            assert options["H264"]["BitrateRange"] == {"Min": 16, "Max": 20000}, options

        encoder = good("onvif", camera, "set-encoder", "--token", "VideoEncoder1", "--size", "320x240",
                       "--fps", "12", "--bitrate", "300", "--gop", "6", "--quality", "70",
                       "--h264-profile", "High")["Configuration"]
        assert encoder["Resolution"] == {"Width": 320, "Height": 240}, encoder
        assert encoder["RateControl"] == {"FrameRateLimit": 12, "EncodingInterval": 1,
                                          "BitrateLimit": 300}, encoder
        assert encoder["H264"] == {"GovLength": 6, "H264Profile": "High"}, encoder
        # The CGI sees what ONVIF set.
        assert good("param", camera, "list", "Framerate.H264")["Framerate.H264"] == "12"

        # The stream is what was set; its address and its password come from the onvif:// URL.
        quote = urllib.parse.quote
        url = f"onvif://{quote(USER, safe='')}:{quote(PASSWORD, safe='')}@{camera.host}"
        live = subprocess.run([PROGRAM, "live", url, "--frames", "3", "--seconds", str(LIMIT), "--json"],
                              capture_output=True, check=False, timeout=2 * LIMIT)
        assert live.returncode == 0, live.stderr
        stream = json.loads(live.stdout)["streams"][0]
        assert (stream["width"], stream["height"]) == (320, 240), stream

        imaging = good("onvif", camera, "set-imaging", "--brightness", "12", "--contrast", "34",
                       "--ir-cut-filter", "OFF", "--white-balance", "MANUAL", "--cr-gain", "5",
                       "--cb-gain", "6", "--wide-dynamic-range", "ON")["ImagingSettings"]
        assert (imaging["Brightness"], imaging["Contrast"], imaging["Sharpness"]) == (12, 34, 50)
        assert (imaging["IrCutFilter"], imaging["WideDynamicRange"]["Mode"]) == ("OFF", "ON"), imaging
        assert imaging["WhiteBalance"]["Mode"] == "MANUAL", imaging


def configures_the_network_and_profiles(style):
    with Camera(style=style) as camera:
        good("onvif", camera, "set-network", "--address", "10.1.2.3", "--prefix", "20",
             "--gateway", "10.1.0.1", "--dns", "10.1.0.2")
        network = good("onvif", camera, "network")
        address = network["NetworkInterfaces"][0]["IPv4"]
        assert address == {"Address": "10.1.2.3", "PrefixLength": 20, "DHCP": False}, network
        assert network["NetworkGateway"]["IPv4Address"] == "10.1.0.1", network
        assert network["DNSInformation"] == {"FromDHCP": False, "IPv4Address": ["10.1.0.2"]}, network

        name = "a <profile> & \"more\" é"
        token = good("onvif", camera, "create-profile", name, "--video-source",
                     "VideoSourceConfiguration0", "--video-encoder", "VideoEncoder3", "--metadata",
                     "Metadata0")["ProfileToken"]
        made = good("onvif", camera, "profiles")["Profiles"][-1]
        assert (made["token"], made["Name"]) == (token, name), made
        assert made["VideoEncoderConfiguration"]["Encoding"] == "JPEG", made
        uri = good("onvif", camera, "uri", "--profile", token)
        assert uri["Uri"] == camera.rtsp + "3", uri

        good("onvif", camera, "factory-default", "--yes")
        assert len(good("onvif", camera, "encoders")["Configurations"]) == 3
        assert len(good("onvif", camera, "profiles")["Profiles"]) == 2


def sets_parameters(style):
    for streams, combinations in ((3, ("720p,disable,cif", "disable,vga,disable", "vga,qcif,d1")),
                                  (4, ("720p,disable,disable,cif", "vga,cif,qcif,qvga")),
                                  (5, ("disable,cif,qvga,disable,disable", "vga,cif,qcif,qvga,d1"))):
        with Camera("--streams", str(streams), style=style) as camera:
            for combination in combinations:
                answer = good("param", camera, "set-resolutions", combination)
                assert answer["Image.I0.Appearance.Resolution"] == combination, answer
                keys = [each["key"] for each in answer["streams"]]
                assert keys == combination.split(","), answer
            status, _, errors = run("param", camera, "set-resolutions", "1x1" + ",cif" * (streams - 1))
            assert status == 1, errors
            assert good("param", camera, "resolutions") == answer
    with Camera(style=style + ",fisheye") as camera:
        assert good("param", camera, "name") == {"Brand.ProdShortName": "Orvanta test camera"}
        answer = good("param", camera, "set", "Image.I0.Appearance.H264Bitrate=1234",
                      "AudioSource.A0.BitRate=alaw", "Framerate.MJPEG=9")
        assert answer["Image.I0.Appearance.H264Bitrate"] == "1234", answer
        assert answer["AudioSource.A0.BitRate"] == "alaw", answer
        everything = good("param", camera, "list")
        assert everything["Framerate.Mjpeg"] == "9" and len(everything) > 20, everything
        status, _, errors = run("param", camera, "set", "Framerate.H264=999")
        assert status == 1 and "refused" in errors, errors
        good("param", camera, "tv-system", "3")
        answer = good("param", camera, "resolutions")
        assert answer["pal"] and answer["fisheye"], answer
        # cif has more lines at 50 Hz
        encoders = good("onvif", camera, "encoders")["Configurations"]
        assert encoders[1]["Resolution"]["Height"] == 288, encoders


def follows_the_clock(offset, camera_zone, zone):
    """The camera takes a created time that is at most 30 seconds off."""
    with Camera("--onvif-clock", str(offset), "--onvif-zone", camera_zone, "--onvif-window",
                "30") as camera:
        ahead = good("onvif", camera, "clock", zone=zone)["SecondsAhead"]
        assert abs(ahead - offset) <= 5, (ahead, offset)
        good("onvif", camera, "info", zone=zone)


def to_the_change_in(month):
    """Seconds from now to half an hour past the next change of Europe's clocks in that month."""
    day = datetime.datetime(datetime.datetime.now().year + 1, month, 31, 1, 30,
                            tzinfo=datetime.timezone.utc)
    while day.weekday() != 6:
        day -= datetime.timedelta(days=1)
    return int(day.timestamp() - time.time())


def fails_cleanly(style, status_words):
    """One line that says what is wrong, in bounded time."""
    with Camera(style=style) as camera:
        for command, arguments in (("onvif", ("info",)), ("param", ("name",))):
            began = time.monotonic()
            status, answer, errors = run(command, camera, *arguments)
            assert status == 1 and answer is None, (style, command, status)
            assert any(word in errors for word in status_words), (style, command, errors)
            assert time.monotonic() - began < LIMIT, (style, command)


def refuses_strangers():
    with Camera() as camera:
        for command, arguments in (("onvif", ("info",)), ("param", ("list",))):
            status, _, errors = run(command, camera, *arguments, password="not & it")
            assert status == 1 and "401" in errors, errors
        status, _, errors = run("onvif", camera, "factory-default")
        assert status == 2 and "--yes" in errors, errors
        status, _, errors = run("onvif", camera, "uri", "--profile", "nosuch")
        assert status == 1 and errors, errors


def answers_one_token_once():
    """A request is good a single time: what was heard on the wire opens nothing."""
    with Camera() as camera, tempfile.TemporaryDirectory() as folder:
        body = os.path.join(folder, "body")
        name = f"http://{camera.host}/onvif/device_service"
        nonce, created = b"0123456789abcdef", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        digest = hashlib.sha1(nonce + created.encode() + PASSWORD.encode()).digest()
        wss = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-"
        user = USER.replace("&", "&amp;").replace("<", "&lt;")
        with open(body, "w", encoding="utf-8") as out:
            out.write(
                '<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"><s:Header>'
                f'<Security xmlns="{wss}wssecurity-secext-1.0.xsd"><UsernameToken><Username>{user}'
                f'</Username><Password Type="{wss}username-token-profile-1.0#PasswordDigest">'
                f'{base64.b64encode(digest).decode()}</Password>'
                f'<Nonce>{base64.b64encode(nonce).decode()}</Nonce>'
                f'<Created xmlns="{wss}wssecurity-utility-1.0.xsd">{created}</Created>'
                '</UsernameToken></Security></s:Header><s:Body>'
                '<GetUsers xmlns="http://www.onvif.org/ver10/device/wsdl"/></s:Body></s:Envelope>')
        codes = [subprocess.run(["curl", "-sS", "-m", str(LIMIT), "-o", "/dev/null", "-w",
                                 "%{http_code}", "--data-binary", f"@{body}", name],
                                capture_output=True, check=True).stdout for _ in range(2)]
        assert codes == [b"200", b"401"], codes


CASES = [(fails_cleanly, "silent", ("no answer",)),  # the longest first
         *((sets_and_reads_back, style) for style in ("plain", "prefixes,attributes", "pretty,sparse")),
         *((configures_the_network_and_profiles, style)
           for style in ("attributes,pretty", "prefixes,sparse")),
         (fails_cleanly, "fault", ("500", "refused")),
         (fails_cleanly, "unauthorized", ("401",)),
         (fails_cleanly, "truncated", ("short", "answer", "transfer")),
         (fails_cleanly, "endless", ("answer", "long", "time", "Time", "bytes")),
         (refuses_strangers,), (answers_one_token_once,),
         (follows_the_clock, 0, "UTC0", "Asia/Kolkata"),
         (follows_the_clock, 3600, "CET-1CEST,M3.5.0,M10.5.0/3", "America/New_York"),
         (follows_the_clock, -40_000_000, "<+1245>-12:45", "Pacific/Chatham"),
         (follows_the_clock, to_the_change_in(3), "UTC0", "Europe/Berlin"),
         (follows_the_clock, to_the_change_in(10), "UTC0", "Europe/Berlin"),
         (is_reached_by_ipv6, "::1"),
         *((sets_parameters, style) for style in ("plain", "pretty"))]


def main():
    with ThreadPoolExecutor(12) as pool:
        runs = [(case, pool.submit(case[0], *case[1:])) for case in CASES]
        failures = 0
        for case, future in runs:
            error = future.exception()
            if error is not None:
                failures += 1
                print(f"{case[0].__name__}{case[1:]}: {type(error).__name__}: {error}")
    assert failures == 0, f"{failures} of {len(CASES)} failed"


main()

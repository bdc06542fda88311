#!/usr/bin/python3
"""What is done on the page of orvanta serve, in Chromium and Firefox: a camera is moved, pictures are zoomed and kept,
sites put into another order, recordings played in step as they were recorded.

Usage: serve_page_doing_test.py ORVANTA

Debian's own Python: it has Debian's selenium. Status 77 where there is no Chromium.
"""

import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request
from types import SimpleNamespace

from page_browser import Hands, open_chromium, open_firefox
from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]
LOGIN = "operator", "secret"


class Site:
    """The camera that can be moved, as it is asked beside the page."""

    def __init__(self, camera):
        self.host = urllib.parse.urlsplit(camera.start["cameras"][0]["onvif_url"]).netloc

    def looks(self):
        with urllib.request.urlopen(f"http://{self.host}/control/ptz", timeout=LIMIT) as answer:
            return json.load(answer)

    def ptz(self, *arguments):
        subprocess.run([PROGRAM, "onvif", self.host, "--user", "admin", "--password", "pw", "ptz", *arguments],
                       capture_output=True, check=True, timeout=LIMIT)


def ask(server, target, method="GET"):
    done = subprocess.run(["curl", "-sS", "--digest", "-u", ":".join(LOGIN), "-X", method,
                           server.start["url"].rstrip("/") + target], capture_output=True, check=True, timeout=LIMIT)
    return json.loads(done.stdout)


def nobody_renews(server, site):
    """A browser that is lost: the server stops the camera, before the camera would by itself."""
    assert "presets" in ask(server, "/auth/ptz?site=1")
    start = site.looks()["pan"]
    ask(server, "/auth/ptz?site=1&pan=10&tilt=0&zoom=0", "PUT")
    wait_for(lambda: site.looks()["moving"], "it moves")
    wait_for(lambda: not site.looks()["moving"], "it stops")
    assert .15 < site.looks()["pan"] - start < .28, site.looks()
    assert "onvif" in ask(server, "/auth/ptz?site=2")["error"]
    assert "error" in ask(server, "/auth/ptz?site=1&pan=101&tilt=0&zoom=0", "PUT")
    assert "error" in ask(server, "/auth/ptz?site=1&preset=9", "PUT")


def move(hands, site):
    hands.click("#camera-1 .move")
    hands.wait("#camera-1 .ptz .right", "title", bool, "the arrows come")
    hands.mouse(hands.place("#camera-1 .ptz .left"), "down")
    wait_for(lambda: site.looks()["pan"] < -.1, "it goes to the left")
    hands.mouse("up")
    wait_for(lambda: not site.looks()["moving"], "and stops when it is let go")
    assert site.looks()["pan"] > -1
    # Slowly, from the picture, and longer than anybody goes on who is not told again.
    start = site.looks()["pan"]
    hands.mouse(hands.place("#camera-1 .stage", .56), "down")
    wait_for(lambda: site.looks()["pan"] - start > .5, "it goes on to the right")
    hands.mouse("up")
    wait_for(lambda: not site.looks()["moving"], "and stops")
    hands.wheel(hands.place("#camera-1 .stage"), -120)
    wait_for(lambda: site.looks()["zoom"] > .05, "the wheel zooms")
    wait_for(lambda: not site.looks()["moving"], "and stops")
    hands.run("""const presets = document.querySelector('#camera-1 .presets');
        presets.selectedIndex = 1; presets.dispatchEvent(new Event('change'))""")
    wait_for(lambda: (site.looks()["pan"], site.looks()["zoom"]) == (0, 0), "the preset")
    hands.click("#camera-1 .move")
    assert not hands.run("return document.querySelector('#camera-1 .ptz').checkVisibility()")


def look_and_keep(hands, folder):
    hands.wheel(hands.place("#camera-1 .stage", .75, .75), -120)
    hands.wait("#camera-1 .stage", "dataset.zoom", lambda zoom: float(zoom) > 1, "it is zoomed")
    before = hands.read("#camera-1 video", "style.transform")
    hands.mouse(hands.place("#camera-1 .stage"), "down", hands.place("#camera-1 .stage", .6), "up")
    hands.wait("#camera-1 video", "style.transform", lambda now: now != before, "it is dragged")
    hands.click("#camera-1 .still")
    downloads = folder + "/downloads"
    found = wait_for(lambda: os.path.isdir(downloads) and
                     [each for each in os.listdir(downloads) if each.endswith(".png") and
                      os.path.getsize(os.path.join(downloads, each))], "the picture is kept")[0]
    taken = re.fullmatch(r"site1_(\d{8}T\d{6})\.\d{3}Z\.png", found)
    assert taken and taken[1] > time.strftime("%Y%m%dT%H%M%S", time.gmtime(time.time() - 30)), found
    probed = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=width,height", "-of", "csv=p=0",
                             os.path.join(downloads, found)], capture_output=True, text=True, check=True)
    assert probed.stdout.strip() == "320,240", probed.stdout


def put_in_order(hands, server):
    hands.click("#layouts button:nth-child(3)")
    stands = "return ['#camera-1', '#camera-2'].map(each => document.querySelector(each)?.getBoundingClientRect().left ?? 0)"
    assert (lambda one, other: one < other)(*hands.run(stands))
    hands.mouse(hands.place("#camera-1 .name", .3), "down", hands.place("#camera-2", .5), hands.place("#camera-2", .9), "up")
    wait_for(lambda: (lambda one, other: one > other)(*hands.run(stands)), "the first stands behind the second")
    hands.browser.get(server.start["url"])
    hands.log_in(*LOGIN)
    wait_for(lambda: (lambda one, other: one > other > 0)(*hands.run(stands)), "and still does")
    assert hands.read("#layouts button:nth-child(3)", "getAttribute('aria-pressed')") == "true"
    hands.run("""document.querySelector('#camera-1 .name').dispatchEvent(
        new KeyboardEvent('keydown', {key: 'ArrowLeft', bubbles: true}))""")
    wait_for(lambda: (lambda one, other: one < other)(*hands.run(stands)), "a key puts it back")


def record(server):
    """Twice some seconds of both sites, with a gap between."""
    for on in (1, 0, 1, 0):
        for number in (1, 2):
            ask(server, f"/auth/record?site={number}&on={on}", "PUT")
        time.sleep(7 if on else 3)


def play(hands):
    hands.click("#month button[data-day]")
    hands.wait("#list .span", "textContent", bool, "the recordings are listed")
    hands.click("#list .span")
    for number in (1, 2):
        hands.wait(f"#played-{number}-0 video", "dataset.pictures", lambda count: int(count or 0) > 15, "plays")
    # Together, by the times of the pictures that were on the screen: closer than the faster camera's pictures are.
    hands.listen("#played-2-0 .listen", "#played-sound")
    skew = lambda limit: hands.wait("#played", "dataset.skew", lambda told: told and float(told) < limit, "is in step")
    skew(40)
    moment = lambda: float(hands.read("#moment", "dataset.time"))
    assert hands.run("return document.querySelectorAll('#played canvas').length") == 0
    # Over the gap, which lasts 3 s, at once.
    spans = hands.run("return fetch('/recordings?from=' + (Math.floor(Date.now() / 1000) - 300) + '&to=' + "
                      "Math.ceil(Date.now() / 1000)).then(answer => answer.json())")["spans"]
    ends = sorted(span["end"] for span in spans if span["site"] == 1)
    starts = sorted(span["start"] for span in spans if span["site"] == 1)
    assert len(ends) == 2 and starts[1] - ends[0] >= 2, spans
    wait_for(lambda: moment() / 1000 > starts[1] - .5, "the gap is jumped over")
    for number in (1, 2):
        hands.wait(f"#played-{number}-0 video", "dataset.time", lambda at: float(at) / 1000 >= starts[1] - 1, "goes on")
    skew(40)
    hands.click("[data-do=slower]")
    hands.wait("#speed", "dataset.speed", lambda told: told == "0.5", "half the speed")
    began, at = moment(), time.monotonic()
    time.sleep(1.5)
    passed = (moment() - began) / 1000 / (time.monotonic() - at)
    assert .2 < passed < .8, passed
    hands.click("[data-do=pause]")
    hands.wait("#speed", "dataset.speed", lambda told: told == "0", "a pause")
    stood = moment()
    # Steps are pictures, from the same moment on; then it plays on.
    hands.click("[data-do=backward]")
    hands.wait("#played-1-0 canvas", "dataset.time", lambda at: at and abs(float(at) - stood) < 500, "a step")
    hands.click("[data-do=slower]")
    hands.wait("#speed", "dataset.speed", lambda told: told == "-1", "backward")
    wait_for(lambda: moment() < starts[1] * 1000 + 500, "it goes backward")
    hands.click("[data-do=faster]")
    for number in (1, 2):
        hands.wait(f"#played-{number}-0 video", "dataset.pictures", lambda count: int(count or 0) > 3, "plays again")


def look_at_the_timeline(hands):
    hands.click("#widths button:nth-child(5)")
    point = wait_for(lambda: hands.run("""const box = document.querySelector('#lanes .bar .span')?.getBoundingClientRect();
        return box && box.width > 20 && {x: Math.round(box.left + box.width / 2), y: Math.round(box.top + 2)}"""), "it is seen larger")
    hands.mouse({"x": point["x"] - 3, "y": point["y"]}, point)
    hands.wait("#thumbnail img", "naturalWidth", lambda width: width in (160, 320), "a small picture")
    hands.click("#zone")
    hands.wait("#zone", "textContent", lambda text: text == "local time", "the time of here")
    hands.wait("#month button", "textContent", lambda text: text and text.isdigit(), "the days of here")
    hands.click("#zone")
    hands.click("#storage summary")
    hands.wait(".held tr:nth-child(3)", "textContent", lambda text: text and "MB" in text, "what the disk holds")
    hands.click("#stop")


def looks_as_asked(chromium):
    """Light and dark, and narrow."""
    colours = []
    for scheme in ("light", "dark"):
        chromium.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        colours.append([int(part) for part in re.findall(r"\d+", chromium.execute_script(
            "return getComputedStyle(document.body).backgroundColor"))[:3]])
    assert min(colours[0]) > 200 and max(colours[1]) < 60, colours
    chromium.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                             {"width": 390, "height": 800, "deviceScaleFactor": 1, "mobile": True})
    wait_for(lambda: chromium.execute_script("return document.documentElement.scrollWidth <= 390"), "it fits a phone")
    chromium.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})


def the_service_has_the_same_page(site, url, folder):
    """Its disks are all told, and a camera known by ONVIF beside its stream is moved."""
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    with open(folder + "/users", "w", encoding="utf-8") as users:
        users.write(":".join(LOGIN) + "\n")
    with open(folder + "/recorder.toml", "w", encoding="utf-8") as config:
        config.write(f"""[[disks]]
path = "{folder}/one"
[[disks]]
path = "{folder}/two"
[page]
port = {port}
users-file = "{folder}/users"
[[sites]]
number = 1
url = "{url}"
onvif = "onvif://{site.host}"
user = "admin"
password = "pw"
""")
    os.chmod(folder + "/users", 0o600)
    os.chmod(folder + "/recorder.toml", 0o600)
    for disk in ("one", "two"):
        os.makedirs(f"{folder}/{disk}")
    with subprocess.Popen([PROGRAM, "record", "--config", folder + "/recorder.toml"], stderr=subprocess.DEVNULL) as service:
        try:
            page = SimpleNamespace(start={"url": f"http://127.0.0.1:{port}"})
            wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, "the service's page")
            wait_for(lambda: len(ask(page, "/auth/storage")["disks"]) == 2, "both disks are told")
            wait_for(lambda: len(ask(page, "/auth/status")["sites"]) == 1, "the camera is there")
            assert ask(page, "/auth/ptz?site=1")["presets"] == ["gate & <yard>"]
        finally:
            service.terminate()
            service.wait(LIMIT)


def use(browser, server, site, folder):
    hands = Hands(browser)
    browser.get(server.start["url"])
    hands.log_in(*LOGIN)
    try:
        hands.wait("#camera-1 video", "dataset.pictures", lambda count: int(count or 0) > 5, "is seen")
        move(hands, site)
        hands.wait("#camera-2 .listen", "hidden", lambda hidden: hidden is False, "has sound")
        hands.listen("#camera-2 .listen", "audio")
        look_and_keep(hands, folder)
        put_in_order(hands, server)
        play(hands)
        look_at_the_timeline(hands)
    except BaseException:
        browser.save_screenshot(tempfile.gettempdir() + "/serve_page_doing.png")
        print("the page says:", hands.read("#message"))
        raise


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as root:
    with Orvanta(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery", "--ptz", "--size", "320x240", "--gop", "10",
                 "--user", "admin", "--password", "pw") as first, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--fps", "10", "--gop", "10", "--audio", "pcmu") as second, \
            Orvanta(PROGRAM, "serve", "--port", "0", "--data", root + "/data", "--user", LOGIN[0], "--password", LOGIN[1],
                    first.start["cameras"][0]["onvif_url"].replace("://", "://admin:pw@").replace("http", "onvif"),
                    second.start["cameras"][0]["url"]) as orvanta:
        camera = Site(first)
        camera.ptz("set-preset", "gate & <yard>")
        wait_for(lambda: len(ask(orvanta, "/auth/status")["sites"]) == 2, "the camera told its stream")
        nobody_renews(orvanta, camera)
        the_service_has_the_same_page(camera, first.start["cameras"][0]["url"], root)
        record(orvanta)
        for name, opened in (("chromium", open_chromium), ("firefox", open_firefox)):
            os.makedirs(f"{root}/{name}")
            window = opened(f"{root}/{name}")
            if window is None:
                continue
            try:
                use(window, orvanta, camera, f"{root}/{name}")
                if name == "chromium":
                    looks_as_asked(window)
            finally:
                window.quit()
        assert orvanta.end() == 0

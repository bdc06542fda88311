#!/usr/bin/python3
"""The whole way of who runs a recorder, on its service's page in Chromium and Firefox: log in, watch with sound, play, zoom
the timeline, export and check the hash, add a camera, move one, read who did what, log out.

Usage: serve_whole_way_test.py ORVANTA SCREENSHOT.png

Debian's own Python: it has Debian's selenium. Status 77 where there is no Chromium.
"""

import hashlib
import json
import os
import socket
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request

from page_browser import Hands, open_chromium, open_firefox
from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM, SCREENSHOT = sys.argv[1:]
PASSWORD = 'se:cr"et word'


def set_up(folder, camera, port):
    """One camera that can be moved, recorded all the time in files of some seconds."""
    os.mkdir(folder + "/data")
    for name, role in (("boss", "manage"), ("guard", "watch")):
        subprocess.run([PROGRAM, "user", "add", folder + "/users", name, "--role", role], input=PASSWORD + "\n", text=True, check=True)
    host = urllib.parse.urlsplit(camera["onvif_url"]).netloc
    with open(folder + "/recorder.toml", "w", encoding="utf-8") as config:
        config.write(f"""# Ours.
[[disks]]
path = "{folder}/data"
[page]
port = {port}
users-file = "users"
audit = "audit"
[[sites]]
number = 1
url = "{camera["url"]}"
onvif = "onvif://{host}"
user = "admin"
password = "pw"
file-size = "1 MiB"
""")
    os.chmod(folder + "/recorder.toml", 0o600)
    return host


def watch(hands, user):
    assert hands.read("#password", "type") == "password" and hands.read("#all") is None
    hands.log_in(user, PASSWORD)
    hands.wait("#camera-1 video", "dataset.pictures", lambda count: int(count or 0) > 5, "is seen")


def play_and_export(hands):
    hands.click("#month button[data-day]")
    hands.wait("#list .span", "textContent", bool, "the recordings are listed")
    hands.click("#list .span")
    hands.wait("#played-1-0 video", "dataset.pictures", lambda count: int(count or 0) > 5, "plays")
    hands.click("#widths button:nth-child(4)")
    wide = hands.run("return document.querySelector('#lanes .bar .span').getBoundingClientRect().width")
    hands.click("#widths button:nth-child(5)")
    wait_for(lambda: hands.run("return document.querySelector('#lanes .bar .span')?.getBoundingClientRect().width ?? 0") > wide,
             "the timeline is zoomed")
    hands.click("#mark-from")
    first = float(hands.read("#moment", "dataset.time"))
    wait_for(lambda: float(hands.read("#moment", "dataset.time")) > first + 2500, "it goes on")
    hands.click("#mark-to")
    hands.click("#export")
    hands.wait(".clip .hash", "textContent", bool, "it is exported")
    hashed = hands.run("""return fetch(document.querySelector('.clip a[download]').href).then(answer => answer.arrayBuffer())
        .then(bytes => crypto.subtle.digest('SHA-256', bytes))
        .then(sum => [...new Uint8Array(sum)].map(byte => byte.toString(16).padStart(2, '0')).join(''))""")
    assert len(hashed) == 64 and hashed in hands.read(".clip .hash"), hashed
    hands.click("#stop")


def fill(hands, **fields):
    for name, text in fields.items():
        hands.run("""const field = document.querySelector(`#site-form [name="${arguments[0]}"]`);
            field.value = arguments[1]""", name, text)


def add_a_camera(hands, url, folder):
    hands.click("#sites summary")
    hands.wait('#site-list tr[data-site="1"]', "textContent", bool, "the sites are listed")
    hands.click("#site-add")
    fill(hands, name="Yard", url="rtsp://127.0.0.1:1/none")
    hands.click("#site-try")
    hands.wait("#site-said", "className", lambda name: name == "bad", "it is told why nothing comes")
    fill(hands, url=url)
    hands.click("#site-try")
    hands.wait("#site-said", "textContent", lambda text: text and "320x240" in text, "what the camera sends")
    hands.wait("#site-picture", "naturalWidth", lambda width: width == 320, "and a picture of it")
    hands.click("#site-save")
    hands.wait("#camera-2 video", "dataset.pictures", lambda count: int(count or 0) > 5, "the new camera is seen")
    with open(folder + "/recorder.toml", encoding="utf-8") as config:
        text = config.read()
    assert text.startswith("# Ours.") and 'name = "Yard"' in text and url in text, text
    hands.run("window.confirm = () => true")
    hands.click('#site-list tr[data-site="2"] .remove')
    wait_for(lambda: hands.read("#camera-2") is None, "and is removed again")


def move(hands, host):
    def looks():
        with urllib.request.urlopen(f"http://{host}/control/ptz", timeout=LIMIT) as answer:
            return json.load(answer)
    hands.click("#camera-1 .move")
    hands.wait("#camera-1 .ptz .right", "title", bool, "the arrows come")
    start = looks()["pan"]
    hands.mouse(hands.place("#camera-1 .ptz .right"), "down")
    wait_for(lambda: looks()["pan"] > start + .1, "it goes to the right")
    hands.mouse("up")
    wait_for(lambda: not looks()["moving"], "and stops")
    hands.click("#camera-1 .move")


def use(browser, page, host, url, folder):
    hands = Hands(browser)
    try:
        browser.get(page)
        watch(hands, "guard")  # who may watch sees nothing else
        for hidden in ("#camera-1 .move", "#recorded", "#audit", "#sites"):
            assert not hands.run("return document.querySelector(arguments[0]).checkVisibility()", hidden), hidden
        hands.click("#leave button")
        hands.wait("#login", "id", bool, "the form again")
        watch(hands, "boss")
        hands.listen("#camera-1 .listen", "audio")
        play_and_export(hands)
        add_a_camera(hands, url, folder)
        move(hands, host)
        hands.click("#audit summary")
        for did in ("export", "sites", "ptz", "try"):
            hands.wait("#did", "textContent", lambda text: text and did in text, did + " is told")
        browser.save_screenshot(SCREENSHOT)
        hands.click("#leave button")
        hands.wait("#login", "id", bool, "the form again")
        assert hands.run("return fetch('/status').then(answer => answer.status)") == 403
    except BaseException:
        browser.save_screenshot(SCREENSHOT)
        print(f"the page says: {hands.read('#message')}; what was on the screen: {os.path.abspath(SCREENSHOT)}")
        raise


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as root:
    with Orvanta(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery", "--ptz", "--size", "640x480", "--gop", "10",
                 "--bitrate", "2000", "--pattern", "snow", "--audio", "pcmu", "--user", "admin", "--password", "pw") as first, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--fps", "10", "--gop", "10") as second:
        with socket.create_server(("127.0.0.1", 0)) as taken:
            number = taken.getsockname()[1]
        known = set_up(root, first.start["cameras"][0], number)
        with subprocess.Popen([PROGRAM, "record", "--config", root + "/recorder.toml"], stderr=subprocess.DEVNULL) as service:
            try:
                wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", number)) == 0, "the service's page")
                for name, opened in (("chromium", open_chromium), ("firefox", open_firefox)):
                    os.makedirs(f"{root}/{name}")
                    window = opened(f"{root}/{name}")
                    if window is None:
                        continue
                    try:
                        use(window, f"http://127.0.0.1:{number}/", known, second.start["cameras"][0]["url"], root)
                    finally:
                        window.quit()
            finally:
                service.terminate()
                service.wait(LIMIT)

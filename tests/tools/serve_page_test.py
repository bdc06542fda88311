#!/usr/bin/python3
"""The page of orvanta serve, used in Chromium: log in, watch, record, find it today, play, step, export and keep it.

Usage: serve_page_test.py ORVANTA SCREENSHOT.png

Then once more in Firefox, as far as it plays. Debian's own Python: it has Debian's selenium. Status 77 where there is no
Chromium; without Firefox that part is left out.
"""

import hashlib
import os
import subprocess
import sys
import tempfile
import time

from page_browser import open_chromium, open_firefox
from orvanta_process import Orvanta, wait_for
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

PROGRAM, SCREENSHOT = sys.argv[1:]


class Page:
    def __init__(self, browser, url):
        self.browser = browser
        browser.get(url)

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def some(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def click(self, selector):
        element = wait_for(lambda: self.some(selector), f"{selector} is there")[0]
        wait_for(element.is_displayed, f"{selector} is shown")
        element.click()

    def click_at(self, selector, part):
        """Where this part of the first recording has passed. The pieces of a bar come and go, the bar stays."""
        x = self.browser.execute_script("""
            const span = document.querySelector('#lanes .bar .span').getBoundingClientRect();
            const box = document.querySelector(arguments[0]).getBoundingClientRect();
            return span.left + span.width * arguments[1] - box.left - box.width / 2;""", selector, part)
        ActionChains(self.browser).move_to_element_with_offset(self.one(selector), x, 2).click().perform()

    def number(self, selector, attribute):
        """An attribute as a number; None while it is not there."""
        text = self.one(selector).get_attribute(attribute) if self.some(selector) else None
        return float(text) if text else None

    def pixels(self, selector):
        """All that a canvas or a video shows."""
        return self.browser.execute_script("""
            const shown = document.querySelector(arguments[0]);
            if (shown.localName === 'canvas') return shown.toDataURL('image/png');
            const canvas = document.createElement('canvas');
            [canvas.width, canvas.height] = [shown.videoWidth, shown.videoHeight];
            canvas.getContext('2d').drawImage(shown, 0, 0);
            return canvas.toDataURL('image/png');""", selector)

    def log_in(self, password):
        for name, text in (("#user", "operator"), ("#password", password)):
            self.one(name).clear()
            self.one(name).send_keys(text)
        self.one("#login button").click()


def use(page):
    # Nothing is shown before the login, and none with a wrong password.
    assert page.one("#login").is_displayed() and not page.some("#all")
    page.log_in("wrong")
    wait_for(lambda: "Wrong" in page.browser.execute_script(
        "return document.querySelector('#refused')?.textContent ?? ''"), "the refusal is told")
    assert not page.some(".picture")
    page.log_in("se:cr\"et")

    # H.264 as the camera sends it, JPEG as it is; the last cannot be played and comes as pictures.
    for shown in ("#camera-1 video", "#camera-2 canvas", "#camera-3 canvas"):
        camera = shown.split()[0]
        wait_for(lambda: (page.number(shown, "data-pictures") or 0) > 5, shown + " is seen")
        assert page.one(shown).is_displayed()
        seen = page.pixels(shown)
        wait_for(lambda: page.pixels(shown) != seen, camera + " moves")
        wait_for(lambda: " fps " in page.one(camera + " .rates").text, "rates are shown")
        assert "lost 0" in page.one(camera + " .rates").text
    wait_for(lambda: 0 < page.number("#camera-1 video", "data-behind") < 1, "the video is less than 1 s behind")
    page.click("#camera-1 .listen")
    wait_for(lambda: page.browser.execute_script("return (document.querySelector('audio') || {}).currentTime > 0"),
             "sound is played")
    page.click("#layouts button")  # one at once
    wait_for(lambda: not page.one("#camera-2").is_displayed(), "one site alone")
    page.click("#layouts button:nth-child(2)")
    # Record both for some seconds.
    for camera in ("#camera-1", "#camera-2"):
        page.click(camera + " .record")
        wait_for(lambda: page.some(camera + ".recording"), camera + " records")
    time.sleep(6)
    for camera in ("#camera-1", "#camera-2"):
        page.click(camera + " .record")
        wait_for(lambda: not page.some(camera + ".recording"), camera + " records no more")

    # Today is marked; its recordings play in step.
    today = wait_for(lambda: page.some("#month button[data-day]"), "a day with recordings")[-1]
    assert today.get_attribute("data-day") == time.strftime("%Y-%m-%d", time.gmtime())
    page.click(f"#month button[data-day='{today.get_attribute('data-day')}']")
    wait_for(lambda: len(page.some("#list .span")) == 2, "both recordings are listed")
    assert len(page.some(".bar i:not(.event)")) >= 2
    page.click("#list .span")
    played = ("#played-1-0 canvas", "#played-2-0 canvas")
    for canvas in played:
        wait_for(lambda: page.number(canvas, "data-pictures"), canvas + " plays")
        seen = page.number(canvas, "data-time")
        wait_for(lambda: page.number(canvas, "data-time") > seen, canvas + " goes on")
    page.click("[data-do=pause]")
    wait_for(lambda: page.number("#speed", "data-speed") == 0, "a pause")
    wait_still(page, played[0])

    # Steps: the picture and its time change, and back again.
    start = page.number(played[0], "data-time"), page.pixels(played[0])
    page.click("[data-do=forward]")
    wait_for(lambda: page.number(played[0], "data-time") > start[0], "a step on")
    assert page.pixels(played[0]) != start[1]
    page.click("[data-do=backward]")
    wait_for(lambda: page.number(played[0], "data-time") == start[0], "a step back")
    wait_for(lambda: page.pixels(played[0]) == start[1], "the same picture again")

    # Directions and speeds.
    page.click("[data-do=slower]")
    wait_for(lambda: page.number("#speed", "data-speed") == -1, "backward")
    wait_for(lambda: page.number(played[0], "data-time") < start[0], "it goes backward")
    for speed in (1, 2):
        page.click("[data-do=faster]")
        wait_for(lambda: page.number("#speed", "data-speed") == speed, f"speed {speed}")
    wait_for(lambda: page.number(played[0], "data-time") > start[0], "it goes forward")
    page.click("#stop")
    wait_for(lambda: not page.one("#player").is_displayed(), "it is closed")


def check_console(page):
    errors = [line["message"] for line in page.browser.get_log("browser")
              if line["level"] == "SEVERE" and "/login" not in line["message"]]
    assert not errors, errors


def timeline(page, root):
    """Zooms in, seeks, marks a span, exports it and keeps it."""
    page.click("#month button[data-day]")
    wait_for(lambda: len(page.some("#list .span")) == 2, "the recordings are listed")
    wait_for(lambda: page.some(".bar .gap[title*='nothing recorded']"), "the time that was not recorded is shown, and why")
    page.click("#list .span")
    wait_for(lambda: page.number("#moment", "data-time"), "it plays")
    page.click("#widths button:nth-child(5)")  # a minute
    wait_for(lambda: page.browser.execute_script(
        "return document.querySelector('#lanes .bar .span')?.getBoundingClientRect().width > 40"), "it is seen larger")
    # From the middle of the recording, by a click, to nearly its end, by the ruler.
    page.click_at("#lanes .bar", .5)
    page.click("[data-do=pause]")
    wait_for(lambda: page.number("#speed", "data-speed") == 0, "a pause")
    page.one("body").send_keys("i")
    wait_still(page, "#played-1-0 canvas")
    first = page.number("#moment", "data-time")
    page.one("body").send_keys(Keys.ARROW_RIGHT)
    wait_for(lambda: page.number("#moment", "data-time") != first, "a step by a key")
    page.click_at("#ruler", .9)
    wait_for(lambda: page.number("#moment", "data-time") > first + 900, "the ruler seeks")
    page.click("#mark-to")
    page.click("#export")
    clips = wait_for(lambda: len(page.some(".clip a[download]")) == 2 and page.some(".clip"), "both sites are exported")
    for clip in clips:
        link = clip.find_element(By.CSS_SELECTOR, "a").get_attribute("href").replace("/clip?", "/auth/clip?")
        path = root + "/clip.mp4"
        subprocess.run(["curl", "-sS", "--fail", "--digest", "-u", "operator:se:cr\"et", "-o", path, link], check=True)
        with open(path, "rb") as file:
            assert hashlib.sha256(file.read()).hexdigest() in clip.find_element(By.CSS_SELECTOR, ".hash").text
        probed = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path],
                                capture_output=True, text=True, check=True)
        assert .5 < float(probed.stdout) < 10, probed.stdout
    page.click("#keep")
    wait_for(lambda: page.some(".bar .kept"), "what is kept is shown")
    page.click("#layouts button:nth-child(3)")  # small enough for a picture of all the page
    page.browser.set_window_size(1280, 1500)
    page.browser.save_screenshot(SCREENSHOT)
    page.click("#stop")


def use_firefox(server, folder):
    browser = open_firefox(folder)
    if browser is None:
        return
    try:
        browser.get(server.start["url"])
        browser.execute_script("""
            document.querySelector('#user').value = 'operator';
            document.querySelector('#password').value = 'se:cr"et';
            document.querySelector('#login button').click()""")

        def number(script):  # nothing while a page takes another's place
            return browser.execute_script("return Number(" + script + ")") or 0

        for shown in ("#camera-1 video", "#camera-2 canvas", "#camera-3 canvas"):
            count = f"document.querySelector('{shown}')?.dataset.pictures || 0"
            wait_for(lambda: number(count) > 5, shown + " is seen in firefox")
        behind = "document.querySelector('#camera-1 video').dataset.behind"
        wait_for(lambda: 0 < number(behind) < 1, "the video is less than 1 s behind")
        browser.execute_script("document.querySelector('#month button[data-day]').click()")
        wait_for(lambda: browser.execute_script("return document.querySelectorAll('#list .span').length") == 2, "recordings")
        browser.execute_script("document.querySelector('#list .span').click()")
        played = "document.querySelector('#played-1-0 canvas')?.dataset.pictures || 0"
        wait_for(lambda: number(played) > 5, "recordings play in firefox")
    except BaseException:
        browser.save_screenshot(SCREENSHOT)
        raise
    finally:
        browser.quit()


def wait_still(page, canvas):
    """Until a second has passed without a new picture."""
    while (before := page.number(canvas, "data-pictures")) is not None:
        time.sleep(1)
        if page.number(canvas, "data-pictures") == before:
            return


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
    # The second camera has another size, codec and rate.
    with Orvanta(PROGRAM, "camera", "--port", "0", "--gop", "10", "--pattern", "smpte", "--audio", "pcmu") as first, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--codec", "mjpeg", "--pattern", "ball",
                    "--size", "320x240", "--fps", "10") as second, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--codec", "h265", "--size", "320x240", "--fps", "10") as third, \
            Orvanta(PROGRAM, "serve", "--port", "0", "--data", folder + "/data", "--user", "operator",
                    "--password", "se:cr\"et", first.start["cameras"][0]["url"],
                    second.start["cameras"][0]["url"], third.start["cameras"][0]["url"]) as server:
        window = open_chromium(folder)
        try:
            page = Page(window, server.start["url"])
            use(page)
            timeline(page, folder)
            check_console(page)
        except BaseException:
            window.save_screenshot(SCREENSHOT)
            print(f"what was on the screen: {os.path.abspath(SCREENSHOT)}")
            print(window.get_log("browser"))
            raise
        finally:
            window.quit()
        use_firefox(server, folder)
        assert server.end() == 0

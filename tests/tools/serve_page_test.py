#!/usr/bin/python3
"""The page of orvanta serve, used in Chromium: log in, watch, record, find it today, play and step it.

Usage: serve_page_test.py ORVANTA SCREENSHOT.png

Debian's own Python: it has Debian's selenium. Status 77 where there is no browser.
"""

import os
import shutil
import sys
import tempfile
import time

try:
    from selenium import webdriver
    from selenium.common.exceptions import WebDriverException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
except ImportError:
    print("skipped: python3-selenium is not installed")
    sys.exit(77)

from orvanta_process import Orvanta, wait_for

PROGRAM, SCREENSHOT = sys.argv[1:]


def open_browser(folder):
    browser, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if not browser or not driver:
        print("skipped: chromium and chromium-driver are not installed")
        sys.exit(77)
    options = webdriver.ChromeOptions()
    options.binary_location = browser
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--window-size=1280,1180", f"--user-data-dir={folder}/profile"):
        options.add_argument(argument)
    try:
        return webdriver.Chrome(service=Service(driver), options=options)
    except WebDriverException as error:
        print(f"skipped: chromium does not run here: {error.msg}")
        sys.exit(77)


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

    def number(self, selector, attribute):
        """An attribute as a number; None while it is not there."""
        text = self.one(selector).get_attribute(attribute) if self.some(selector) else None
        return float(text) if text else None

    def pixels(self, selector):
        """All that a canvas shows."""
        return self.browser.execute_script(
            "return document.querySelector(arguments[0]).toDataURL('image/png')", selector)

    def log_in(self, password):
        for name, text in (("#user", "operator"), ("#password", password)):
            self.one(name).clear()
            self.one(name).send_keys(text)
        self.one("#login button").click()


def use(page):
    # Nothing is shown before the login, and none with a wrong password.
    assert page.one("#login").is_displayed() and not page.one("#all").is_displayed()
    page.log_in("wrong")
    wait_for(lambda: "wrong" in page.one("#message").text, "the refusal is told")
    assert not page.some("canvas")
    page.log_in("se:cr\"et")

    for camera in ("#camera-1", "#camera-2"):
        canvas = camera + " canvas"
        wait_for(lambda: page.number(canvas, "data-pictures"), camera + " is seen")
        seen = page.pixels(canvas)
        wait_for(lambda: page.pixels(canvas) != seen, camera + " moves")
        wait_for(lambda: " fps " in page.one(camera + " .rates").text, "rates are shown")
        assert "lost 0" in page.one(camera + " .rates").text
    # Record both for some seconds.
    for camera in ("#camera-1", "#camera-2"):
        page.click(camera + " button")
        wait_for(lambda: page.some(camera + ".recording"), camera + " records")
    time.sleep(6)
    for camera in ("#camera-1", "#camera-2"):
        page.click(camera + " button")
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
    page.browser.save_screenshot(SCREENSHOT)
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
    errors = [line["message"] for line in page.browser.get_log("browser")
              if line["level"] == "SEVERE" and "401" not in line["message"]]
    assert not errors, errors


def wait_still(page, canvas):
    """Until a second has passed without a new picture."""
    while (before := page.number(canvas, "data-pictures")) is not None:
        time.sleep(1)
        if page.number(canvas, "data-pictures") == before:
            return


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
    # The second camera has another size, codec and rate.
    with Orvanta(PROGRAM, "camera", "--port", "0", "--gop", "10", "--pattern", "smpte") as first, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--codec", "mjpeg", "--pattern", "ball",
                    "--size", "320x240", "--fps", "10") as second, \
            Orvanta(PROGRAM, "serve", "--port", "0", "--data", folder + "/data", "--user", "operator",
                    "--password", "se:cr\"et", first.start["cameras"][0]["url"],
                    second.start["cameras"][0]["url"]) as server:
        window = open_browser(folder)
        try:
            use(Page(window, server.start["url"]))
        except BaseException:
            window.save_screenshot(SCREENSHOT)
            print(f"what was on the screen: {os.path.abspath(SCREENSHOT)}")
            print(window.get_log("browser"))
            raise
        finally:
            window.quit()
        assert server.end() == 0

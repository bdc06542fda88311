"""Chromium and Firefox for the tests of pages, used alike: scripts, a mouse, and what was on the screen."""

import shutil
import sys

try:
    from selenium import webdriver
    from selenium.common.exceptions import WebDriverException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.remote.command import Command
except ImportError:
    print("skipped: python3-selenium is not installed")
    sys.exit(77)

from firefox import Firefox
from orvanta_process import wait_for


def open_chromium(folder):
    browser, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if not browser or not driver:
        print("skipped: chromium and chromium-driver are not installed")
        sys.exit(77)
    options = webdriver.ChromeOptions()
    options.binary_location = browser
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-audio-output",
                     "--disable-features=AudioServiceOutOfProcess", "--disable-dev-shm-usage",
                     "--window-size=1280,1180", f"--user-data-dir={folder}/profile"):
        options.add_argument(argument)
    options.add_experimental_option("prefs", {"download.default_directory": folder + "/downloads"})
    try:
        return webdriver.Chrome(service=Service(driver), options=options)
    except WebDriverException as error:
        print(f"skipped: chromium does not run here: {error.msg}")
        sys.exit(77)


def open_firefox(folder):
    """None where it is not installed."""
    program = shutil.which("firefox-esr") or shutil.which("firefox")
    if not program:
        print("firefox is not installed: left out")
        return None
    return Firefox(program, folder)


class Hands:
    """What somebody does in a browser who sees the page."""

    def __init__(self, browser):
        self.browser = browser

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def read(self, selector, what="textContent"):
        """A member of the first such element; None without one."""
        return self.run(f"return document.querySelector(arguments[0])?.{what} ?? null", selector)

    def wait(self, selector, what, condition, says):
        return wait_for(lambda: condition(self.read(selector, what)), f"{selector}: {says}")

    def click(self, selector):
        wait_for(lambda: self.run("""const found = document.querySelector(arguments[0]);
            if (!found || found.disabled || !found.checkVisibility()) return false;
            found.click(); return true;""", selector), selector + " can be clicked")

    def place(self, selector, x=.5, y=.5):
        """A point of an element, on the screen."""
        return self.run("""const found = document.querySelector(arguments[0]);
            found.scrollIntoView({block: 'center', behavior: 'instant'});
            const box = found.getBoundingClientRect();
            return {x: Math.round(box.left + box.width * arguments[1]), y: Math.round(box.top + box.height * arguments[2])};""",
                        selector, x, y)

    def mouse(self, *steps):
        """Steps: a point to go to, "down", "up"."""
        actions = [{"type": "pointerDown" if step == "down" else "pointerUp", "button": 0} if isinstance(step, str) else
                   {"type": "pointerMove", "duration": 50, **step} for step in steps]
        self.perform({"type": "pointer", "id": "mouse", "parameters": {"pointerType": "mouse"}, "actions": actions})

    def wheel(self, point, turns):
        self.perform({"type": "wheel", "id": "wheel", "actions": [
            {"type": "scroll", "deltaX": 0, "deltaY": turns, "duration": 0, **point}]})

    def perform(self, source):
        if isinstance(self.browser, Firefox):
            self.browser.ask("WebDriver:PerformActions", {"actions": [source]})
        else:
            self.browser.execute(Command.W3C_ACTIONS, {"actions": [source]})

    def listen(self, button, audio):
        self.wait(button, "textContent", bool, "is there")

        def hears():
            if self.read(button, "getAttribute('aria-pressed')") != "true":  # it may move while pictures appear
                self.mouse(self.place(button), "down", "up")  # browsers play sound for who pressed something
            return self.read(audio, "currentTime")

        wait_for(hears, f"{audio}: is heard")
        self.mouse(self.place(button), "down", "up")

    def log_in(self, user, password):
        """By the form, where it is shown: who comes back is still known."""
        wait_for(lambda: self.read("#user, #all", "id"), "the form, or the page")
        if self.read("#all", "id"):
            return
        self.run("""document.querySelector('#user').value = arguments[0];
            document.querySelector('#password').value = arguments[1];
            document.querySelector('#login button').click()""", user, password)

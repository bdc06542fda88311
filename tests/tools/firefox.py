"""Firefox, driven by its own remote protocol: Debian has no geckodriver. As much as the tests use of it."""

import base64
import json
import os
import socket
import subprocess

from orvanta_process import LIMIT, wait_for

PREFERENCES = {
    "marionette.port": 0,  # any
    "media.autoplay.default": 0,
    "datareporting.policy.dataSubmissionEnabled": False,
    "app.update.enabled": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
    "browser.shell.checkDefaultBrowser": False,
    "browser.download.folderList": 2,
}


class Firefox:
    def __init__(self, program, folder):
        profile = folder + "/firefox"
        os.makedirs(profile)
        with open(profile + "/user.js", "w", encoding="utf-8") as preferences:
            for name, value in {**PREFERENCES, "browser.download.dir": folder + "/downloads"}.items():
                preferences.write(f"user_pref({json.dumps(name)}, {json.dumps(value)});\n")
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", program, "--headless", "--no-remote", "--marionette", "--profile", profile,
             "--width", "1280", "--height", "1180"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={**os.environ, "HOME": folder})
        told = profile + "/MarionetteActivePort"
        wait_for(lambda: os.path.exists(told) and os.path.getsize(told), "firefox starts")
        with open(told, encoding="utf-8") as port:
            self.socket = socket.create_connection(("127.0.0.1", int(port.read())), LIMIT)
        self.bytes, self.number = b"", 0
        self.receive()  # who it is
        self.ask("WebDriver:NewSession", {"capabilities": {"alwaysMatch": {"timeouts": {"script": LIMIT * 1000}}}})

    # A message is the length of a JSON text, a colon, and the text.
    def receive(self):
        while b":" not in self.bytes:
            self.bytes += self.more()
        length, self.bytes = self.bytes.split(b":", 1)
        while len(self.bytes) < int(length):
            self.bytes += self.more()
        text, self.bytes = self.bytes[:int(length)], self.bytes[int(length):]
        return json.loads(text)

    def more(self):
        more = self.socket.recv(1 << 20)
        assert more, "firefox has gone"
        return more

    def ask(self, command, parameters):
        self.number += 1
        text = json.dumps([0, self.number, command, parameters]).encode()
        self.socket.sendall(b"%d:%s" % (len(text), text))
        _, _, error, result = self.receive()
        assert not error, error
        return result.get("value", result) if isinstance(result, dict) else result

    def get(self, url):
        self.ask("WebDriver:Navigate", {"url": url})

    def execute_script(self, script, *arguments):
        return self.ask("WebDriver:ExecuteScript", {"script": script, "args": list(arguments), "sandbox": None})

    def save_screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.ask("WebDriver:TakeScreenshot", {"full": False})))

    def quit(self):
        self.process.terminate()
        self.process.wait(LIMIT)
        self.socket.close()

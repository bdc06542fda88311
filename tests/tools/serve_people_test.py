#!/usr/bin/python3
"""Who may do what on the page: roles, sessions, guessed passwords, requests from other pages, the audit log.

Usage: serve_people_test.py ORVANTA
"""

import json
import os
import re
import stat
import subprocess
import sys
import tempfile
import time

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]
ROLES = ("watch", "play", "operate", "manage")
# What the least role is that something is answered for; a bad query gets 400 from who may ask.
PATHS = {"/status": 0, "/metrics": 0, "/storage": 0, "/live?sites=x": 0, "/video?sites=x": 0, "/sound": 0, "/days": 1,
         "/recordings": 1, "/play": 1, "/transport": 1, "/stretch": 1, "/thumbnail": 1, "/export": 1, "/clip": 1,
         "/keep": 2, "/ptz": 2, "/record": 2, "/audit": 3, "/sites": 3, "/try": 3}


def user(*arguments, password="", code=0):
    done = subprocess.run([PROGRAM, "user", *arguments], input=password + "\n", capture_output=True, text=True,
                          timeout=LIMIT, check=False)
    assert done.returncode == code, (arguments, done)
    return done.stdout + done.stderr


class Browser:
    """A client with cookies of its own."""

    def __init__(self, server, folder, address="127.0.0.1"):
        self.url, self.address = server.start["url"].rstrip("/"), address
        self.jar = tempfile.mktemp(dir=folder)

    def curl(self, path, *options):
        done = subprocess.run(["curl", "-sS", "-i", "-m", str(LIMIT), "-b", self.jar, "-c", self.jar, "--interface", self.address,
                               *options, self.url + path], capture_output=True, text=True, check=True)
        head, body = done.stdout.split("\n\n", 1)
        return int(head.split()[1]), head, body

    def log_in(self, name, password):
        return self.curl("/login", "--data-urlencode", "user=" + name, "--data-urlencode", "password=" + password)


def users_are_made(folder):
    file = folder + "/users"
    for role in ROLES:
        user("add", file, role + "r", "--role", role, password=f"pass:{role} word")
    assert stat.S_IMODE(os.stat(file).st_mode) == 0o600
    with open(file, encoding="utf-8") as text:
        assert "word" not in text.read()
    assert "already" in user("add", file, "watchr", "--role", "play", password="another one", code=1)
    assert "8 characters" in user("add", file, "short", "--role", "play", password="1234567", code=1)
    assert "NAME" in user("add", file, "a:b", "--role", "play", password="another one", code=2)
    assert "no user" in user("remove", file, "nobody", code=1)
    told = json.loads(user("list", file, "--json"))["users"]
    assert [(each["user"], each["role"]) for each in told] == sorted((role + "r", role) for role in ROLES), told
    return file


def everybody_gets_what_the_role_allows(server, folder):
    stranger = Browser(server, folder)
    assert stranger.curl("/")[0] == 303 and stranger.curl("/page/main.js")[0] == 200
    for path in PATHS:
        code, _, body = stranger.curl(path)
        assert code == 403 and json.loads(body)["login"], (path, body)
    for place, role in enumerate(ROLES):
        browser = Browser(server, folder)
        code, head, _ = browser.log_in(role + "r", f"pass:{role} word")
        assert code == 303 and "HttpOnly; SameSite=Strict" in head, head
        assert f'data-user="{role}r" data-role="{role}"' in browser.curl("/")[2]
        for path, least in PATHS.items():
            code, _, body = browser.curl(path)
            assert (code == 403) == (place < least), (role, path, code, body)
        assert browser.curl("/record?site=9&on=1", "-X", "PUT")[0] == (403 if place < 2 else 400)
        # A page of somebody else has the browser ask, and cannot.
        for header in ("Origin: http://evil.example", "Sec-Fetch-Site: cross-site"):
            assert browser.curl("/record?site=9&on=1", "-X", "PUT", "-H", header)[0] in (400, 403)
            assert browser.curl("/logout", "-X", "POST", "-H", header)[0] == 400
        assert browser.curl("/status")[0] == 200
        assert browser.curl("/logout", "-X", "POST")[0] == 303
        assert browser.curl("/status")[0] == 403


def an_answer_ends_with_the_right_to_it(server, folder, file):
    """Live pictures stop soon after their viewer was removed, logged out or given another password."""
    user("add", file, "guest", "--role", "watch", password="pass:guest word")
    browser = Browser(server, folder)
    wait_for(lambda: browser.log_in("guest", "pass:guest word")[0] == 303, "the changed file is read")
    with subprocess.Popen(["curl", "-sSN", "-b", browser.jar, browser.url + "/live"], stdout=subprocess.PIPE) as watching:
        watching.stdout.read(3)
        user("set", file, "guest", "--password", password="pass:another one")
        assert watching.wait(LIMIT) is not None
    assert browser.curl("/status")[0] == 403
    user("remove", file, "guest")
    # A file that became nonsense changes nothing; the users are those of before.
    with open(file, encoding="utf-8") as text:
        good = text.read()
    with open(file, "w", encoding="utf-8") as text:
        text.write("nonsense\n")
    time.sleep(1.2)
    browser = Browser(server, folder)
    assert browser.log_in("watchr", "pass:watch word")[0] == 303
    with open(file, "w", encoding="utf-8") as text:
        text.write(good)


def programs_have_a_key(server, file):
    key = user("set", file, "playr", "--key").strip()
    assert re.fullmatch("[0-9a-f]{32}", key), key
    ask = ["curl", "-sS", "-o", "/dev/null", "-w", "%{http_code}", "--digest", server.start["url"]]
    wait_for(lambda: subprocess.run([*ask[:-1], "-u", "playr:" + key, ask[-1] + "auth/days?month=2026-11"],
                                    capture_output=True, check=True).stdout == b"200", "the key is taken")
    for login, path, code in (("playr:" + key, "auth/record?site=1&on=1", b"403"),
                              ("playr:pass:play word", "auth/status", b"401"), ("watchr:", "auth/status", b"401")):
        assert subprocess.run([*ask[:-1], "-u", login, ask[-1] + path], capture_output=True, check=True).stdout == code, login


def who_guesses_waits(server, folder):
    guesser = Browser(server, folder, "127.0.0.9")
    codes = [guesser.log_in("manager", "wrong")[0] for _ in range(8)]
    assert codes[0] == 403 and codes[-1] == 429, codes
    assert "Retry-After" in guesser.log_in("manager", "pass:manage word")[1], "not even the right one"
    # Who has logged in before from another place is not kept out.
    assert Browser(server, folder).log_in("manager", "pass:manage word")[0] == 303


def it_is_told_who_did_what(server, folder, audit):
    with open(audit, encoding="utf-8") as text:
        lines = [json.loads(line) for line in text]
    did = {(line["user"], line["did"], line["result"]) for line in lines}
    for role in ROLES:
        assert (role + "r", "login", "done") in did and (role + "r", "logout", "done") in did
    assert ("manager", "login", "wrong user name or password") in did
    assert any(who == "watchr" and what == "record" and "needs" in result for who, what, result in did), did
    assert {"127.0.0.1", "127.0.0.9"} == {line["from"] for line in lines}
    manager = Browser(server, folder)
    manager.log_in("manager", "pass:manage word")
    os.rename(audit, audit + ".1")  # moved away: another one begins
    manager.curl("/record?site=7&on=1", "-X", "PUT")
    told = json.loads(manager.curl("/audit")[2])
    assert told["kept"] and [line["did"] for line in told["lines"]] == ["record"], told


def main():
    with tempfile.TemporaryDirectory() as folder:
        file, audit = users_are_made(folder), folder + "/audit"
        with Orvanta(PROGRAM, "serve", "--port", "0", "--data", folder + "/data", "--users", file, "--audit", audit) as server:
            everybody_gets_what_the_role_allows(server, folder)
            who_guesses_waits(server, folder)
            an_answer_ends_with_the_right_to_it(server, folder, file)
            programs_have_a_key(server, file)
            it_is_told_who_did_what(server, folder, audit)
            assert server.end() == 0


main()

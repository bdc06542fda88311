#!/usr/bin/env python3
"""The recorder as a service, watched from outside while cameras see something, go and come: `orvanta status`, figures,
and hooks by a command and by HTTPS; and a camera with H.265 that is found, and tells of its events, by ONVIF over HTTPS.

Usage: service_test.py ORVANTA
"""

import base64
import http.server
import json
import os
import signal
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]


class Recipient(http.server.ThreadingHTTPServer):
    """Takes POSTs over TLS from who knows the password."""

    def __init__(self, folder):
        self.told = []
        self.refused = 0
        recipient = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                known = "Basic " + base64.b64encode(b"operator:s3cret").decode()
                if self.headers.get("Authorization") != known:
                    recipient.refused += 1
                    self.send_response(401)
                    self.send_header("WWW-Authenticate", 'Basic realm="operations"')
                    self.send_header("Content-Length", "0")
                    self.end_headers()
                    return
                recipient.told.append(json.loads(body))
                self.send_response(204)
                self.end_headers()

            def log_message(self, *_):
                pass

        super().__init__(("127.0.0.1", 0), Handler)
        self.certificate = os.path.join(folder, "certificate.pem")
        key = os.path.join(folder, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out", self.certificate],
                       check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.certificate, key)
        self.socket = context.wrap_socket(self.socket, server_side=True)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Service:
    def __init__(self, folder, config):
        self.folder = folder
        self.data = os.path.join(folder, "data")
        file = os.path.join(folder, "recorder.toml")
        with open(file, "w", encoding="utf-8") as text:
            text.write(f'data = "{self.data}"\n' + config)
        self.log = open(os.path.join(folder, "log"), "w", encoding="utf-8")
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", PROGRAM, "record", "--config", file],
                                        stderr=self.log)

    def ask(self, *options):
        return subprocess.run([PROGRAM, "status", "--data", self.data, *options], capture_output=True, text=True,
                              check=False, timeout=LIMIT)

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(LIMIT)


def site_of(status, number):
    return next(each for each in json.loads(status.stdout)["sites"] if each["site"] == number)


def check(folder, recipient):
    told_file = os.path.join(folder, "told")
    with Orvanta(PROGRAM, "camera", "--port", "0") as plain, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--onvif", "0", "--no-discovery", "--gop", "10", "--user", "admin",
                    "--password", "pw", "--codec", "h265", "--media2", "--onvif-tls", "--certificate",
                    os.path.join(folder, "camera.pem")) as seeing:
        host = urllib.parse.urlsplit(seeing.start["cameras"][0]["onvif_url"]).netloc
        url = plain.start["cameras"][0]["url"]

        def control(what):
            anybody = ssl._create_unverified_context()
            with urllib.request.urlopen(f"https://{host}/control/{what}", timeout=LIMIT, context=anybody) as answer:
                return json.load(answer)

        post = f"https://localhost:{recipient.server_address[1]}/events"
        service = Service(folder, f"""
[[hooks]]
name = "script"
command = ["/bin/sh", "-c", "cat >>{told_file}"]
[[hooks]]
name = "web"
post = "{post}"
user = "operator"
password = "s3cret"
ca-file = "{recipient.certificate}"
[[hooks]]
name = "stranger"
post = "{post}"
ca-file = "{recipient.certificate}"
events = ["service-started"]
[[hooks]]
name = "doubter"
post = "{post}"
user = "operator"
password = "s3cret"
events = ["service-started"]
[[sites]]
number = 1
name = "Gate"
url = "{url}"
[[sites]]
number = 7
name = "Yard"
url = "onvifs://{host}"
fingerprint = "{seeing.start["certificate_sha256"]}"
user = "admin"
password = "pw"
plan = "events"
pre-alarm = 2
after-event = 1
""")
        try:
            wait_for(lambda: service.ask().returncode == 0, "a recorder that is well")
            wait_for(lambda: site_of(service.ask("--json"), 1)["recording"] == "recording", "site 1 is recorded")
            wait_for(lambda: control("state")["subscriptions"] == 1, "the subscription to the camera's events")
            control("motion?on=1")
            wait_for(lambda: site_of(service.ask("--json"), 7)["event"], "the event shows")
            control("motion?on=0")
            wait_for(lambda: not site_of(service.ask("--json"), 7)["event"], "the event is over")

            plain.process.kill()
            lost = wait_for(lambda: (answer := service.ask()).returncode == 1 and answer, "the camera is missed")
            assert '! site 1 "Gate"' in lost.stdout and "nothing recorded since" in lost.stdout, lost.stdout
            figures = service.ask("--metrics")
            assert figures.returncode == 0 and 'orvanta_site_missing{site="1"} 1' in figures.stdout
            assert 'orvanta_site_missing{site="7"} 0' in figures.stdout
            time.sleep(5)  # until it counts as lost
            with Orvanta(PROGRAM, "camera", "--port", str(urllib.parse.urlsplit(url).port)):
                wait_for(lambda: service.ask().returncode == 0, "the camera is back")
                wait_for(lambda: any(each["event"] == "site-back" for each in recipient.told), "the hook's site-back")
                # The one that nobody knows is refused, the one that knows nobody tells nothing, and nobody waits for them.
                hooks = {each["name"]: each for each in json.loads(service.ask("--json").stdout)["hooks"]}
                assert hooks["stranger"]["told"] == 0 and "401" in hooks["stranger"]["problem"], hooks
                assert hooks["doubter"]["told"] == 0 and "certificate" in hooks["doubter"]["problem"], hooks
                assert hooks["web"]["problem"] == hooks["script"]["problem"] == "", hooks
                assert service.end() == 0
        except BaseException:
            print(open(os.path.join(folder, "log"), encoding="utf-8").read(), file=sys.stderr)
            raise
        finally:
            service.process.kill()
            service.process.wait()
    gone = service.ask()
    assert gone.returncode == 2 and "no recorder runs on this folder" in gone.stderr, gone

    expected = ["service-started", "event-begun", "event-ended", "gap-begun", "site-lost", "site-back", "gap-ended",
                "service-stopped"]
    with open(told_file, encoding="utf-8") as lines:
        by_command = [json.loads(line) for line in lines]
    for told in (by_command, recipient.told):
        seen = [each["event"] for each in told]
        assert sorted(each for each in seen if each in expected) == sorted(expected), seen
        assert seen[0] == "service-started" and seen[-1] == "service-stopped", seen
        begun = next(each for each in told if each["event"] == "event-begun")
        assert begun["site"] == 7 and begun["name"] == "Yard", begun
        missed = next(each for each in told if each["event"] == "gap-begun")
        assert missed["site"] == 1 and missed["cause"] == "camera gone", missed
    with open(os.path.join(folder, "log"), encoding="utf-8") as log:
        text = log.read()
        assert "s3cret" not in text and "401" in text, text
    database = json.loads(subprocess.run([PROGRAM, "db", "--json", "--data", service.data], capture_output=True, check=True,
                                         timeout=LIMIT).stdout)
    assert [(each["site"], each["site_name"]) for each in database["events"]] == [(7, "Yard")], database["events"]
    assert {each["site"] for each in database["records"]} == {1, 7}
    of_event = next(os.path.join(found, each) for found, _, names in os.walk(service.data) for each in names
                    if each.startswith("Rec_Site7_") and each.endswith(".drv"))
    inspected = subprocess.run([PROGRAM, "inspect", "--json", of_event], capture_output=True, check=True, timeout=LIMIT)
    assert b'"H265"' in inspected.stdout, inspected


with tempfile.TemporaryDirectory() as work:
    check(work, Recipient(work))
print("status, figures, hooks and events tell what happened")

#!/usr/bin/env python3
"""orvanta serve, asked by curl: who may see what, and what is answered.

Usage: serve_test.py ORVANTA
"""

import hashlib
import json
import re
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]
LOGIN = ("--user", "me", "--password", "se cret")


def curl(server, target, *options, login="me:se cret"):
    """Status and body; --digest unless login is None."""
    who = ["--digest", "-u", login] if login else []
    command = ["curl", "-sS", "-m", str(LIMIT), "-w", "\n%{http_code}", *who, *options,
               server.start["url"].rstrip("/") + target]
    result = subprocess.run(command, capture_output=True, check=False)
    assert result.returncode == 0, result.stderr
    body, status = result.stdout.rsplit(b"\n", 1)
    return int(status), body


def status(server):
    code, body = curl(server, "/auth/status")
    assert code == 200, body
    return json.loads(body)["sites"]


class Watcher:
    """The endless answer of live pictures, record by record."""

    def __init__(self, server, target):
        command = ["curl", "-sSN", "--digest", "-u", "me:se cret", server.start["url"][:-1] + target]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE)

    def record(self):
        about = json.loads(self.process.stdout.readline())
        return about, self.process.stdout.read(about.get("bytes", 0))

    def picture(self, site):
        while True:
            about, jpeg = self.record()
            if jpeg and about["site"] == site:
                return about, jpeg

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


def serve(data, *arguments):
    return Orvanta(PROGRAM, "serve", "--port", "0", "--data", data, *arguments)


def only_who_logs_in(data):
    with serve(data, *LOGIN, "rtsp://127.0.0.1:1/<script>&") as server:
        assert list(server.start) == ["url", "port"]
        code, page = curl(server, "/", "-i", login=None)
        assert code == 303 and b"\r\nLocation: login\r\n" in page, page
        code, page = curl(server, "/login", "-i", "-b", data + "/none", "-c", data + "/jar", "-d", "user=me", "--data-urlencode",
                          "password=se cret", login=None)
        assert code == 303, page
        code, page = curl(server, "/", "-i", "-b", data + "/jar", login=None)
        # Self-contained, and nothing in it but itself.
        assert code == 200 and b'data-user="me" data-role="manage"' in page and b"</html>" in page, page
        assert b"Content-Security-Policy: default-src 'none'; script-src 'self';" in page, page
        names = set(re.findall(rb'(?:src|href)="(page/[^"]+)"', page))
        assert names, page
        while names:
            name = names.pop()
            code, part = curl(server, "/" + name.decode(), "-i", login=None)
            assert code == 200 and b"://" not in part, (name, code, "something from outside")
            assert (b"text/javascript" if name.endswith(b".js") else b"text/css") in part, part[:500]
            names |= {b"page/" + other for other in re.findall(rb"from './([^']+)'", part)} - {name}
        for target in ("/auth/status", "/auth/live", "/auth/video", "/auth/sound?site=1", "/auth/days?month=2026-11"):
            assert curl(server, target, login=None)[0] == 401
            assert curl(server, target, login="me:wrong")[0] == 401
            assert curl(server, target, login="you:se cret")[0] == 401
            assert curl(server, target.removeprefix("/auth"))[0] == 403
        # A login counts for what it was made for.
        told = subprocess.run(["curl", "-sSv", "--digest", "-u", "me:se cret", server.start["url"] + "auth/status"],
                              capture_output=True, text=True, check=True).stderr
        proof = re.search(r"> (Authorization: Digest .*)\r?\n", told)[1]
        assert curl(server, "/auth/status", "-H", proof, login=None)[0] == 200
        assert curl(server, "/auth/days?month=2026-11", "-H", proof, login=None)[0] == 401
        assert "content-type: application/json" in told.lower(), told
        code, body = curl(server, "/auth/status")
        assert code == 200 and b"<" not in body and b"&" not in body, body
        site = wait_for(lambda: [s for s in status(server) if s["fault"]], "the fault is told")[0]
        assert "<script>&" in site["url"] and site["fault"] == "unreachable", site
        for bad in ("/auth/days", "/auth/days?starts=5", "/auth/days?starts=5,5", "/auth/days?starts=1,2,",
                    "/auth/days?starts=" + ",".join(map(str, range(1, 34))), "/auth/days?month=2026-13", "/auth/days?month=%s%n",
                    "/auth/video?sites=1,x", "/auth/live?sites=1&width=3", "/auth/sound?site=7",
                    "/auth/recordings?from=0&to=9", "/auth/recordings?from=5&to=4",
                    "/auth/recordings?from=1&to=99999999999999999999"):
            code, body = curl(server, bad)
            assert code == 400 and json.loads(body)["error"], (bad, code, body)
        code, body = curl(server, "/auth/days?month=2026-11")
        assert code == 200 and json.loads(body)["days"] == []
        assert server.end() == 0


def without_a_user_this_machine_watches_and_nobody_changes(data):
    with serve(data) as server:
        code, page = curl(server, "/", login=None)
        assert code == 200 and b'data-user="" data-role="play"' in page
        assert curl(server, "/record?site=1&on=1", "-X", "PUT", login=None)[0] == 403
        assert curl(server, "/status", login=None)[0] == 200
        # A page whose name was made to mean this machine learns nothing.
        assert curl(server, "/status", "-H", "Host: evil.example", login=None)[0] == 400
        for known in ("localhost:80", "127.0.0.1", socket.gethostname().upper()):
            assert curl(server, "/status", "-H", "Host: " + known, login=None)[0] == 200, known
        assert curl(server, "/auth/status", login=":")[0] == 401
    with serve(data, "--allow", "127.0.0.2", "--allow", "192.168.0.0-192.168.9.255") as server:
        assert curl(server, "/", login=None)[0] == 901
        assert curl(server, "/", "--interface", "127.0.0.2", login=None)[0] == 200
    with serve(data, "--name", "cameras.example", "--bind", "127.0.0.2") as server:
        assert server.start["url"].startswith("http://127.0.0.2:"), server.start
        assert curl(server, "/status", "-H", "Host: cameras.example", login=None)[0] == 200
        with socket.socket() as elsewhere:
            assert elsewhere.connect_ex(("127.0.0.1", server.start["port"])) != 0
    with serve(data, *LOGIN, "--deny", "127.0.0.2-127.0.0.9") as server:
        assert curl(server, "/login", login=None)[0] == 200
        assert curl(server, "/login", "--interface", "127.0.0.3", login=None)[0] == 902


def pictures_are_made_only_for_watchers(data):
    with Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240") as camera, \
            serve(data, *LOGIN, camera.start["cameras"][0]["url"]) as server:
        wait_for(lambda: status(server)[0]["frames"] > 20, "frames")
        assert status(server)[0]["decoded"] == 0, "decoded for nobody"
        watchers = [Watcher(server, "/auth/live") for _ in range(2)]
        for watcher in watchers:
            about, first = watcher.picture(1)
            assert (about["width"], about["height"]) == (320, 240)
            assert first.startswith(b"\xff\xd8") and first.endswith(b"\xff\xd9")
            assert watcher.picture(1)[1] != first, "the picture stands"
        for watcher in watchers:
            watcher.end()

        def at_rest():
            before = status(server)[0]["decoded"]
            frames = status(server)[0]["frames"]
            wait_for(lambda: status(server)[0]["frames"] > frames + 10, "more frames")
            return status(server)[0]["decoded"] == before

        wait_for(at_rest, "decoding ends with the last watcher")
        # Pictures begin anew, and a watcher that reads nothing does not hold up the end.
        stuck = Watcher(server, "/auth/live")
        stuck.picture(1)
        assert server.end() == 0
        stuck.end()


class Stream:
    """The fragments of a site as a player is given them, up to a number of records."""

    def __init__(self, server, target, records):
        watcher = Watcher(server, target)
        self.abouts, self.bytes = [], b""
        while len(self.abouts) < records:
            about, part = watcher.record()
            if part:
                self.abouts.append(about)
                self.bytes += part
        watcher.end()

    def probe(self, folder):
        """Codec and packets, as ffprobe finds them."""
        with open(folder + "/stream.mp4", "wb") as file:
            file.write(self.bytes)
        told = subprocess.run(["ffprobe", "-v", "error", "-of", "json", "-show_streams", "-show_packets",
                               folder + "/stream.mp4"], capture_output=True, check=True, text=True)
        assert not told.stderr, told.stderr
        told = json.loads(told.stdout)
        return told["streams"][0]["codec_name"], told["packets"]


def video_goes_out_as_it_comes(data):
    with Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--audio", "pcmu", "--gop", "10") as camera, \
            Orvanta(PROGRAM, "camera", "--port", "0", "--size", "320x240", "--codec", "mjpeg") as second, \
            serve(data, *LOGIN, camera.start["cameras"][0]["url"], second.start["cameras"][0]["url"]) as server:
        wait_for(lambda: status(server)[0]["frames"] > 10, "frames")
        streams = []
        threads = [threading.Thread(target=lambda: streams.append(Stream(server, "/auth/video?sites=1", 60)))
                   for _ in range(3)]
        stuck = Watcher(server, "/auth/video")  # reads nothing, and holds up nobody
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for stream in streams:
            assert stream.abouts[0]["type"].startswith('video/mp4; codecs="avc1.'), stream.abouts[0]
            assert stream.abouts[1]["key"] and {about["site"] for about in stream.abouts} == {1}
            codec, packets = stream.probe(data)
            assert codec == "h264" and len(packets) == 59, (codec, len(packets))
            times = [float(packet["pts_time"]) for packet in packets]
            assert all(0 < after - before < .2 for before, after in zip(times, times[1:])), times
        sound = Stream(server, "/auth/sound?site=1", 20)
        codec, packets = sound.probe(data)
        assert codec == "aac" and len(packets) >= 19, (codec, len(packets))
        jpeg = Watcher(server, "/auth/video?sites=2")
        about, picture = jpeg.picture(2)
        assert (about["width"], about["height"]) == (320, 240), about
        assert picture.startswith(b"\xff\xd8") and picture.endswith(b"\xff\xd9")
        jpeg.end()
        assert [site["decoded"] for site in status(server)] == [0, 0], "decoded for nobody"
        # Pictures are no larger than they are shown.
        small = Watcher(server, "/auth/live?sites=1&width=160")
        wait_for(lambda: small.picture(1)[0]["width"] == 160, "small pictures")
        assert small.picture(1)[0]["height"] == 120
        small.end()
        stuck.end()
        wait_for(lambda: curl(server, "/auth/status")[1].startswith(b'{"time"') and
                 json.loads(curl(server, "/auth/status")[1])["watchers"] == 0, "nobody watches")
        assert server.end() == 0


def ask(server, target, *options):
    code, body = curl(server, target, *options)
    assert code == 200, (target, code, body)
    return json.loads(body)


def what_is_recorded_is_found_and_played(data):
    with Orvanta(PROGRAM, "camera", "--port", "0", "--gop", "10") as camera, \
            serve(data, *LOGIN, camera.start["cameras"][0]["url"]) as server:
        before = int(time.time())
        for bad in ("?site=0&on=1", "?site=2&on=1", "?site=1&on=2", "?on=1", ""):
            assert curl(server, "/auth/record" + bad, "-X", "PUT")[0] == 400
        assert curl(server, "/auth/record?site=1&on=1")[0] == 400, "changed by a link"
        assert not status(server)[0]["recording"]
        wait_for(lambda: status(server)[0]["frames"] > 10, "frames")
        ask(server, "/auth/record?site=1&on=1", "-X", "PUT")
        wait_for(lambda: status(server)[0]["recorded_bytes"] > 0, "something is recorded")
        assert status(server)[0]["recording"]
        time.sleep(4)
        assert ask(server, "/auth/record?site=1&on=0", "-X", "PUT") == {"site": 1, "recording": False}
        now = int(time.time())
        today = time.gmtime(before)
        days = ask(server, f"/auth/days?month={today.tm_year}-{today.tm_mon:02}")
        assert today.tm_mday in days["days"] and days["complete"], days
        # Days that begin when it pleases whoever asks; the recording lies in the second.
        noon = before - 40_000
        days = ask(server, f"/auth/days?starts={noon - 86400},{noon},{noon + 86400},{noon + 172800}")
        assert days == {"days": [2], "complete": True}, days
        interval = f"from={before}&to={now + 60}"
        found = ask(server, "/auth/recordings?" + interval)
        spans = found["spans"]
        assert len(spans) == 1 and spans[0]["site"] == 1 and spans[0]["name"] == "Site 1", found
        assert before <= spans[0]["start"] < spans[0]["end"] <= now, spans

        # An alarm of channel 2 that begins before the recording is shown from its start on.
        start, end = spans[0]["start"], spans[0]["end"]
        with open(data + "/EventList0", "ab") as events:
            events.write(struct.pack("<64s128sHBxHBxHB5xI4xqq", "Site 1".encode("utf-16le"), b"", 554,
                                     0, 1, 3, 0, 0, 1, start - 5, end))
        events = ask(server, "/auth/recordings?" + interval)["events"]
        assert events == [{"site": 1, "kind": "alarm", "channel": 2, "start": start, "end": end,
                           "name": "Site 1"}], events

        # Gaps tell their causes; what is kept is shown; a span goes out as a clip.
        gaps = ask(server, "/auth/recordings?" + f"from={before - 9}&to={now + 60}")["gaps"]
        assert all(gap["cause"] and gap["site"] == 1 for gap in gaps), gaps
        kept = f"?site=1&from={start}&to={end}"
        assert curl(server, "/auth/keep" + kept + "&on=1")[0] == 400, "changed by a link"
        ask(server, "/auth/keep" + kept + "&on=1", "-X", "PUT")
        assert ask(server, "/auth/recordings?" + interval)["kept"] == [{"site": 1, "start": start, "end": end}]
        ask(server, "/auth/keep" + kept + "&on=0", "-X", "PUT")
        assert ask(server, "/auth/recordings?" + interval)["kept"] == []
        code, body = curl(server, "/auth/export" + kept, "-X", "PUT")
        made = json.loads(body.splitlines()[-1])
        code, clip = curl(server, "/auth/clip?id=" + made["clip"])
        assert code == 200 and len(clip) == made["size"], (code, made)
        assert hashlib.sha256(clip).hexdigest() == made["sha256"]
        assert curl(server, "/auth/clip?id=../EventList0")[0] == 400
        assert curl(server, f"/auth/export?site=7&from={start}&to={end}", "-X", "PUT")[0] == 400
        # As it was recorded, for players in browsers: the clip's pictures, at the same pace.
        code, body = curl(server, f"/auth/stretch?site=1&ms={start * 1000}&origin={start - 60}&sound=1")
        line, stretch = body.split(b"\n", 1)
        about = json.loads(line)
        assert about["type"].startswith("video/mp4") and about["sound_type"] == "" and about["next"] == 0, about
        assert len(stretch) == about["bytes"] == about["video_bytes"], about
        assert start * 1000 <= about["begin"] < about["end"] <= (end + 1) * 1000 + 40, (about, start, end)
        with open(data + "/stretch.mp4", "wb") as file:
            file.write(stretch)
        probed = json.loads(subprocess.run(
            ["ffprobe", "-v", "error", "-of", "json", "-show_entries", "packet=pts_time", data + "/stretch.mp4"],
            capture_output=True, check=True).stdout)["packets"]
        times = [float(packet["pts_time"]) for packet in probed]
        assert len(times) == made["pictures"], (len(times), made)
        assert abs(times[0] - 60 - (about["begin"] / 1000 - start)) < .01, (times[0], about)
        assert max(late - early for early, late in zip(times, times[1:])) < .5, times
        assert json.loads(curl(server, f"/auth/stretch?site=7&ms={start * 1000}&origin=0")[1].split(b"\n")[0])["bytes"] == 0
        code, small = curl(server, f"/auth/thumbnail?site=1&at={start}")
        assert code == 200 and small.startswith(b"\xff\xd8") and len(small) < 20_000, (code, len(small))
        assert curl(server, f"/auth/thumbnail?site=1&at={before - 9000}")[0] == 400
        held = ask(server, "/auth/storage")
        assert held["sites"][0]["recordings"] > made["size"] / 2 and held["disks"][0]["free"] > 0, held
        # The picture's time moves as the transport says.
        viewer = Watcher(server, f"/auth/play?{interval}&at={spans[0]['start']}")
        first = viewer.record()[0]
        assert first["sites"] == [{"site": 1, "name": "Site 1"}], first
        session = f"/auth/transport?session={first['session']}&do="
        about, jpeg = viewer.picture(1)
        assert jpeg.startswith(b"\xff\xd8") and (about["width"], about["height"]) == (640, 360)
        shown = viewer.picture(1)[0]["time"]
        assert shown > about["time"]
        ask(server, session + "pause")
        still = 0  # so often it was told that nothing moves
        while still < 2:
            told, jpeg = viewer.record()
            shown, still = (told["time"], 0) if jpeg else (shown, still + (told["speed"] == 0))
        times = [shown]
        for step in ("forward", "forward", "backward", "backward"):
            ask(server, session + step)
            times.append(viewer.picture(1)[0]["time"])
        assert times[0] < times[1] < times[2], times
        assert times[3] == times[1] and times[4] == times[0], times
        assert ask(server, session + "faster")["speed"] == 1
        assert ask(server, session + "faster")["speed"] == 2
        ask(server, session + "slower")
        assert ask(server, session + "slower")["speed"] == -1, "backward"
        assert ask(server, session + f"seek&at={spans[0]['end']}")
        wait_for(lambda: viewer.picture(1)[0]["time"] >= spans[0]["end"] * 1000 - 500, "the end")
        for bad in ("/auth/transport?do=pause", "/auth/transport?session=x&do=pause",
                    session + "fly", session + "seek", f"/auth/play?{interval}", "/auth/play?at=5",
                    "/auth/play?from=5&to=9&at=5"):
            assert curl(server, bad)[0] == 400, bad
        viewer.end()
        wait_for(lambda: curl(server, session + "pause")[0] == 400, "the session ends with its viewer")
        assert server.end() == 0


def by_https_alone(data):
    certificate, key = data + "/page.pem", data + "/page.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-keyout", key, "-out", certificate, "-subj", "/CN=here",
                    "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
    files = ("--tls-cert", certificate, "--tls-key", key)
    with Orvanta(PROGRAM, "serve", "--port", "0", "--data", data, "--json", *LOGIN, *files) as server:
        assert server.start["url"].startswith("https://127.0.0.1:"), server.start
        trusted = ("--cacert", certificate)
        assert curl(server, "/auth/status", *trusted)[0] == 200
        assert curl(server, "/auth/status", *trusted, login="me:wrong")[0] == 401
        assert b"<html" in curl(server, "/login", *trusted, login=None)[1].lower()
        plain = subprocess.run(["curl", "-sS", server.start["url"].replace("https", "http")], capture_output=True,
                               timeout=LIMIT, check=True).stdout
        assert b"https://" in plain, plain
        assert server.end() == 0


def wrong_usage(data):
    taken = socket.create_server(("127.0.0.1", 0))
    port = str(taken.getsockname()[1])
    for arguments, code, says in (
            (["--port", "0"], 2, "--data"),
            (["--data", data], 2, "--port"),
            (["--port", "0", "--data", data, "--user", "me"], 2, "--password"),
            (["--port", "0", "--data", data, "--allow", "1.2.3.4-1.2.3.3"], 2, "1.2.3.4-1.2.3.3"),
            (["--port", "0", "--data", data, "--deny", "here"], 2, "here"),
            (["--port", "0", "--data", data, "--bind", "1.2.3"], 2, "--bind"),
            (["--port", "0", "--data", data, "rtps://x"], 2, "rtps://x"),
            (["--port", "0", "--data", data, "--tls-cert", "x"], 2, "--tls-key"),
            (["--port", "0", "--data", data, "--tls-cert", "none", "--tls-key", "none"], 1, "none: No such file"),
            (["--port", port, "--data", data], 1, port)):
        result = subprocess.run([PROGRAM, "serve", *arguments], capture_output=True, text=True,
                                timeout=LIMIT, check=False)
        assert result.returncode == code, (arguments, result)
        assert says in result.stderr and result.stderr.count("\n") == 1, result.stderr


with tempfile.TemporaryDirectory() as folder:
    only_who_logs_in(folder)
    without_a_user_this_machine_watches_and_nobody_changes(folder)
    pictures_are_made_only_for_watchers(folder)
    video_goes_out_as_it_comes(folder)
    what_is_recorded_is_found_and_played(folder)
    by_https_alone(folder)
    wrong_usage(folder)

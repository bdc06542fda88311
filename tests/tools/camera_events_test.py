#!/usr/bin/env python3
"""What a camera sees is recorded: its motions stand in the list of events, to the second and with the seconds in
front of them, through a camera that forgets and one that is switched off; and `orvanta onvif HOST events`.

Usage: camera_events_test.py ORVANTA [MOTIONS], with a number for that many motions in a row and nothing else
"""

import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]


class Camera(Orvanta):
    def __init__(self, *options, onvif="0", port="0"):
        super().__init__(PROGRAM, "camera", "--port", port, "--onvif", onvif, "--no-discovery", "--gop", "10",
                         "--user", "admin", "--password", "pw", *options)
        self.host = urllib.parse.urlsplit(self.start["cameras"][0]["onvif_url"]).netloc

    def control(self, what="state"):
        with urllib.request.urlopen(f"http://{self.host}/control/{what}", timeout=LIMIT) as answer:
            return json.load(answer)


def events_are_printed():
    with Camera("--motion-every", "1", "--motion-length", "0.3", "--onvif-clock", "3600") as camera:
        done = subprocess.run([PROGRAM, "onvif", camera.host, "--user", "admin", "--password", "pw", "events", "--json",
                               "--seconds", "4"], capture_output=True, check=True, timeout=LIMIT)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        motions = [each for each in lines if each["kind"] == "motion" and not each["initial"]]
        assert len(motions) >= 3, lines
        for each in motions:
            assert each["topic"] == "tns1:VideoSource/MotionAlarm" and each["source"] == {"Source": "VideoSource0"}
            assert 3598 < (each["camera_ms"] - each["received_ms"]) / 1000 < 3602, each
        assert camera.control()["subscriptions"] == 0

        # Ended by a signal it leaves nothing behind either, and says why nothing came.
        with subprocess.Popen([PROGRAM, "onvif", camera.host, "--user", "admin", "--password", "pw", "events"],
                              stdout=subprocess.PIPE) as printing:
            assert b"motion" in printing.stdout.readline()
            printing.send_signal(signal.SIGINT)
            assert printing.wait(LIMIT) == 0
        assert camera.control()["subscriptions"] == 0
        wrong = subprocess.run([PROGRAM, "onvif", camera.host, "--user", "admin", "--password", "no", "events",
                                "--seconds", "1"], capture_output=True, check=False, timeout=LIMIT)
        assert wrong.returncode == 1 and b"password is wrong" in wrong.stderr, wrong


def recording_of(data, *arguments):
    return subprocess.Popen([PROGRAM, "record", "--data", data, "--transport", "tcp", "--json", *arguments],
                            stdout=subprocess.PIPE)


def end_of(recording):
    """What is told of the site at the end."""
    recording.send_signal(signal.SIGTERM)
    return json.loads(recording.communicate(timeout=LIMIT)[0])["sites"][0]


def events_in(data):
    return json.loads(subprocess.run([PROGRAM, "db", "--json", "--data", data], capture_output=True, check=True,
                                     timeout=LIMIT).stdout)["events"]


def firsts_in(files):
    """The times of the frames at which marks begin, in whole seconds as files have them."""
    firsts, marked = [], False
    for path in files:
        inspected = subprocess.run([PROGRAM, "inspect", "--frames", "--json", path], capture_output=True, check=True,
                                   timeout=LIMIT)
        for frame in json.loads(inspected.stdout)["frame_list"]:
            if frame["kind"] != "audio":
                if frame["marks"] and not marked:
                    firsts.append(frame["time"])
                marked = frame["marks"] != ""
    return firsts


def motions_are_recorded(data, count):
    """Every second one through another trouble: a subscription that the camera forgets, a connection that breaks, a camera
    that is switched off."""
    camera = Camera()
    ports = [str(urllib.parse.urlsplit(camera.start["cameras"][0][url]).port) for url in ("url", "onvif_url")]
    recording = recording_of(data, "--events", "motion,input", "--pre-alarm", "2", f"onvif://admin:pw@{camera.host}")
    seen = []
    try:
        wait_for(lambda: camera.control()["subscriptions"] == 1, "the subscription")
        time.sleep(4)
        for number in range(count):
            trouble = (None, "forget", None, "break", None, "off")[number % 6]
            if trouble == "off":
                camera.process.kill()
                camera.process.wait()
                camera = Camera(port=ports[0], onvif=ports[1])
                wait_for(lambda: camera.control()["subscriptions"] == 1, "the subscription at a camera that came back")
                time.sleep(6)  # the stream comes back too
            elif trouble:
                camera.control(trouble)
            camera.control("motion?on=1")
            time.sleep((1, 0.2, 2)[number % 3])
            seen.append(camera.control("motion?on=0")["motions"][-1])
            time.sleep(3)  # behind the event's end, what will be in front of the next one
        site = end_of(recording)
        state = camera.control()
        assert (state["subscriptions"], state["expired"]) == (0, 0), state
    finally:
        recording.kill()
        camera.process.kill()
        camera.process.wait()
    events = events_in(data)
    assert len(events) == len(seen) == count, (events, seen, site)
    # What the list says is what the files have, to the second.
    assert [event["start"] for event in events] == firsts_in(site["files"]), (events, site["files"])
    # A start is the whole second in which the first frame was taken that came when the event was known, a tenth of a second
    # behind it. Where the machine is busy that frame was late on its way, and lies in front of the event by as much: hardly
    # ever by more than a tenth of a second, and never by another second. An end is at the next key frame, and shows for a
    # second.
    starts = [event["start"] - motion["from_ms"] / 1000 for event, motion in zip(events, seen)]
    ends = [event["end"] - max(motion["to_ms"] / 1000, motion["from_ms"] / 1000 + 1) for event, motion in zip(events, seen)]
    fronts = [event["pre_alarm"] for event in events]
    figures = (f"{count} motions in a row: starts late by {min(starts):.2f} to {max(starts):.2f} s, ends by {min(ends):.2f} to "
               f"{max(ends):.2f} s, pre-alarms of {min(fronts)} to {max(fronts)} s")
    print(figures)
    late = sum(start < -1.1 for start in starts)
    assert -2 <= min(starts) and late <= max(1, count // 10), (figures, starts)
    assert max(starts) <= 1.2 and -1.5 <= min(ends) and max(ends) <= 1.7, (figures, starts, ends)
    assert min(fronts) >= 1 and max(fronts) <= 4, (figures, fronts)


def h265_is_recorded_over_https(work):
    """Only the second version of the media service tells of such a stream; one fingerprint serves for both connections."""
    with Camera("--codec", "h265", "--media2", "--onvif-tls", "--certificate", os.path.join(work, "camera.pem"),
                "--transports", "tcp", "--motion-every", "5", "--motion-length", "1") as camera:
        data = os.path.join(work, "h265")
        recording = recording_of(data, "--events", "motion", "--pre-alarm", "1", "--fingerprint",
                                 camera.start["certificate_sha256"], f"onvifs://admin:pw@{camera.host}")
        try:
            time.sleep(13)
            site = end_of(recording)
        finally:
            recording.kill()
        inspected = subprocess.run([PROGRAM, "inspect", "--json", site["files"][0]], capture_output=True, check=True,
                                   timeout=LIMIT)
        assert b'"H265"' in inspected.stdout, inspected
        assert len(events_in(data)) >= 2, site
        wrong = subprocess.run([PROGRAM, "live", "--seconds", "5", f"onvifs://admin:pw@{camera.host}"],
                               capture_output=True, check=False, timeout=LIMIT)
        assert wrong.returncode == 1 and b"certificate" in wrong.stderr, wrong


with tempfile.TemporaryDirectory() as folder:
    if len(sys.argv) > 2:
        motions_are_recorded(os.path.join(folder, "data"), int(sys.argv[2]))
    else:
        events_are_printed()
        motions_are_recorded(os.path.join(folder, "data"), 6)
        h265_is_recorded_over_https(folder)
print("what cameras tell is printed and recorded")

"""The built `orvanta` as a child process of a test, and waiting for what it does."""

import json
import os
import signal
import subprocess
import time

# What GStreamer keeps until its process ends is no leak of the cameras.
ENVIRONMENT = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0", "TSAN_OPTIONS": "report_bugs=0"}
LIMIT = 60  # seconds: generous, for machines that are busy


def wait_for(condition, what, limit=LIMIT, pause=0.05):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {limit} s in vain: {what}")
        time.sleep(pause)


class Orvanta:
    """`orvanta ARGUMENTS --json`, whose first line of output is its `start` object."""

    def __init__(self, program, *arguments, **options):
        environment = ENVIRONMENT if arguments[0] == "camera" else os.environ
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", program, *arguments, "--json"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment, **options)
        line = self.process.stdout.readline()
        assert line, f"{arguments[0]} did not start, status {self.process.wait()}"
        self.start = json.loads(line)

    def end(self, stop=signal.SIGTERM):
        """Its exit status; with stop=None it is left to end by itself."""
        if stop is not None:
            self.process.send_signal(stop)
        else:
            self.process.stdin.close()
        return self.process.wait(LIMIT)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

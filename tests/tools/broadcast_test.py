#!/usr/bin/env python3
"""orvanta broadcast: who gets the lines, and that nobody is in another's way.

Usage: broadcast_test.py ORVANTA
"""

import socket
import subprocess
import sys
import threading
import time

from orvanta_process import LIMIT, Orvanta, wait_for

PROGRAM = sys.argv[1]


class Peer:
    """Connected from an address of this machine; `lines` grows on a thread unless it is stuck."""

    def __init__(self, port, address="127.0.0.1", reads=True):
        self.socket = socket.create_connection(("127.0.0.1", port), LIMIT, (address, 0))
        self.received = bytearray()
        self.reset = False
        self.thread = threading.Thread(target=self.read, daemon=True)
        if reads:
            self.thread.start()

    def read(self):
        try:
            while data := self.socket.recv(65536):
                self.received += data
        except OSError:
            self.reset = True

    def has(self, text):
        return wait_for(lambda: text in self.received, f"{text!r} arrives")


def say(server, text):
    server.process.stdin.write(text)
    server.process.stdin.flush()


def connect(server, count, **how):
    """Peers that get what is sent: a line is repeated until each has it."""
    peers = [Peer(server.start["port"], **how) for _ in range(count)]
    reach(server, peers, b"hello\n")
    return peers


def reach(server, peers, line):
    """Who comes or goes takes the permission of its address for a moment: a line is repeated."""
    for peer in peers:
        wait_for(lambda: say(server, line) or line in peer.received, f"{line!r} arrives", 20)


def lines_reach_the_enabled_and_only_them():
    with Orvanta(PROGRAM, "broadcast", "--enable", "127.0.0.1", "--enable", "127.0.0.3") as server:
        assert list(server.start) == ["address", "port"] and server.start["address"] == "0.0.0.0"
        port = server.start["port"]
        stranger = Peer(port, "127.0.0.2")
        # Several behind one address: each new one takes the permission from it, and gets it back.
        peers = connect(server, 2) + connect(server, 2, address="127.0.0.3") + connect(server, 1)
        gone = connect(server, 1)[0]
        gone.socket.shutdown(socket.SHUT_WR)
        gone.thread.join(LIMIT)  # the server has let go of it
        reach(server, peers, b"one\n")
        say(server, b"tw")
        say(server, b"o\n\r\n\n%s%n\nlast, without its end")
        assert server.end(stop=None) == 0
        assert server.process.stdout.read() == b""
        for peer in peers:
            peer.thread.join(LIMIT)
            # All to the last byte, and then the server's end.
            assert peer.received.endswith(b"one\ntwo\n\r\n\n%s%n\nlast, without its end\n"), peer.received
            assert not peer.reset
        stranger.thread.join(LIMIT)
        assert stranger.received == b""


def a_stuck_peer_misses_whole_lines_and_delays_nobody():
    with Orvanta(PROGRAM, "broadcast", stderr=subprocess.PIPE) as server:
        stuck = Peer(server.start["port"], reads=False)
        reader = connect(server, 1)[0]
        say(server, b"now\n")
        reader.has(b"now\n")
        body = b"x" * 99_990
        lines = [b"%08d%s\n" % (number, body) for number in range(300)]  # 30 MB
        for line in lines:
            before = len(reader.received)
            say(server, line)
            wait_for(lambda: len(reader.received) == before + len(line), "the next line", pause=0.001)
            assert reader.received.endswith(line)
        # A line too long for any queue is refused aloud, the next one goes.
        say(server, b"y" * (2 << 20) + b"\nafter\n")
        reader.has(b"after\n")
        assert b"yyy" not in reader.received
        # What the stuck one finds are whole lines, some of them missing.
        stuck.thread.start()
        status = server.end(stop=None)
        assert status == 1, "a line was not sent"
        errors = server.process.stderr.read()
        assert errors.count(b"\n") == 1 and b"longer than" in errors, errors
        stuck.thread.join(LIMIT)
        found = [line + b"\n" for line in bytes(stuck.received).split(b"\n")[:-1]]
        numbered = [line for line in found if line not in (b"hello\n", b"now\n", b"after\n")]
        assert set(numbered) <= set(lines), "a torn line"
        assert 0 < len(numbered) < 300, len(numbered)


def it_ends_when_told_although_a_peer_takes_nothing():
    with Orvanta(PROGRAM, "broadcast") as server:
        stuck = Peer(server.start["port"], reads=False)
        connect(server, 1)
        say(server, (b"z" * 100_000 + b"\n") * 100)
        assert server.end() == 0
        stuck.socket.close()
    with Orvanta(PROGRAM, "broadcast") as server:  # nobody ever came
        say(server, b"into the void\n")
        assert server.end(stop=None) == 0
    wrong = subprocess.run([PROGRAM, "broadcast", "--enable", "nowhere"], capture_output=True)
    assert wrong.returncode == 2 and wrong.stderr.count(b"\n") == 1 and b"nowhere" in wrong.stderr


def what_peers_send_costs_nothing():
    with Orvanta(PROGRAM, "broadcast") as server:
        def memory():
            with open(f"/proc/{server.process.pid}/status", encoding="ascii") as status:
                return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))  # KiB

        peers = connect(server, 40)
        before = memory()
        for peer in peers:
            peer.socket.sendall(b"x" * 100_000)
        reach(server, peers, b"alive\n")
        most = max((time.sleep(0.05), memory())[1] for _ in range(20))
        assert most - before < 40 * 256, f"{most - before} KiB for {len(peers)} peers that sent something"
        assert server.end() == 0


lines_reach_the_enabled_and_only_them()
what_peers_send_costs_nothing()
a_stuck_peer_misses_whole_lines_and_delays_nobody()
it_ends_when_told_although_a_peer_takes_nothing()

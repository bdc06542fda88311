#!/usr/bin/env python3
"""Writes the golden databases of tests/data/databases, from nothing but the documented layout.

    tests/recording/make_golden_databases.py [FOLDER]
"""

import struct
import sys
from pathlib import Path


def text(value, characters):
    return value.encode("utf-16-le").ljust(2 * characters, b"\0")


def record(file, address, site, port, site_number, start, end):
    return (text(file, 260) + text(address, 64) + text(site, 32)
            + struct.pack("<HBBIqq", port, 0, 0, site_number, start, end))


def event(site, address, port, channel, kind, pre_alarm, site_number, start, end):
    return (text(site, 32) + text(address, 64)
            + struct.pack("<HBBHBBHB5xI4xqq", port, 0, 0, channel, kind, 0, 0, pre_alarm,
                          site_number, start, end))


FOLDER = "rec\\Зал 東京 😀"
SITE = "Empfang Süd 受付"
ADDRESS = "cam-7.example"

files = {
    "RecordDB": record(FOLDER + "\\Rec_Site7_20240229120000.drv", ADDRESS, SITE, 8554, 7,
                       1709208000, 1709208600)
    + record(FOLDER + "\\other.drv", "", "", 0, 0, 0, 0)
    + record(FOLDER + "\\Rec_Site7_20240229120001.drv", ADDRESS, SITE, 8554, 7, -5, 0x1_2345_6789),
    "span.DB": struct.pack("<qq", 1709208000, 1709208600),
    "EventList0": event(SITE, ADDRESS, 8554, 0, 1, 0, 7, 1709208010, 1709208020)
    + event(SITE, ADDRESS, 65535, 31, 4, 255, 0xFFFFFFFF, 101, 102),
    "RecFolderDB3": text(FOLDER, 260) + text("D:\\rec", 260),
}

target = Path(sys.argv[1]) if len(sys.argv) > 1 else (
    Path(__file__).resolve().parents[1] / "data/databases")
target.mkdir(parents=True, exist_ok=True)
for name, content in files.items():
    (target / name).write_bytes(content)
    print(f"{target / name}: {len(content)} bytes")

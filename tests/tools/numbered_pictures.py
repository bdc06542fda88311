"""The pictures of `orvanta camera`, which show their numbers, in what was recorded of it."""

import os
import subprocess

from orvanta_process import LIMIT

BLOCK = 16  # pixels, of the 16 in the upper left that show a picture's number


def recordings(data, site):
    return sorted(os.path.join(found, each) for found, _, names in os.walk(data) for each in names
                  if each.startswith(f"Rec_Site{site}_") and each.endswith(".drv"))


def numbers_of(program, recording, work):
    """The numbers that its pictures show."""
    clip = os.path.join(work, "clip.mkv")
    subprocess.run([program, "export", recording, clip], check=True, capture_output=True, timeout=LIMIT)
    shown = subprocess.run(["ffmpeg", "-v", "error", "-i", clip, "-vf", f"crop={16 * BLOCK}:{BLOCK}:0:0,format=gray",
                            "-fps_mode", "passthrough", "-f", "rawvideo", "-"], check=True, capture_output=True, timeout=LIMIT)
    os.remove(clip)
    numbers = []
    for at in range(0, len(shown.stdout), 16 * BLOCK * BLOCK):
        middle = shown.stdout[at + 16 * BLOCK * (BLOCK // 2):][:16 * BLOCK]
        word = int("".join("1" if middle[BLOCK * bit + BLOCK // 2] > 128 else "0" for bit in range(16)), 2)
        number = word >> 4
        assert word & 15 == (number ^ number >> 4 ^ number >> 8 ^ 5) & 15, f"{recording}: a picture's number cannot be read"
        numbers.append(number)
    return numbers


def holes_of(program, data, site, work):
    """How many pictures a site's recordings have, and where numbers are missing: the recording behind each hole, and how many."""
    last, count, holes = None, 0, []
    for recording in recordings(data, site):
        for number in numbers_of(program, recording, work):
            # 12 bits of it are shown.
            if last is not None and (number - last) % 4096 != 1:
                holes.append((recording, (number - last) % 4096 - 1))
            last = number
            count += 1
    return count, holes

#!/bin/bash
# orvanta audio beside ffmpeg: what one writes the other reads, sample by sample; round trips; refusals.
# Usage: audio_command_test.sh BUILD_DIR
set -euo pipefail

orvanta=$1/tools/orvanta
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}
audio() { "$orvanta" audio "$@" >/dev/null; }
samples() { ffmpeg -v error -y -i "$1" -f s16le "$2"; } # WAV to its bare samples
same() { cmp "$1" "$2" || fail "$3"; }

# Two seconds of a tone over noise, mono and stereo; not a whole number of blocks.
for channels in 1 2; do
  ffmpeg -v error -f lavfi -i 'sine=440:r=8000:d=2.003,volume=4' -f lavfi -i 'anoisesrc=r=8000:d=2.003:a=.2:seed=1' \
    -filter_complex 'amix=2:normalize=0' -ac $channels -c:a pcm_s16le "in$channels.wav"
  samples "in$channels.wav" "in$channels.raw"
done

for channels in 1 2; do
  for pair in alaw:alaw mulaw:mulaw s16le:s16le s16be:s16be s8:s8; do
    codec=${pair%:*}
    audio encode "in$channels.wav" --codec "$codec" "out.$codec"
    audio decode "out.$codec" --codec "$codec" --channels $channels "out.wav"
    samples out.wav ours.raw
    ffmpeg -v error -y -f "${pair#*:}" -ar 8000 -ac $channels -i "out.$codec" -f s16le theirs.raw
    same ours.raw theirs.raw "$codec with $channels channels"
  done
  audio encode "in$channels.wav" --codec s16le out.s16
  same out.s16 "in$channels.raw" "16-bit samples"
done

# Lossy round trips keep the sound: the error is far below the signal. The last block is filled up.
python3 - "$orvanta" <<'PYTHON'
import array
import json
import subprocess
import sys
import wave

def run(*arguments):
    done = subprocess.run([sys.argv[1], "audio", *arguments, "--json"], check=True, capture_output=True)
    return json.loads(done.stdout)

def samples(name):
    with wave.open(name) as file:
        return file.getparams(), array.array("h", file.readframes(file.getnframes()))

for channels, codec, block in [(1, "adpcm", []), (1, "ima", []), (2, "ima", ["--block", "160"])]:
    encoded = run("encode", f"in{channels}.wav", "--codec", codec, "out.adpcm", *block)
    assert encoded["samples"] == 16024 and encoded["channels"] == channels, encoded
    assert encoded["rate"] == 8000 and abs(encoded["seconds"] - 2.003) < 1e-9, encoded
    decoded = run("decode", "out.adpcm", "--codec", codec, "out.wav", "--channels", str(channels), *block)
    assert decoded["bytes_in"] == encoded["bytes_out"], (encoded, decoded)
    _, before = samples(f"in{channels}.wav")
    parameters, after = samples("out.wav")
    assert parameters.nchannels == channels and parameters.nframes == decoded["samples"]
    assert len(before) <= len(after) < len(before) + 32, (len(before), len(after))
    noise = sum((a - b) ** 2 for a, b in zip(before, after))
    signal = sum(a * a for a in before)
    assert 0 < noise < signal / 100, (codec, channels, noise / signal)
PYTHON

# Microsoft's blocks as ffmpeg writes them; the header's two samples are in their stored order.
ffmpeg -v error -i in1.wav -c:a adpcm_ms -block_size 256 ms.wav
python3 - ms.wav ms.raw <<'PYTHON'
import sys
data = open(sys.argv[1], "rb").read()
start = data.index(b"data") + 8
open(sys.argv[2], "wb").write(data[start : start + (len(data) - start) // 256 * 256])
PYTHON
audio decode ms.raw --codec ms out.wav
samples out.wav ours.raw
samples ms.wav theirs.raw
python3 - <<'PYTHON'
ours, theirs = (open(name, "rb").read() for name in ("ours.raw", "theirs.raw"))
assert len(ours) > 30000 and len(ours) <= len(theirs), (len(ours), len(theirs))
for block in range(0, len(ours), 1000):
    a, b = ours[block : block + 1000], theirs[block : block + 1000]
    assert a[4:] == b[4:] and a[:2] == b[2:4] and a[2:4] == b[:2], block
PYTHON

# The 8-bit variant: steps followed by hand.
printf '\x7f\x77' >eight
audio decode eight --codec adpcm8 out.wav
samples out.wav ours.raw
[[ $(od -An -v -td2 -w16 ours.raw | tr -s ' ') == ' 3072 3072 -4096 -4096 11008 11008 32512 32512' ]] ||
  fail "adpcm8"

# Refusals: one line, and the status.
refused() { # STATUS ARGUMENTS...
  local status=0 expected=$1
  shift
  "$orvanta" audio "$@" >out 2>refused || status=$?
  [[ $status == "$expected" && $(wc -l <refused) == 1 && ! -s out ]] ||
    fail "status $status of '$*': $(cat out refused)"
}
refused 2
refused 2 decode in1.raw --codec opus out.wav
refused 2 decode in1.raw out.wav
refused 2 encode in1.wav --codec ms out.ms
refused 2 decode in1.raw --codec s16le in1.raw
refused 1 decode missing --codec alaw out.wav
refused 1 decode . --codec alaw out.wav
refused 1 decode in1.raw --codec alaw missing/out.wav
refused 1 encode in1.raw --codec alaw out.alaw
refused 1 encode in1.wav --codec alaw missing/out.alaw
refused 1 encode in2.wav --codec adpcm out.adpcm
refused 1 decode in1.raw --codec ms --block 6 out.wav
refused 1 encode in1.wav --codec alaw /dev/full
head -c 70 /dev/zero >short
refused 1 decode short --codec ima --channels 2 out.wav
head -c 5 short >short5
refused 1 decode short5 --codec s16le out.wav
[[ $(stat -c %s in1.raw) == 32048 ]] || fail "the input was written to"
echo "all as expected"

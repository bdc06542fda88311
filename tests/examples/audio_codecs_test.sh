#!/bin/bash
# The audio example runs, and docs/audio.md shows it as it is.
# Usage: audio_codecs_test.sh BUILD_DIR
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
output=$("$1/examples/audio_codecs")
# mu-law's steps at 8000 are 256 apart: half of one, and the two bits that were cut.
[[ $output =~ ^"50 blocks, no sample off by more than "([0-9]+)$ ]] && ((BASH_REMATCH[1] > 0 && BASH_REMATCH[1] < 132))
python3 - "$root" <<'PYTHON'
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])
shown = re.findall(r"```cpp\n(.*?)```", (root / "docs/audio.md").read_text(), re.DOTALL)
example = (root / "examples/audio_codecs.cpp").read_text()
shown = [each for each in shown if "int main" not in each]  # whole programs are run by themselves
assert shown and all(each in example for each in shown), "docs/audio.md differs from the example"
PYTHON

#!/usr/bin/env python3
"""Runs the commands of the claims in README.md, and fails when one of them does.

    scripts/claims.py [WORD...]    with words: only claims that hold one of them

Each command fails by itself when its claim is no longer true. One that runs no test proves nothing, and fails too. What
they print is in build/claims/.
"""

import os
import re
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
RUNS_NO_TEST = re.compile(r"^\[==========\] Running 0 tests", re.M)


def claims():
    table = re.search(r"^\| Claim \|.*\n\|[-|]+\|\n((?:\|.*\n)+)", (ROOT / "README.md").read_text(), re.M)
    if not table:
        sys.exit("README.md has no table of claims")
    for row in table.group(1).splitlines():
        claim, command = (cell.strip() for cell in row.split("|")[1:3])
        yield claim, command.strip("`")


def holds(command, log):
    """Whether the command ends well, and how long it took."""
    begin = time.monotonic()
    with log.open("w") as output:
        code = subprocess.run(["bash", "-c", command], cwd=ROOT, env={**os.environ, "T": "build/release/tests"},
                              stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, check=False).returncode
    return code == 0 and not RUNS_NO_TEST.search(log.read_text(errors="replace")), time.monotonic() - begin


def main():
    place = ROOT / "build" / "claims"
    place.mkdir(parents=True, exist_ok=True)
    wanted = sys.argv[1:]
    chosen = [row for row in enumerate(claims(), 1) if not wanted or any(word in row[1][0] for word in wanted)]
    broken = 0
    for number, (claim, command) in chosen:
        is_true, seconds = holds(command, place / f"{number}.log")
        broken += not is_true
        print(f"{'holds' if is_true else 'BROKEN'} ({seconds:.0f} s): {claim}", flush=True)
        if not is_true:
            print(f"  {command}\n  see {os.path.relpath(place, ROOT)}/{number}.log")
    print(f"{len(chosen) - broken} of {len(chosen)} claims hold")
    return broken > 0 or not chosen


sys.exit(main())

"""Lets players that are no part of Tarn judge what it repairs: a movie for each kind of repair, in AVC and in HEVC.

    python3 scripts/witnesses [--tarn build/release/tarn] [--keep FOLDER] [--only WORDS]

Prints a table and exits with 1 if a witness finds a fault in a repaired movie, or none in any of the damaged ones.
Below "before" stands how many of those that need no clock find faults in the damaged movie. Chromium plays AVC alone.
"""

import argparse
import subprocess
import sys
import tempfile
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from movies import Maker  # noqa: E402
from players import READERS, ROOT, WITNESSES, judged  # noqa: E402


def settle(movie, repaired):
    """How much of a cut movie is left is known up to a second: pictures and sound end together."""
    if movie.code != 5:
        return []
    count = int(subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-count_packets", "-show_entries",
                                "stream=nb_read_packets", "-of", "default=nk=1:nw=1", repaired], capture_output=True,
                               check=True).stdout)
    faults = [] if len(movie.pictures) - movie.rate <= count <= len(movie.pictures) else [
        f"{count} pictures kept of {len(movie.pictures)}"]
    movie.pictures = movie.pictures[:count]
    movie.duration = movie.start + count / movie.rate
    movie.beeps = [beep for beep in movie.beeps if beep + 0.04 < movie.duration]
    return faults


def judge(movie, tarn, folder):
    """What the readers say of the damaged movie, and what each witness says of the repaired one."""
    before = {name: judged(name, movie, movie.file) for name in READERS}
    repaired = movie.file.with_suffix(".repaired.mp4")
    like = ["--like", movie.like] if movie.like else []
    done = subprocess.run([tarn, "--home", folder / "home", "repair", "--quiet", movie.file, "-o", repaired, *like],
                          capture_output=True, text=True)
    if done.returncode != movie.code:
        return movie, before, {"tarn": [f"exit {done.returncode}: {done.stderr}"]}
    repaired.chmod(0o644)
    after = {"tarn": settle(movie, repaired)}
    for name in WITNESSES:
        if name != "Chromium" or movie.codec == "avc":
            after[name] = judged(name, movie, repaired)
    return movie, before, after


def printed(results):
    names = ["tarn", *WITNESSES]
    print(f"{'':30}{'pictures':>10}{'before':>8}" + "".join(f"{name:>11}" for name in names))
    for movie, before, after in results:
        seen = sum(bool(faults) for faults in before.values())
        cells = ["-" if name not in after else "FAULT" if after[name] else "ok" for name in names]
        print(f"{movie.codec + ', ' + movie.name:30}{len(movie.pictures):10}{seen:5} of {len(before)}"[:53] +
              "".join(f"{cell:>11}" for cell in cells))
    for movie, _, after in results:
        for name, faults in after.items():
            for fault in faults:
                print(f"FAULT: {movie.codec}, {movie.name}: {name}: {fault}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tarn", type=Path, default=ROOT / "build/release/tarn")
    parser.add_argument("--keep", type=Path, help="leaves the movies there")
    parser.add_argument("--only", default="", help="of the movies whose names hold these words")
    asked = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tarn-witnesses-") as made, ThreadPoolExecutor(4) as pool:
        folder = asked.keep or Path(made)
        folder.mkdir(exist_ok=True)
        folder.chmod(0o755)  # VLC plays them as another user
        makers = list(pool.map(lambda codec: Maker(folder, codec), ("avc", "hevc")))
        movies = [movie for found in pool.map(Maker.all, makers) for movie in found
                  if asked.only in f"{movie.codec}, {movie.name}"]
        results = list(pool.map(lambda movie: judge(movie, asked.tarn.resolve(), folder), movies))
    printed(results)
    verdicts = Counter(bool(faults) for _, _, after in results for name, faults in after.items() if name != "tarn")
    blind = [name for name in READERS if not any(before[name] for _, before, _ in results)]
    faults = sum(bool(faults) for _, _, after in results for faults in after.values())
    seen = sum(any(before.values()) for _, before, _ in results)
    print(f"{len(results)} movies repaired, {sum(verdicts.values())} times judged by {len(WITNESSES)} witnesses: "
          f"{faults} faults. {seen} of the damaged ones were found faulty.")
    for name in blind if not asked.only else []:
        print(f"FAULT: {name} finds none of the damages")
    return 1 if faults or (blind and not asked.only) else 0


sys.exit(main())
